#include "modem/modem_manager.h"

#include "base/system.h"

#include <sys/wait.h>

namespace cbsd::modem {

ModemCall call_modem_manager(const char* method, base::OutputSink& reply, const char* shown_as) {
    const char* const argv[] = {"ubus", "call", "ubus_lte", method, nullptr};
    int status = base::run_stream(argv, reply, shown_as);
    if (status == -1) return ModemCall::kCutShort;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? ModemCall::kAnswered : ModemCall::kRefused;
}

}  // namespace cbsd::modem
