#include "modem/modem_manager.h"

#include "base/system.h"

namespace cbsd::modem {

bool call_modem_manager(const char* method, base::OutputSink& reply, const char* shown_as) {
    const char* const argv[] = {"ubus", "call", "ubus_lte", method, nullptr};
    return base::run_stream(argv, reply, shown_as) != -1;
}

}  // namespace cbsd::modem
