#include "daemon/supervision.h"

#include "config/accessors.h"
#include "config/cbsd_state_reset.h"
#include "config/uci_store.h"
#include "daemon/auto_enable.h"
#include "daemon/cell_range_update.h"
#include "daemon/config_watch.h"
#include "daemon/signals.h"
#include "daemon/snapshot.h"
#include "daemon/transmit_guard.h"
#include "base/clock.h"
#include "base/log.h"
#include "base/progress.h"
#include "base/status_report.h"
#include "standalone/transmit_deadline.h"
#include "standalone/worker_control.h"
#include "gating/authorization.h"
#include "gating/transmit_power.h"
#include "modem/cell_range.h"
#include "modem/lte_info.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace cbsd::daemon {

namespace {


constexpr unsigned kSteadySleepSeconds = 5;

std::atomic<bool> g_lastSasEnabled{false};
constexpr int kLteAttachWaitSeconds = 5;
constexpr int kWaitWithoutLimit = 0;

// Text fields are compared and printed within their width: a field carried
// over from the 0xFF filler of the first pass has no terminator.
template <size_t Width>
bool text_differs(const char (&a)[Width], const char (&b)[Width]) {
    return std::strncmp(a, b, Width) != 0;
}

template <size_t Width>
void report_text(const char* name, const char (&old_value)[Width], const char (&new_value)[Width]) {
    if (text_differs(old_value, new_value))
        base::notice("[SAS] %s change: %.*s -> %.*s\n", name, static_cast<int>(Width), old_value,
            static_cast<int>(Width), new_value);
}

void report_number(const char* name, int old_value, int new_value) {
    if (old_value != new_value) base::notice("[SAS] %s change: %d -> %d\n", name, old_value, new_value);
}

bool is_empty(const char* text) { return text[0] == '\0'; }

// Keeps the last known cell, or follows a new one (blocking until the modem
// reports a plausible cell, deliberately without a time limit).  A cell the
// modem manager did not tell (empty) is the last known one; on the first
// pass there is none, and it reads as a failed query always did.
void refresh_cell_frequency(SupervisionState& state) {
    SupervisionSnapshot& current = state.current;
    const SupervisionSnapshot& previous = state.previous;
    if ((is_empty(current.frequency) || is_empty(current.bandwidth)) && state.pass == 1) {
        std::snprintf(current.frequency, sizeof current.frequency, "%d", 0);
        std::snprintf(current.bandwidth, sizeof current.bandwidth, "%d", -1);
    }
    if (is_empty(current.frequency) || is_empty(current.bandwidth)) {
        std::memcpy(current.frequency, previous.frequency, sizeof current.frequency);
        std::memcpy(current.bandwidth, previous.bandwidth, sizeof current.bandwidth);
    } else if (text_differs(current.frequency, previous.frequency) ||
               text_differs(current.bandwidth, previous.bandwidth)) {
        wait_and_store_cell_range(kWaitWithoutLimit);
    }
}

void react_to_lte_link(const SupervisionState& state) {
    if (state.current.lteConnected == state.previous.lteConnected) return;
    if (state.current.lteConnected) {
        base::notice("[SAS] LTE is in connection.\n");
        if (modem::wait_for_lte(kLteAttachWaitSeconds) != 0)
            base::notice_to_syslog("[SAS] get current frequence information timeout.\n");
        store_cell_range();
    } else {
        base::notice_to_syslog("[SAS] LTE is not in connection.\n");
    }
}

void enter_dp_mode() {
    base::notice_to_syslog("[SAS] CPE is communicating with SAS using DP.\n");
    config::clear_cbsd_state();
}

// A start that waits for a stopped worker's end (main thread only).
bool g_startDeferred = false;

// A stopped worker that is still ending blocks the start: it happens once
// that one has ended (settle_stopped_worker).
void start_worker() {
    g_startDeferred =
        !standalone::start_standalone_worker() && standalone::stopped_worker_still_ending();
}

// The stop's wait ends early on SIGTERM: the process's own stop then waits.
bool stop_worker() {
    g_startDeferred = false;
    return standalone::stop_standalone_worker(standalone::kWorkerStopWaitSeconds, stop_requested);
}

// The worker gives its grant back as it stops: not while transmitting.  A
// worker that outlives its stop is fenced; the gates are closed already.
bool stop_worker_after_closing() {
    if (standalone::worker_running.load() != 0) gating::unauthorize_device(0);
    return stop_worker();
}

// The fresh worker starts from the current configuration, so the
// configuration-change check of the same pass must not restart it.
void enter_standalone_mode(SupervisionState& state) {
    base::notice_to_syslog("[SAS] CPE is communicating with SAS using StandAlone.\n");
    config::clear_cbsd_state();
    start_worker();
    copy_configuration_block(state.previous, state.current);
}

// Returns true when SAS was switched off, which ends the pass.
bool react_to_sas_switch(SupervisionState& state) {
    SupervisionSnapshot& current = state.current;
    if (current.sasEnable == state.previous.sasEnable) return false;
    if (!current.sasEnable) {
        base::notice_to_syslog("[SAS] sas disable.\n");
        stop_worker_after_closing();
        config::clear_cbsd_state();
        gating::recover_network();
        return true;
    }
    base::notice_to_syslog("[SAS] sas enable.\n");
    gating::unauthorize_device(1);
    if (current.dpEnable)
        enter_dp_mode();
    else
        enter_standalone_mode(state);
    state.previous.dpEnable = current.dpEnable;
    return false;
}

void react_to_mode_switch(SupervisionState& state) {
    if (state.current.dpEnable == state.previous.dpEnable) return;
    gating::unauthorize_device(1);
    if (state.current.dpEnable) {
        base::notice_to_syslog("[SAS] CPE is communicating with SAS using DP.\n");
        stop_worker();
        config::clear_cbsd_state();
    } else {
        enter_standalone_mode(state);
    }
}

void react_to_configuration_change(const SupervisionState& state) {
    if (state.current.dpEnable) return;  // the proxy owns the configuration in DP mode
    if (configuration_block_equal(state.current, state.previous)) return;
    base::notice("[SAS] sas configuration is changed.\n");
    restart_standalone_worker();
}

// In StandAlone mode the transmit deadline alone lets the gates be open.
bool guarded(const SupervisionSnapshot& s) { return s.sasEnable && !s.dpEnable; }

// In StandAlone mode RadioEnable "1" opens only with a transmit deadline
// held: a stale "1" left in an unwritable store must not open the gates.  In
// any mode, a stopped worker that is still ending may have written the "1".
bool may_open(const SupervisionSnapshot& s) {
    if (standalone::stopped_worker_still_ending()) return false;
    return !guarded(s) || standalone::transmit_deadline_held(base::monotonic_ms64());
}

void report_closed_radio() {
    if (standalone::stopped_worker_still_ending())
        base::notice("[SAS] RadioEnable=1 while a stopped StandAlone thread still ends, "
                     "traffic stays stopped.\n");
    else
        base::notice("[SAS] RadioEnable=1 without a transmit deadline, traffic stays stopped.\n");
}

void react_to_radio_switch(SupervisionState& state) {
    const SupervisionSnapshot& current = state.current;
    if (current.radioEnable == state.previous.radioEnable) return;
    if (current.radioEnable && !may_open(current)) {
        report_closed_radio();
        gating::unauthorize_device(0);
    } else if (current.radioEnable) {
        base::notice_to_syslog("[SAS] sas radio enable.\n");
        gating::authorize_device(1);
        if (current.dpEnable) config::set_status("Authorized");
    } else {
        base::notice_to_syslog("[SAS] sas radio disable.\n");
        gating::unauthorize_device(1);
        if (current.dpEnable) config::set_status("Unregistered");
    }
    // The switch above already took the new power into account.
    state.previous.powerSptDensity = current.powerSptDensity;
}

void react_to_power_change(const SupervisionState& state) {
    const SupervisionSnapshot& current = state.current;
    if (current.powerSptDensity == state.previous.powerSptDensity || !current.radioEnable) return;
    base::notice("[SAS] powerSptDensity is changed(SAS_CONFIG_POWER=%d).\n", current.powerSptDensity);
    gating::apply_transmit_power(true, gating::compute_transmit_power());
}

// Without SAS the device is never gated; with SAS the radio flag decides.
// The gate operations inspect the system first, so this repairs rules that
// were changed behind the daemon's back.
void reassert_traffic_state(const SupervisionSnapshot& current) {
    if (!current.sasEnable || (current.radioEnable && may_open(current)))
        gating::authorize_device(0);
    else
        gating::unauthorize_device(0);
}

// The steady sleep in short steps, so that a stop request ends it early; a
// change of the configuration file ends it at once.
void steady_sleep(ConfigWatch& watch) {
    for (unsigned step = 0; step < kSteadySleepSeconds * 4 && !stop_requested(); ++step) {
        if (!watch.active())
            base::sleep_ms(250);
        else if (watch.wait_for_change(250))
            return;
    }
}

// An unreadable /etc/config/sas would read as "SAS disabled" and open every
// gate.  The last readable decision stays in force instead: without SAS
// traffic stays open, in StandAlone mode the transmit deadline decides as
// always.  In DP mode the proxy's RadioEnable is the authority and can no
// longer be read, so a withdrawal would go unseen: the gates close.  With no
// readable decision yet they close too.
PassOutcome keep_last_decision(SupervisionState& state) {
    if (!state.unreadable) {
        base::notice("[SAS] /etc/config/sas cannot be read, the last readable configuration stays in force.\n");
        base::report_failure(base::Failure::kStoreRead, true);
        state.unreadable = true;
    }
    const SupervisionSnapshot& last = state.previous;
    if (state.pass == 0 || (last.sasEnable && last.dpEnable))
        gating::unauthorize_device(0);
    else
        reassert_traffic_state(last);
    return PassOutcome::kUnchanged;
}

void note_readable_again(SupervisionState& state) {
    if (!state.unreadable) return;
    base::notice("[SAS] /etc/config/sas can be read again.\n");
    base::report_failure(base::Failure::kStoreRead, false);
    state.unreadable = false;
}

PassOutcome finish_changed_pass(SupervisionState& state) {
    state.previous = state.current;
    return PassOutcome::kChanged;
}

// Once per pass: a stopped worker that has ended since is joined, what it
// wrote after its stop is cleared, and a start that waited for it is made
// when the configuration still asks for StandAlone mode.
void settle_stopped_worker(const SupervisionSnapshot& current) {
    if (!standalone::collect_stopped_worker()) return;
    config::clear_cbsd_state();
    bool wanted = g_startDeferred && current.sasEnable && !current.dpEnable;
    g_startDeferred = false;
    if (wanted && !stop_requested()) start_worker();
}

// The guard is disarmed as soon as a pass reads SAS off or DP mode, and armed
// only at the end of a pass that reads StandAlone mode: the pass that enables
// it closes the gates itself first, with its own log lines, so the guard
// finds nothing to do.  Until then the loop's own openings obey the same
// rule (may_open).
PassOutcome react_to_fresh_snapshot(SupervisionState& state) {
    // The pass asks the modem's getlteinfo once: the band, frequency and
    // bandwidth readers below all take that reply.
    modem::LteInfoScope lte_info_of_this_pass;
    auto_enable();

    ++state.pass;
    std::memset(&state.current, 0, sizeof state.current);
    load_snapshot(&state.current);
    g_lastSasEnabled.store(state.current.sasEnable != 0);
    base::report_mode(state.current.sasEnable != 0, state.current.dpEnable != 0,
                      state.current.radioEnable != 0);
    if (!guarded(state.current)) arm_transmit_guard(false);
    settle_stopped_worker(state.current);
    refresh_cell_frequency(state);

    if (snapshots_equal(state.current, state.previous)) {
        reassert_traffic_state(state.current);
        return PassOutcome::kUnchanged;
    }

    if (state.pass != 1) {
        report_snapshot_changes(&state.previous, &state.current);
        base::notice("\n[SAS] sas will run with lasted configuration.\n");
        react_to_lte_link(state);
    }

    if (react_to_sas_switch(state) || !state.current.sasEnable) return finish_changed_pass(state);

    react_to_mode_switch(state);
    react_to_configuration_change(state);
    react_to_radio_switch(state);
    react_to_power_change(state);
    return finish_changed_pass(state);
}

}  // namespace

void report_snapshot_changes(const SupervisionSnapshot* previous, const SupervisionSnapshot* current) {
    if (!previous || !current) return;
    const SupervisionSnapshot& p = *previous;
    const SupervisionSnapshot& c = *current;
    report_number("sasEnable", p.sasEnable, c.sasEnable);
    report_number("dpEnable", p.dpEnable, c.dpEnable);
    report_text("regMethod", p.regMethod, c.regMethod);
    report_text("sasServerURL", p.sasServerURL, c.sasServerURL);
    report_text("userId", p.userId, c.userId);
    report_text("callSign", p.callSign, c.callSign);
    report_text("longitude", p.longitude, c.longitude);
    report_text("latitude", p.latitude, c.latitude);
    report_text("indoorDeployment", p.indoorDeployment, c.indoorDeployment);
    report_text("height", p.height, c.height);
    report_text("heightUnit", p.heightUnit, c.heightUnit);
    report_text("cpiId", p.cpiId, c.cpiId);
    report_text("cpiName", p.cpiName, c.cpiName);
    report_text("cpiInstallTime", p.cpiInstallTime, c.cpiInstallTime);
    report_text("antennaAzimuth", p.antennaAzimuth, c.antennaAzimuth);
    report_text("antennaDowntilt", p.antennaDowntilt, c.antennaDowntilt);
    report_text("antennaBeamwidth", p.antennaBeamwidth, c.antennaBeamwidth);
    report_number("radioEnable", p.radioEnable, c.radioEnable);
    report_number("lteConnected", p.lteConnected, c.lteConnected);
    report_number("powerSptDensity", p.powerSptDensity, c.powerSptDensity);
    report_text("frequency", p.frequency, c.frequency);
    report_text("bandwidth", p.bandwidth, c.bandwidth);
}

// A worker that did not stop in time is fenced and its exchanges aborted;
// the gates were closed before the stop, and the new
// worker starts once the old one has ended.  After SIGTERM nothing starts.
void restart_standalone_worker() {
    bool ended = stop_worker_after_closing();
    if (stop_requested()) return;
    if (!ended) {
        g_startDeferred = true;
        return;
    }
    base::sleep_seconds(1);
    config::clear_cbsd_state();
    if (!stop_requested()) start_worker();
}


bool worker_start_deferred() { return g_startDeferred; }

void init_supervision_state(SupervisionState& state) {
    std::memset(&state.current, 0, sizeof state.current);
    // Every flag of the first pass differs from this filler.
    std::memset(&state.previous, 0xFF, sizeof state.previous);
    state.pass = 0;
    state.unreadable = false;
    g_startDeferred = false;
}

PassOutcome run_supervision_pass(SupervisionState& state) {
    if (!config::sas_config_readable()) return keep_last_decision(state);
    note_readable_again(state);
    PassOutcome outcome = react_to_fresh_snapshot(state);
    arm_transmit_guard(guarded(state.current));
    return outcome;
}

bool last_sas_enabled() { return g_lastSasEnabled.load(); }

void set_last_sas_enabled(bool enabled) { g_lastSasEnabled.store(enabled); }

bool supervision_loop() {
    SupervisionState state;
    init_supervision_state(state);
    // Watching from before the first read: a change made during a pass
    // ends the sleep that follows it.
    ConfigWatch watch(config::kSasConfigPath);
    while (!stop_requested()) {
        base::note_step_done();  // procd's watchdog is fed while passes go on
        if (run_supervision_pass(state) == PassOutcome::kUnchanged) steady_sleep(watch);
    }
    return state.current.sasEnable != 0;
}

}  // namespace cbsd::daemon
