#include "daemon/transmit_guard.h"

#include "base/clock.h"
#include "base/log.h"
#include "gating/authorization.h"
#include "standalone/transmit_deadline.h"

#include <atomic>
#include <thread>

namespace cbsd::daemon {

namespace {

// The guard's period bounds how late it closes after the deadline.
constexpr uint32_t kGuardPeriodMs = 1000;

std::atomic<bool> g_armed{false};

[[noreturn]] void guard_thread() {
    bool closed = false;
    for (;;) {
        run_guard_check(closed, base::monotonic_ms64());
        base::sleep_ms(kGuardPeriodMs);
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

void start_transmit_guard() { std::thread(guard_thread).detach(); }

}  // namespace cbsd::daemon
