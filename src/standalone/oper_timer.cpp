#include "standalone/oper_timer.h"

#include "base/clock.h"

#include <cstdio>

namespace cbsd::standalone {

namespace {

constexpr uint32_t kSuspendedGrantWait = 60;
constexpr uint32_t kHeartbeatErrorWait = 5;
// libcurl's operation time-out.
constexpr int32_t kCurlOperationTimedOut = 28;

const char* const kTypeNames[] = {"ZERO",           "NETWORK_ERROR",    "RECV_TIMEOUT",
                                  "RESPONSE_ERROR", "SUSPENDED_GRANT",  "HEART_BEAT_ERROR",
                                  "HEART_BEAT_SUCCESS", "OTHER"};

}  // namespace

void oper_timer_reset(OperTimer* timer) {
    if (!timer) return;
    timer->enable = 0;
    timer->count = 0;
    timer->secTime = 0;
    timer->timerType = ZERO;
}

void oper_timer_start(OperTimer* timer, uint32_t type) {
    if (!timer) return;
    if (timer->enable == 1 && timer->timerType == type) return;
    timer->count = 0;
    timer->enable = 1;
    timer->timerType = type;
}

uint32_t backoff_seconds(uint32_t count) {
    static const uint32_t kSchedule[] = {15, 30, 60, 120, 300};
    if (count >= 1 && count <= 5) return kSchedule[count - 1];
    return 600;
}

void oper_timer_schedule(OperTimer* timer, uint32_t now, uint32_t heartbeatInterval) {
    if (!timer) return;
    timer->count += 1;
    uint32_t wait = 0;
    switch (timer->timerType) {
        case NETWORK_ERROR:
        case RECV_TIMEOUT:
        case RESPONSE_ERROR:
        case OTHER:
            wait = backoff_seconds(timer->count);
            break;
        case SUSPENDED_GRANT:
            wait = kSuspendedGrantWait;
            break;
        case HEART_BEAT_ERROR:
            wait = kHeartbeatErrorWait;
            break;
        case HEART_BEAT_SUCCESS:
            wait = heartbeatInterval;
            break;
        default:
            timer->secTime = 0;
            return;
    }
    // 0 means "due at once", so a wait that ends exactly on the wrap ends a
    // second later instead.
    timer->secTime = now + wait == 0 ? 1 : now + wait;
}

uint32_t oper_timer_now(const OperTimer* timer) {
    return timer->timerType == HEART_BEAT_ERROR ? base::monotonic_seconds_rounded_up()
                                                : base::monotonic_seconds();
}

// The monotonic seconds wrap: the remaining wait is the difference taken as a
// signed number, which is right for any wait shorter than 68 years.
bool oper_timer_waiting(const OperTimer* timer, uint32_t now) {
    if (!timer || timer->enable == 0 || timer->secTime == 0) return false;
    return static_cast<int32_t>(timer->secTime - now) > 0;
}

uint32_t timer_type_from_post_result(int32_t result) {
    if (result == -1) return OTHER;
    if (result == kCurlOperationTimedOut) return RECV_TIMEOUT;
    return NETWORK_ERROR;
}

const char* timer_type_name(uint32_t type) {
    return type < sizeof kTypeNames / sizeof kTypeNames[0] ? kTypeNames[type] : "";
}

void print_timer_line(const OperTimer& t) {
    uint32_t current = base::monotonic_seconds();
    uint32_t wait = t.secTime - current;  // unsigned: a past secTime prints huge
    std::printf(
        "===>operTimer: enable=%d, timerType=%d(%s), count=%d, secTime=%lu, curTickTime=%lu, "
        "waitTime=%lus\n",
        t.enable, static_cast<int>(t.timerType), timer_type_name(t.timerType),
        static_cast<int>(t.count), static_cast<unsigned long>(t.secTime),
        static_cast<unsigned long>(current), static_cast<unsigned long>(wait));
    std::fflush(stdout);
}

}  // namespace cbsd::standalone
