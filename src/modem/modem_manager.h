// One call of the modem manager's METHOD: over the bus thread's libubus
// connection while it runs (no process), otherwise `ubus call ubus_lte
// METHOD` started by argument vector (no shell).  Both have the system seam's
// time limit, and both give the same outcome and the same reply text for
// whatever the modem manager answers.
#pragma once

#include "base/output_sink.h"

namespace cbsd::modem {

enum class ModemCall {
    kAnswered,  // status 0: the reply is the modem manager's
    kRefused,   // a failure status: `ubus_lte` not registered, no ubusd, a
                // method that failed
    kCutShort,  // no answer within the time limit, or ubus could not be started
};

// The reply goes to `reply` as it arrives.  `shown_as` is the command line a
// time-out line names: the shell pipeline the query used to be, so that line
// reads as it always has.
ModemCall call_modem_manager(const char* method, base::OutputSink& reply, const char* shown_as);

}  // namespace cbsd::modem
