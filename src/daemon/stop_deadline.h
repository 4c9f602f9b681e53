// The process's last resort: once a stop has been requested, the process ends
// within a fixed time, whatever its other threads are waiting on (a worker in
// an exchange, a firewall tool, a store lock, a full output pipe).
#pragma once

#include <cstdint>

namespace cbsd::daemon {

// Starts a thread that does nothing but watch the stop flag (call once).
// limitMs after it first sees the flag set, it calls lastAct (which must not
// wait on anything another thread may hold), writes one log line with plain
// system calls and ends the process with status 0.
void start_stop_deadline(uint32_t limitMs, void (*lastAct)());

}  // namespace cbsd::daemon
