// The operation timer that paces the StandAlone thread: why it waits, how many
// waits it has scheduled with that reason, and the monotonic second the wait
// ends.  A plain record polled once a second; no operating-system timer.
#pragma once

#include <cstdint>

namespace cbsd::standalone {

enum OperTimerType : uint32_t {
    ZERO = 0,
    NETWORK_ERROR = 1,
    RECV_TIMEOUT = 2,
    RESPONSE_ERROR = 3,
    SUSPENDED_GRANT = 4,
    HEART_BEAT_ERROR = 5,
    HEART_BEAT_SUCCESS = 6,
    OTHER = 7,
};

struct OperTimer {
    uint8_t enable;
    uint32_t count;
    uint32_t secTime;  // 0 means due at once
    uint32_t timerType;
};

void oper_timer_reset(OperTimer* timer);
// Arms the timer; re-arming with the type it already runs keeps the back-off.
void oper_timer_start(OperTimer* timer, uint32_t type);
// Counts one more wait and sets secTime to now plus the type's wait.
void oper_timer_schedule(OperTimer* timer, uint32_t now, uint32_t heartbeatInterval);
// The second a wait of the timer's type counts from: the 5 s wait after a
// refusal or a failed heartbeat lasts at least 5 s (the 1 s polling would
// otherwise end it up to a second early); the other waits count from the
// current second.
uint32_t oper_timer_now(const OperTimer* timer);
// True while the armed timer's wait has not ended.
bool oper_timer_waiting(const OperTimer* timer, uint32_t now);

// Wait of a failure type for the given (already incremented) count.
uint32_t backoff_seconds(uint32_t count);
uint32_t timer_type_from_post_result(int32_t result);
const char* timer_type_name(uint32_t type);
// The debug line that shows the timer at the end of a worker pass.
void print_timer_line(const OperTimer& timer);

}  // namespace cbsd::standalone
