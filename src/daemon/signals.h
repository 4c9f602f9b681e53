// The daemon's signal dispositions, set once at start-up.
#pragma once

#include <cstdint>

namespace cbsd::daemon {

// SIGPIPE is ignored: a SAS that resets the connection during a TLS write
// must cost one failed exchange, not the process.  SIGTERM and SIGINT only
// set a flag that the supervision loop reads; the stop itself runs in the
// main thread.  Started commands get the default dispositions back
// (base/system.cpp).
void install_signal_handlers();

// True once SIGTERM or SIGINT arrived.
bool stop_requested();
// Returns once a stop was requested, or after timeoutMs; wakes at the signal
// itself (no polling) once install_signal_handlers ran.
void wait_for_stop_request(uint32_t timeoutMs);

}  // namespace cbsd::daemon
