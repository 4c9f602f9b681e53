// The process's stop on SIGTERM or SIGINT: the gates first, then the worker,
// every step bounded so that the process ends within 10 s of the signal.
#pragma once

#include <cstdint>

namespace cbsd::daemon {

// The stop as a whole must end within 10 s: the worker gets 8 of them.
inline constexpr uint32_t kWorkerStopSeconds = 8;
// When the loop is blocked (a modem that never reports a plausible cell) the
// guard takes the stop over after this long, and gives the worker less time,
// so that the process still ends within 10 s of the signal.
inline constexpr uint32_t kLoopStopGraceMs = 2000;
inline constexpr uint32_t kWorkerStopSecondsForBlockedLoop = 6;
// Whatever the stop waits on, the process ends this long after the signal.
inline constexpr uint32_t kStopDeadlineMs = 9000;

// With SAS enabled the gates close first, then the worker gives its grant
// back within workerSeconds; ends the process with status 0.  A second
// caller parks while the first carries the stop out.
[[noreturn]] void shut_down(bool sasEnabled, uint32_t workerSeconds = kWorkerStopSeconds);
// The transmit guard's stop for a loop that is blocked: the worker gets less
// time, so the process still ends within 10 s of the signal.
void shut_down_for_blocked_loop();
// The stop deadline's last act (see shutdown.cpp).
void close_forwarding_if_gated();

}  // namespace cbsd::daemon
