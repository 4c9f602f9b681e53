#include "daemon/startup.h"

#include "config/accessors.h"
#include "config/cbsd_state_reset.h"
#include "daemon/bus_services.h"
#include "daemon/certificate_handover.h"
#include "daemon/profile_defaults.h"
#include "daemon/shutdown.h"
#include "base/log.h"
#include "base/settings.h"
#include "base/system.h"
#include "daemon/signals.h"
#include "daemon/stop_deadline.h"
#include "daemon/supervision.h"
#include "daemon/transmit_guard.h"
#include "gating/authorization.h"
#include "gating/gates.h"

#include <cstdio>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace cbsd::daemon {

namespace {

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

    start_bus_services();
    ensure_work_dir();
    base::notice("\n[SAS] SAS Version " CBSD_VERSION "\n");  // VERSION, through the build

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
