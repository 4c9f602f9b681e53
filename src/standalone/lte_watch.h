// The worker's watch of the LTE link while it waits: a change ends the wait.
#pragma once

#include "standalone/oper_timer.h"

namespace cbsd::standalone {

// True when the link's attachment differs from last_connected, which then
// takes the new one.  Rides on the supervision pass's own modem query when
// that is recent enough for the wait the timer runs (see lte_watch.cpp).
bool lte_link_changed(const OperTimer& timer, bool& last_connected);

}  // namespace cbsd::standalone
