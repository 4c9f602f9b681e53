#include "daemon/startup.h"

#include "config/accessors.h"
#include "config/cbsd_state_reset.h"
#include "daemon/certificate_handover.h"
#include "daemon/profile_defaults.h"
#include "base/clock.h"
#include "base/log.h"
#include "base/settings.h"
#include "base/system.h"
#include "daemon/signals.h"
#include "daemon/stop_deadline.h"
#include "daemon/supervision.h"
#include "daemon/transmit_guard.h"
#include "gating/authorization.h"
#include "gating/gates.h"
#include "standalone/transmit_deadline.h"
#include "standalone/worker_control.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace cbsd::daemon {

namespace {

// The stop as a whole must end within 10 s: the worker gets 8 of them.
constexpr uint32_t kWorkerStopSeconds = 8;
// When the loop is blocked (a modem that never reports a plausible cell) the
// guard takes the stop over after this long, and gives the worker less time,
// so that the process still ends within 10 s of the signal.
constexpr uint32_t kLoopStopGraceMs = 2000;
constexpr uint32_t kWorkerStopSecondsForBlockedLoop = 6;
// Every command the stop starts (firewall tools, logger) gets at most this
// long, so that its steps fit in the 10 s however those tools behave.
constexpr int kStopCommandLimitSeconds = 2;
// Whatever the stop waits on, the process ends this long after the signal.
constexpr uint32_t kStopDeadlineMs = 9000;

// Whoever starts the stop first (the loop, or the guard for a blocked loop)
// carries it out; the other only waits for the end of the process.
std::atomic<bool> g_stopping{false};

// Returns the descriptor holding the single-instance lock, or -1.
int take_instance_lock() {
    int fd = open(kLockPath, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        std::printf("open %s failed.\n", kLockPath);
        return -1;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        close(fd);  // another instance runs: leave silently
        return -1;
    }
    return fd;
}

void print_overrides(const base::ProcessSettings& s) {
    if (s.sn[0]) std::printf("  SN=%s\n", s.sn);
    if (s.fccId[0]) std::printf("  fccId=%s\n", s.fccId);
    if (s.maxEIRP[0]) std::printf("  maxEIRP=%s\n", s.maxEIRP);
    if (s.category[0]) std::printf("  category=%s\n", s.category);
    std::fflush(stdout);
}

void ensure_work_dir() {
    struct stat st{};
    if (stat(kWorkDir, &st) != 0 && mkdir(kWorkDir, 0755) != 0)
        std::fprintf(stderr, "[SAS] fail to create direction(%s)!\n", kWorkDir);
}

// Without SAS the device is never gated, so start-up opens every gate and
// removes every rule.  With SAS enabled nobody holds an authorisation yet:
// close instead, so that traffic is never opened first.
void set_initial_traffic_state() {
    // Unreadable is not "disabled": nothing says traffic may flow unguarded.
    if (!config::sas_config_readable()) {
        base::notice("[SAS] /etc/config/sas cannot be read at start, traffic stays stopped.\n");
        gating::unauthorize_device(0);
        return;
    }
    if (config::is_sas_enabled()) {
        base::notice("[SAS] SAS is enabled at start, traffic stays stopped.\n");
        gating::unauthorize_device(0);
        return;
    }
    gating::reset_ip_forward();
    gating::clear_firewall_icmp_rules();
    gating::clear_bridge_forward_rules();
}

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
[[noreturn]] void shut_down(bool sasEnabled, uint32_t workerSeconds = kWorkerStopSeconds) {
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

void shut_down_for_blocked_loop() {
    shut_down(last_sas_enabled(), kWorkerStopSecondsForBlockedLoop);
}

// While start-up waits for the modem manager no loop runs and no worker
// exists, so nothing opens a gate.  With SAS enabled (or an unreadable
// configuration) each unanswered query re-asserts them closed: SAS switched
// on meanwhile, or a rule removed behind the daemon's back, meets closed
// gates within one query.  Without SAS traffic stays as start-up left it.
void hold_traffic_while_waiting() {
    bool closed = !config::sas_config_readable() || config::is_sas_enabled();
    set_last_sas_enabled(closed);  // what a stop during the wait must close
    if (closed) gating::unauthorize_device(0);
}

// The stop deadline's last act: forwarding, the gate that matters most, off
// with two plain writes when SAS was on.
void close_forwarding_if_gated() {
    if (last_sas_enabled()) gating::force_ip_forward_off();
}

}  // namespace

int run_daemon() {
    install_signal_handlers();
    gating::reset_runtime_cache();
    if (take_instance_lock() < 0) return -1;  // the lock is held until the process ends

    const base::ProcessSettings& s = base::settings();
    if (s.debug)
        print_overrides(s);
    else if (!s.foreground)
        base::detach_from_terminal();

    ensure_work_dir();
    base::notice("\n[SAS] SAS Version 3.1\n");

    config::clear_cbsd_state();
    set_initial_traffic_state();

    provision_certificates();
    // Unarmed until the first pass, the guard is silent; it runs from here so
    // that a stop during the wait for the modem manager (a query can take its
    // whole time limit) still ends the process within 10 s.
    start_stop_deadline(kStopDeadlineMs, close_forwarding_if_gated);
    start_transmit_guard(shut_down_for_blocked_loop, kLoopStopGraceMs);
    if (!apply_profile_defaults(hold_traffic_while_waiting)) shut_down(last_sas_enabled());

    base::notice("[SAS] wait for LTE accessing network...\n");
    shut_down(supervision_loop());
}

}  // namespace cbsd::daemon
