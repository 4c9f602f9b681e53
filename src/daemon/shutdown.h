// The process's stop on SIGTERM or SIGINT: the gates first, then the worker,
// every step bounded so that the process ends within 10 s of the signal.
#pragma once

#include <cstdint>

namespace cbsd::daemon {

// With SAS enabled the gates close first, then the worker gives its grant
// back; ends the process with status 0.  A second caller parks while the
// first carries the stop out.
[[noreturn]] void shut_down(bool sasEnabled);
// The transmit guard's stop for a loop that is blocked: the worker gets less
// time, so the process still ends within 10 s of the signal.
void shut_down_for_blocked_loop();
// The stop deadline's last act (see shutdown.cpp).
void close_forwarding_if_gated();

// When the loop is blocked (a modem that never reports a plausible cell) the
// guard takes the stop over after this long.
inline constexpr uint32_t kLoopStopGraceMs = 2000;
// Whatever the stop waits on, the process ends this long after the signal.
inline constexpr uint32_t kStopDeadlineMs = 9000;

}  // namespace cbsd::daemon
