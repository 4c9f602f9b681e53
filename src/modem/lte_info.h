// The serving cell's getlteinfo reply as its three readers (frequency,
// bandwidth, band) filtered it: one reply serves them all within a
// supervision pass (LteInfoScope).
#pragma once

#include "modem/modem_manager.h"

namespace cbsd::modem {

// Each text is what `ubus call ubus_lte getlteinfo | grep ...` printed into
// the buffer of that size the reader always used.
struct LteInfo {
    char frequency[64];  // grep dlfreq
    char bandwidth[63];  // grep bandwidth
    char band[63];       // grep -w band
    ModemCall call;      // how the query ended
};

// The reply of this thread's current scope, or a new one (asked now, and
// kept for the scope if there is one).  `shown_as` names the asking reader's
// command line in a time-out line.
const LteInfo& lte_info(const char* shown_as);

// While one is alive, this thread's readers of the frequency, the bandwidth
// and the band share one getlteinfo reply: a supervision pass asks the modem
// once for all of them.  Outside any scope each reader asks anew.
class LteInfoScope {
public:
    LteInfoScope();
    ~LteInfoScope();
    LteInfoScope(const LteInfoScope&) = delete;
    LteInfoScope& operator=(const LteInfoScope&) = delete;
};
// Within a scope, the next reader asks again: a poll that waits for the
// cell to change needs each round's own reply.
void renew_lte_info();
// True when the modem manager refused this thread's latest getlteinfo query:
// its frequency, bandwidth and band then say nothing about the cell.
bool lte_info_refused();

}  // namespace cbsd::modem
