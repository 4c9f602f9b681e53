// One call of the modem manager, `ubus call ubus_lte METHOD`, started by
// argument vector (no shell) with the system seam's time limit.
#pragma once

#include "base/output_sink.h"

namespace cbsd::modem {

enum class ModemCall {
    kAnswered,  // ubus ended with status 0: the reply is the modem manager's
    kRefused,   // ubus ended with a failure status, nothing on standard output:
                // `ubus_lte` not registered, no ubusd, a method that failed
    kCutShort,  // killed at the time limit, or ubus could not be started
};

// The reply goes to `reply` as it arrives.  `shown_as` is the command line a
// time-out line names: the shell pipeline the query used to be, so that line
// reads as it always has.
ModemCall call_modem_manager(const char* method, base::OutputSink& reply, const char* shown_as);

}  // namespace cbsd::modem
