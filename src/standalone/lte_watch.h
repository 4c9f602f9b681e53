// The worker's watch of the LTE link while it waits: a change ends the wait.
#pragma once

#include "standalone/oper_timer.h"

namespace cbsd::standalone {

// True when the link's attachment differs from last_connected, which then
// takes the new one.  Over libubus the modem is asked on every call; through
// the `ubus` CLI the supervision pass's own query stands in when it is recent
// enough for the wait the timer runs (see lte_watch.cpp).
bool lte_link_changed(const OperTimer& timer, bool& last_connected);

}  // namespace cbsd::standalone
