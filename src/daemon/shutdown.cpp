#include "daemon/shutdown.h"

#include "base/clock.h"
#include "base/log.h"
#include "base/system.h"
#include "daemon/supervision.h"
#include "gating/authorization.h"
#include "gating/gates.h"
#include "standalone/transmit_deadline.h"
#include "standalone/worker_control.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace cbsd::daemon {

namespace {

// The stop as a whole must end within 10 s: the worker gets 8 of them.
constexpr uint32_t kWorkerStopSeconds = 8;
// A blocked loop's stop starts kLoopStopGraceMs late, so the worker gets less
// time and the process still ends within 10 s of the signal.
constexpr uint32_t kWorkerStopSecondsForBlockedLoop = 6;
// Every command the stop starts (firewall tools, logger) gets at most this
// long, so that its steps fit in the 10 s however those tools behave.
constexpr int kStopCommandLimitSeconds = 2;

// Whoever starts the stop first (the loop, or the guard for a blocked loop)
// carries it out; the other only waits for the end of the process.
std::atomic<bool> g_stopping{false};

// What is left of the worker's time once the gates took `spentMs` of the
// stop (slow firewall tools), rounded down to whole seconds; at least one.
uint32_t seconds_left(uint32_t seconds, uint32_t spentMs) {
    uint32_t spent = (spentMs + 999) / 1000;
    return spent < seconds ? seconds - spent : 1;
}

// SIGTERM or SIGINT: with SAS enabled nobody holds an authorisation any more,
// so the gates close first (they must not wait on the SAS), then the worker
// gives its grant back and deregisters as on disable, within the time the
// service manager allows.  Without SAS traffic stays as it is.  No worker
// starts from here on, the deadline is fenced (a late success cannot hold it
// again), and every step is bounded: the gate lock is waited for at most 2 s
// and every command this thread starts gets at most 2 s.  The second caller
// parks; the stop deadline ends the process should the first one hang.
[[noreturn]] void shut_down_within(bool sasEnabled, uint32_t workerSeconds) {
    if (g_stopping.exchange(true))
        for (;;) pause();
    standalone::allow_worker_starts(false);
    base::TimeLimitCap cap(kStopCommandLimitSeconds);
    uint32_t startedMs = base::monotonic_ms();
    base::notice_to_syslog("[SAS] stop requested.\n");
    if (sasEnabled) {
        standalone::fence_transmit_deadline();
        gating::unauthorize_device_within_bounds(1);
    }
    if (!standalone::stop_standalone_worker_within(
            seconds_left(workerSeconds, base::monotonic_ms() - startedMs)))
        base::notice_to_syslog("[SAS] StandAlone thread did not stop in time.\n");
    base::notice_to_syslog("[SAS] cbsd exit.\n");
    // The guard thread, and a worker that did not stop in time, still run:
    // end without static destructors pulling state from under them.
    std::fflush(nullptr);
    std::_Exit(0);
}

}  // namespace

void shut_down(bool sasEnabled) {
    shut_down_within(sasEnabled, kWorkerStopSeconds);
}

void shut_down_for_blocked_loop() {
    shut_down_within(last_sas_enabled(), kWorkerStopSecondsForBlockedLoop);
}

// The stop deadline's last act: forwarding, the gate that matters most, off
// with two plain writes when SAS was on.
void close_forwarding_if_gated() {
    if (last_sas_enabled()) gating::force_ip_forward_off();
}

}  // namespace cbsd::daemon
