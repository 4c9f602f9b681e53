#include "daemon/transmit_guard.h"

#include "base/clock.h"
#include "base/log.h"
#include "base/progress.h"
#include "daemon/signals.h"
#include "daemon/watchdog_feed.h"
#include "gating/authorization.h"
#include "standalone/transmit_deadline.h"

#include <atomic>
#include <pthread.h>
#include <thread>

namespace cbsd::daemon {

namespace {

// The guard looks at least this often; it also wakes at the deadline itself
// and whenever the worker holds, moves or drops it.
constexpr uint32_t kGuardPeriodMs = 1000;
constexpr uint32_t kStopPollMs = 250;

std::atomic<bool> g_armed{false};

// Real monotonic milliseconds: the stop's bound must hold whatever clock a
// test installs.
void take_over_a_stuck_stop(void (*onStop)(), uint32_t stopGraceMs, uint32_t& stopSeenMs) {
    if (!onStop || !stop_requested()) return;
    if (stopSeenMs == 0) stopSeenMs = base::monotonic_ms() | 1u;
    if (base::monotonic_ms() - stopSeenMs >= stopGraceMs) onStop();
}

// Until the next look: the period, or less when the deadline comes first.
uint32_t next_look_ms(int64_t nowMs) {
    uint32_t wait = stop_requested() ? kStopPollMs : kGuardPeriodMs;
    int64_t left = standalone::transmit_deadline_ms_left(nowMs);
    // A deadline already past was acted on by the look just made.
    if (left > 0 && left < wait) wait = static_cast<uint32_t>(left) + 1;
    return wait;
}

[[noreturn]] void guard_thread(void (*onStop)(), uint32_t stopGraceMs) {
    bool closed = false;
    uint32_t stopSeenMs = 0;
    // Named for operators (top -H) and for the tests that stall it alone.
    pthread_setname_np(pthread_self(), "cbsd-guard");
    watch_guard_thread();
    for (;;) {
        run_guard_check(closed, base::monotonic_ms64());
        base::note_step_done();
        take_over_a_stuck_stop(onStop, stopGraceMs, stopSeenMs);
        standalone::wait_for_deadline_change(next_look_ms(base::monotonic_ms64()));
    }
}

}  // namespace

void arm_transmit_guard(bool armed) { g_armed.store(armed); }

bool transmit_guard_armed() { return g_armed.load(); }

bool transmit_allowed(int64_t nowMs) {
    return !g_armed.load() || standalone::transmit_deadline_held(nowMs);
}

bool run_guard_check(bool& closed, int64_t nowMs) {
    if (transmit_allowed(nowMs)) {
        closed = false;
        return false;
    }
    if (closed) return false;
    closed = true;
    if (!gating::close_open_gates()) return false;
    base::notice("[SAS] no valid transmit authorization, traffic stopped.\n");
    return true;
}

void start_transmit_guard(void (*onStop)(), uint32_t stopGraceMs) {
    std::thread(guard_thread, onStop, stopGraceMs).detach();
}

}  // namespace cbsd::daemon
