// The StandAlone worker's passes: each reads the stored status, acts on an
// expired transmit or grant time, waits out its timer, and else takes the
// one exchange step the status asks for (worker.h).
#include "standalone/standalone_thread.h"

#include "config/accessors.h"
#include "base/cbsd_state.h"
#include "base/clock.h"
#include "base/log.h"
#include "base/settings.h"
#include "base/text.h"
#include "sas/certificate_expiry.h"
#include "standalone/worker_control.h"
#include "standalone/expiry.h"
#include "standalone/grant_time.h"
#include "standalone/held_text.h"
#include "standalone/lte_watch.h"
#include "standalone/oper_timer.h"
#include "standalone/transmit_deadline.h"
#include "standalone/heartbeat_steps.h"
#include "standalone/registration_steps.h"
#include "standalone/worker.h"
#include "standalone/worker_steps.h"

#include <cstring>
#include <memory>
#include <new>

namespace cbsd::standalone {

namespace {

// The grant is renewed within its last two hours.
constexpr int32_t kRenewalWindowOffset = -7200;

// Records are zero-filled here, so a stale "Registered" status at start builds
// its requests from empty replies rather than from leftover heap bytes.
template <typename T>
bool allocate(std::unique_ptr<T>& slot, const char* failure_line) {
    slot.reset(new (std::nothrow) T());
    if (!slot) base::error_to_syslog("%s", failure_line);
    return slot != nullptr;
}

bool allocate_records(Records& r) {
    return allocate(r.device, "[SAS] regRequest malloc failed\n") &&
           allocate(r.registration, "[SAS] regResponse malloc failed\n") &&
           allocate(r.inquiry, "[SAS] specResponse malloc failed\n") &&
           allocate(r.grant, "[SAS] grantResponse malloc failed\n") &&
           allocate(r.heartbeat, "[SAS] heartbeatResponse malloc failed\n") &&
           allocate(r.relinquishment, "[SAS] relinquishmentResponse malloc failed\n") &&
           allocate(r.deregistration, "[SAS] deregistrationResponse malloc failed\n");
}

void check_transmit_expiry(Worker& w) {
    read_or_held(w.heldTransmit, set_transmit_expire_time, get_transmit_expire_time, w.timeText,
                 sizeof w.timeText);
    if (!is_time_expired(w.timeText, kTransmitGraceSeconds)) return;
    // One event per expired time: when the store could not clear it, later
    // passes must not start over, and heartbeat, again and again.
    if (std::strcmp(w.timeText, w.expiredTransmit) == 0) return;
    base::copy_text(w.expiredTransmit, sizeof w.expiredTransmit, w.timeText);
    base::notice_to_syslog("[SAS] transmitExpireTime[%s] is expired.\n", w.timeText);
    if (status_is(w, base::kAuthorized)) write_status(w, base::kGranted);
    withdraw_radio();
    write_transmit_time(w, "");
    // A wall clock ahead of the SAS's makes every new time expire on arrival:
    // from the second in a row on, the next heartbeat is paced like a refusal.
    if (w.pastOnArrival > 1) {
        start_over_after_refusal(w);
    } else {
        oper_timer_reset(&w.operTimer);
    }
}

// True when the grant has expired: the pass then ends, since a heartbeat
// on an expired grant could only be refused, or wrongly answered with an
// authorisation the SAS no longer holds.  The next pass follows at once.
bool check_grant_expiry(Worker& w) {
    get_grant_expire_time(w.timeText, sizeof w.timeText);
    // One event per expired time, as for the transmit time: a store that
    // cannot clear it must not end every pass here.
    if (std::strcmp(w.timeText, w.expiredGrant) == 0) return false;
    if (is_time_expired(w.timeText, 0)) {
        base::copy_text(w.expiredGrant, sizeof w.expiredGrant, w.timeText);
        base::notice_to_syslog("[SAS] grantExpireTime[%s] is expired.\n", w.timeText);
        write_status(w, base::kRegistered);
        withdraw_radio();
        set_grant_expire_time("");
        oper_timer_reset(&w.operTimer);
        return true;
    }
    if (is_time_expired(w.timeText, kRenewalWindowOffset)) set_grant_renew("1");
    return false;
}

// A change of LTE connectivity while waiting ends the wait.
void watch_connectivity(Worker& w) {
    if (!lte_link_changed(w.operTimer, w.lastLteConnected)) return;
    w.operTimer.count = 0;
    w.operTimer.secTime = 0;
}

void dispatch(Worker& w) {
    if (status_is(w, base::kUnregistered))
        register_device(w);
    else if (status_is(w, base::kRegistered))
        run_registered(w);
    else if (status_is(w, base::kGranted))
        run_granted(w);
    else if (status_is(w, base::kAuthorized))
        run_authorized(w);
    // Any other status sends nothing; the next pass reads it again.
}

void stop(Worker& w) {
    if (status_is(w, base::kGranted) || status_is(w, base::kAuthorized)) {
        relinquish(w);
        deregister(w);
    } else if (status_is(w, base::kRegistered)) {
        deregister(w);
    }
    drop_transmit_deadline();
    base::notice_to_syslog("[SAS] standalone_thread exit.\n");
}

// One pass; false once the thread is to end.
bool run_pass(Worker& w) {
    read_status(w);
    if (standalone::worker_running.load() == 0) {
        stop(w);
        return false;
    }
    // The process is stopping (or this worker outlived its stop): the gates
    // close first, and meanwhile the worker asks the SAS for nothing more;
    // its stop gives back what it holds.
    if (transmit_deadline_fenced()) {
        base::sleep_seconds(1);
        return true;
    }
    check_transmit_expiry(w);
    if (check_grant_expiry(w)) return true;
    if (base::settings().debug) print_timer_line(w.operTimer);
    if (oper_timer_waiting(&w.operTimer, base::monotonic_seconds())) {
        watch_connectivity(w);
        base::sleep_seconds(1);
        return true;
    }
    dispatch(w);
    if (w.operTimer.enable) oper_timer_schedule(&w.operTimer, oper_timer_now(&w.operTimer), w.heartbeatInterval);
    return true;
}

}  // namespace

std::atomic<uint8_t> thread_entered{0};

int standalone_thread(const sas::Transport& transport) {
    drop_transmit_deadline();  // a new worker holds no authorisation yet
    thread_entered.store(1);
    base::notice("[SAS] standalone_thread is running.\n");
    Worker worker;
    worker.transport = transport;
    config::get_server_address(worker.serverUrl, sizeof worker.serverUrl);
    if (worker.serverUrl[0] == '\0') {
        base::notice_to_syslog("[SAS] sas server URL is invalid.\n");
        base::notice_to_syslog("[SAS] standalone_thread exit.\n");
        return 0;
    }
    sas::report_certificates();
    if (!allocate_records(worker.records)) return 0;
    oper_timer_reset(&worker.operTimer);
    worker.lastLteConnected = true;
    while (run_pass(worker)) {
    }
    return 0;
}

}  // namespace cbsd::standalone
