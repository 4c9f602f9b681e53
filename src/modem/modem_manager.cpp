#include "modem/modem_manager.h"

#include "base/failure_streaks.h"
#include "base/log.h"
#include "base/system.h"
#include "bus/bus.h"

#include <cstdio>
#include <string>
#include <sys/wait.h>

namespace cbsd::modem {

namespace {

constexpr const char* kModemObject = "ubus_lte";

ModemCall call_through_cli(const char* method, base::OutputSink& reply, const char* shown_as) {
    const char* const argv[] = {"ubus", "call", kModemObject, method, nullptr};
    int status = base::run_stream(argv, reply, shown_as);
    if (status == -1) return ModemCall::kCutShort;
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? ModemCall::kAnswered : ModemCall::kRefused;
}

// A refusal is logged as the `ubus` CLI would have reported it on a pipe
// (its exit status and its message), so that a failure streak reads the
// same on both paths.
void note_refusal(const char* name, const char* method, const bus::CallResult& result) {
    char message[200];
    int exit_status = 255;
    if (result.end == bus::CallEnd::kNoConnection) {
        std::snprintf(message, sizeof message, "Failed to connect to ubus");
    } else if (result.end == bus::CallEnd::kNoObject) {
        exit_status = result.status;
        std::snprintf(message, sizeof message, "Command failed: %s", bus::status_text(result.status));
    } else {
        exit_status = (256 - result.status) & 0xff;
        std::snprintf(message, sizeof message, "Command failed: ubus call %s %s (%s)", kModemObject,
                      method, bus::status_text(result.status));
    }
    base::note_command_failure(name, exit_status, message);
}

ModemCall call_through_bus(const char* method, base::OutputSink& reply, const char* shown_as) {
    int limit_s = base::time_limit_for_this_thread(base::kDefaultTimeLimitSeconds);
    bus::CallResult result = bus::call(kModemObject, method, nullptr, limit_s * 1000);
    if (result.end == bus::CallEnd::kTimedOut) {
        base::error("[SAS] no answer from the modem manager within %d s: %s\n", limit_s, shown_as);
        return ModemCall::kCutShort;
    }
    std::string name = std::string("ubus call ") + kModemObject + " " + method;
    if (!result.reply.empty()) reply.feed(result.reply.data(), result.reply.size());
    reply.finish();
    if (result.end == bus::CallEnd::kAnswered) {
        base::note_command_success(name.c_str());
        return ModemCall::kAnswered;
    }
    note_refusal(name.c_str(), method, result);
    return ModemCall::kRefused;
}

}  // namespace

ModemCall call_modem_manager(const char* method, base::OutputSink& reply, const char* shown_as) {
    if (bus::running()) return call_through_bus(method, reply, shown_as);
    return call_through_cli(method, reply, shown_as);
}

}  // namespace cbsd::modem
