#include "standalone/standalone_thread.h"

#include "config/accessors.h"
#include "config/device_record.h"
#include "base/cbsd_state.h"
#include "base/clock.h"
#include "base/gate_state.h"
#include "base/log.h"
#include "base/settings.h"
#include "base/text.h"
#include "standalone/worker_control.h"
#include "sas/exchanges.h"
#include "sas/replies.h"
#include "sas/response_codes.h"
#include "standalone/expiry.h"
#include "standalone/grant_time.h"
#include "standalone/held_text.h"
#include "standalone/lte_watch.h"
#include "standalone/oper_timer.h"
#include "standalone/transmit_deadline.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <unistd.h>

namespace cbsd::standalone {

namespace {

// A grant reply without a usable heartbeat period gets this one.
constexpr uint32_t kDefaultHeartbeatInterval = 60;
// The inquiry's maxEirp when the SAS sent none.
constexpr int32_t kNoMaxEirp = 2147483647;
// Transmission stops only this long after its deadline.
constexpr int32_t kTransmitGraceSeconds = 30;
// The grant is renewed within its last two hours.
constexpr int32_t kRenewalWindowOffset = -7200;
// Once RadioEnable "0" is written, the supervision loop closes the gates;
// this is its turn before the transmit guard closes them instead.
constexpr uint32_t kLoopCloseTurnMs = 400;
// A grant is given back once the gates are closed, or after this long.
constexpr uint32_t kGatesClosedWaitMs = 3000;

// The message records; later requests are built from the replies kept here.
struct Records {
    std::unique_ptr<config::DeviceRecord> device;
    std::unique_ptr<sas::RegistrationResponse> registration;
    std::unique_ptr<sas::SpectrumInquiryResponse> inquiry;
    std::unique_ptr<sas::GrantResponse> grant;
    std::unique_ptr<sas::HeartbeatResponse> heartbeat;
    std::unique_ptr<sas::RelinquishmentResponse> relinquishment;
    std::unique_ptr<sas::DeregistrationResponse> deregistration;
};

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

struct Worker {
    char serverUrl[128] = {};
    char status[32] = {};  // operation.status as read at the start of the pass
    char timeText[32] = {};
    char cbsdId[128] = {};
    char grantId[128] = {};
    OperTimer operTimer{};
    uint32_t heartbeatInterval = kDefaultHeartbeatInterval;
    bool lastLteConnected = true;
    // Refusals answered by starting over, since the last heartbeat success.
    uint32_t refusals = 0;
    // The transmit time whose expiry was acted on, until the next success.
    char expiredTransmit[32] = {};
    // The grant time whose expiry was acted on, should the store keep it.
    char expiredGrant[32] = {};
    // Successes in a row whose transmit time was already past on arrival.
    uint32_t pastOnArrival = 0;
    // Decisions the store could not take, used until a write lands.
    HeldText heldStatus;
    HeldText heldTransmit;
    Records records;
};

bool status_is(const Worker& w, uint32_t state) {
    return std::strcmp(w.status, base::cbsd_state_name(state)) == 0;
}

void write_status(Worker& w, uint32_t state) {
    write_or_hold(w.heldStatus, config::set_status, base::cbsd_state_name(state));
}

void read_status(Worker& w) {
    read_or_held(w.heldStatus, config::set_status,
                 [](char* buffer, int size) { config::get_status(buffer, static_cast<size_t>(size)); },
                 w.status, sizeof w.status);
}

void write_transmit_time(Worker& w, const char* text) {
    write_or_hold(w.heldTransmit, set_transmit_expire_time, text);
}

// The deadline is brought forward first, to the end of the loop's turn, so
// the guard closes the gates then at the latest, however long the store
// takes.  Then RadioEnable "0": the loop reads it and closes the gates with
// its usual log lines.  When the store did not take the "0" nobody will read
// it, and the guard closes now.
void withdraw_radio() {
    end_transmission_within(base::monotonic_ms64(), kLoopCloseTurnMs);
    if (config::set_radio_enable("0") != 1) drop_transmit_deadline();
}

// A device stops transmitting before it gives its grant back: relinquishment
// and deregistration leave only once the gates are closed.  Not waited for
// without end: a gate that cannot be closed must not keep the grant either.
void cease_transmission() {
    withdraw_radio();
    if (!base::wait_until_gates_closed(kGatesClosedWaitMs))
        base::notice("[SAS] traffic is not stopped yet, giving the grant back anyway.\n");
}

// A refusal that the procedure answers by starting over.  The first of a
// streak waits 5 s (the shortest wait there is, the one of a failed heartbeat
// while authorised); a repeated one waits like a transport failure, on a step
// of the schedule that grows with the streak, so a SAS that refuses every
// time is not asked in a tight loop.  A heartbeat success ends the streak.
void start_over_after_refusal(Worker& w) {
    if (++w.refusals <= 1) {
        oper_timer_start(&w.operTimer, HEART_BEAT_ERROR);
        return;
    }
    oper_timer_start(&w.operTimer, RESPONSE_ERROR);
    w.operTimer.count = w.refusals - 2;  // the schedule adds one before it looks
}

void log_refusal(const char* exchange, int32_t code) {
    base::notice_to_syslog("[SAS] %s unsuccessfully, responseCode:%d(%s)\n", exchange, code,
              sas::responseCode_name(code));
}

void relinquish(Worker& w) {
    cease_transmission();
    sas::relinquishment_request(w.serverUrl, w.cbsdId, w.grantId, w.records.relinquishment.get());
}

void deregister(Worker& w) {
    cease_transmission();
    sas::deregistration_request(w.serverUrl, w.cbsdId, w.records.deregistration.get());
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

void register_device(Worker& w) {
    base::notice("\n[SAS] send registeration_request...\n");
    config::DeviceRecord* device = w.records.device.get();
    *device = config::DeviceRecord{};
    config::load_device_record(device);
    int32_t result = sas::registeration_request(w.serverUrl, device);
    if (result != 0) {
        base::notice("[SAS] failed to do registeration_request()\n");
        oper_timer_start(&w.operTimer, timer_type_from_post_result(result));
        return;
    }
    sas::RegistrationResponse* reply = w.records.registration.get();
    *reply = sas::RegistrationResponse{};
    sas::parse_registration_response(reply);
    if (reply->responseCode != 0) {
        log_refusal("Register", reply->responseCode);
        oper_timer_start(&w.operTimer, RESPONSE_ERROR);
        return;
    }
    base::notice_to_syslog("[SAS] Register successfully\n");
    base::copy_text(w.cbsdId, sizeof w.cbsdId, reply->cbsdId);
    write_status(w, base::kRegistered);
    oper_timer_reset(&w.operTimer);
}

// The inquiry only caps the power asked for in the grant.
void apply_inquiry_power_cap(config::DeviceRecord* device, int32_t maxEirp) {
    if (maxEirp == kNoMaxEirp || maxEirp >= std::atoi(device->maxEirp)) return;
    if (std::snprintf(device->maxEirp, sizeof device->maxEirp, "%d", maxEirp) < 0)
        device->maxEirp[0] = '\0';
}

// Returns true when the grant may be asked for in this pass.
bool inquire_spectrum(Worker& w) {
    base::notice("\n[SAS] send spectrumInquiry_request...\n");
    int32_t result = sas::spectrumInquiry_request(w.serverUrl, w.records.registration.get(),
                                                  w.records.device.get());
    if (result != 0) {
        base::notice("[SAS] failed to do spectrumInquiry_request()\n");
        oper_timer_start(&w.operTimer, timer_type_from_post_result(result));
        return false;
    }
    sas::SpectrumInquiryResponse* reply = w.records.inquiry.get();
    *reply = sas::SpectrumInquiryResponse{};
    sas::parse_spectrum_inquiry_response(reply);
    if (reply->responseCode == 0) {
        base::notice_to_syslog("[SAS] SpectrumInquiry successfully\n");
        apply_inquiry_power_cap(w.records.device.get(), reply->maxEirp);
        oper_timer_reset(&w.operTimer);
        return true;
    }
    log_refusal("SpectrumInquiry", reply->responseCode);
    if (reply->responseCode == sas::kDeregister) {
        deregister(w);
        write_status(w, base::kUnregistered);
        start_over_after_refusal(w);
    } else {
        *reply = sas::SpectrumInquiryResponse{};  // so that the next attempt asks again
        oper_timer_start(&w.operTimer, RESPONSE_ERROR);
    }
    return false;
}

void request_grant(Worker& w) {
    base::notice("\n[SAS] send grant_request...\n");
    config::DeviceRecord* device = w.records.device.get();
    int32_t result = sas::grant_request(w.serverUrl, w.records.registration.get(), device);
    if (result != 0) {
        base::notice("[SAS] failed to do grant_request()\n");
        oper_timer_start(&w.operTimer, timer_type_from_post_result(result));
        return;
    }
    sas::GrantResponse* reply = w.records.grant.get();
    *reply = sas::GrantResponse{};
    sas::parse_grant_response(reply);
    switch (reply->responseCode) {
        case 0:
            base::notice_to_syslog("[SAS] Grant successfully\n");
            base::copy_text(w.grantId, sizeof w.grantId, reply->grantId);
            set_grant_expire_time(reply->grantExpireTime);
            w.heartbeatInterval = reply->heartbeatInterval >= 1
                                      ? static_cast<uint32_t>(reply->heartbeatInterval)
                                      : kDefaultHeartbeatInterval;
            set_grant_renew("0");
            write_status(w, base::kGranted);
            set_power_spectral_density(device->maxEirp);
            oper_timer_reset(&w.operTimer);
            return;
        case sas::kDeregister:
            log_refusal("Grant", reply->responseCode);
            deregister(w);
            write_status(w, base::kUnregistered);
            start_over_after_refusal(w);
            return;
        case sas::kGrantConflict:
            // The SAS names the conflicting grant; drop it and ask again at once.
            log_refusal("Grant", reply->responseCode);
            cease_transmission();
            sas::relinquishment_request(w.serverUrl, w.cbsdId, reply->responseData,
                                        w.records.relinquishment.get());
            write_status(w, base::kRegistered);
            start_over_after_refusal(w);
            return;
        default:
            log_refusal("Grant", reply->responseCode);
            oper_timer_start(&w.operTimer, RESPONSE_ERROR);
            return;
    }
}

void run_registered(Worker& w) {
    bool inquiry_needed =
        std::strcmp(w.records.inquiry->cbsdId, w.records.registration->cbsdId) != 0;
    if (inquiry_needed && !inquire_spectrum(w)) return;
    request_grant(w);
}

void on_heartbeat_success(Worker& w, const sas::HeartbeatResponse* reply) {
    write_status(w, base::kAuthorized);
    // Held before RadioEnable "1" is written, so that the loop finds it when
    // it opens.  The parser accepted only a parseable time.
    hold_deadline_of_reply(reply->transmitExpireTime);
    config::set_radio_enable("1");
    write_transmit_time(w, reply->transmitExpireTime);
    if (reply->grantExpireTime[0] != '\0') {
        set_grant_expire_time(reply->grantExpireTime);
        set_grant_renew("0");
    }
    if (reply->heartbeatInterval >= 1)
        w.heartbeatInterval = static_cast<uint32_t>(reply->heartbeatInterval);
    if (is_time_expired(reply->transmitExpireTime, kTransmitGraceSeconds)) {
        ++w.pastOnArrival;  // not the end of a refusal streak
    } else {
        w.pastOnArrival = 0;
        w.refusals = 0;
    }
    w.expiredTransmit[0] = '\0';
    oper_timer_start(&w.operTimer, HEART_BEAT_SUCCESS);
}

// Sends the heartbeat and, when a reply arrived, reads it into the heartbeat
// record.  Returns the transport result.
int32_t send_heartbeat(Worker& w, const char* operationState) {
    base::notice("\n[SAS] send heartbeat_request(%s)...\n", operationState);
    int32_t result = sas::heartbeat_request(w.serverUrl, w.records.grant.get(),
                                            w.records.device.get(), operationState);
    if (result != 0) {
        base::notice("[SAS] failed to do heartbeat_request(%s)\n", operationState);
        return result;
    }
    *w.records.heartbeat = sas::HeartbeatResponse{};
    sas::parse_heartbeat_response(w.records.heartbeat.get());
    return 0;
}

void run_granted(Worker& w) {
    int32_t result = send_heartbeat(w, "GRANTED");
    if (result != 0) {
        oper_timer_start(&w.operTimer, timer_type_from_post_result(result));
        return;
    }
    const sas::HeartbeatResponse* reply = w.records.heartbeat.get();
    int32_t code = reply->responseCode;
    if (code == 0) {
        base::notice_to_syslog("[SAS] Heartbeat successfully\n");
        on_heartbeat_success(w, reply);
        return;
    }
    log_refusal("Heartbeat", code);
    if (code == sas::kDeregister) {
        relinquish(w);
        deregister(w);
        write_status(w, base::kUnregistered);
        start_over_after_refusal(w);
    } else if (code == sas::kTerminatedGrant || code == sas::kUnsyncOpParam) {
        relinquish(w);
        write_status(w, base::kRegistered);
        start_over_after_refusal(w);
    } else if (code == sas::kSuspendedGrant) {
        oper_timer_start(&w.operTimer, SUSPENDED_GRANT);
    } else {
        oper_timer_start(&w.operTimer, RESPONSE_ERROR);
    }
}

void run_authorized(Worker& w) {
    if (send_heartbeat(w, "AUTHORIZED") != 0) {
        // An authorised device retries quickly, whatever the transport said.
        oper_timer_start(&w.operTimer, HEART_BEAT_ERROR);
        return;
    }
    const sas::HeartbeatResponse* reply = w.records.heartbeat.get();
    int32_t code = reply->responseCode;
    if (code == 0) {
        base::notice("[SAS] Heartbeat successfully\n");
        on_heartbeat_success(w, reply);
        return;
    }
    // Every refusal of an authorised heartbeat ends the authorisation: the
    // SAS has withdrawn or suspended the grant (500, 501, 105) or the device
    // is out of step with it.  Transmission stops at once, whatever the last
    // transmitExpireTime allowed, and before anything is given back; the
    // "0" goes before the line, whose system-log copy starts a process.
    withdraw_radio();
    log_refusal("Heartbeat", code);
    switch (code) {
        case sas::kDeregister:
            relinquish(w);
            deregister(w);
            write_status(w, base::kUnregistered);
            start_over_after_refusal(w);
            break;
        case sas::kTerminatedGrant:
        case sas::kUnsyncOpParam:
            relinquish(w);
            write_status(w, base::kRegistered);
            start_over_after_refusal(w);
            break;
        case sas::kSuspendedGrant:
            write_status(w, base::kGranted);
            oper_timer_start(&w.operTimer, SUSPENDED_GRANT);
            break;
        default:
            // Back to Granted; the GRANTED heartbeat is paced like any refusal.
            write_status(w, base::kGranted);
            start_over_after_refusal(w);
            break;
    }
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

int standalone_thread() {
    drop_transmit_deadline();  // a new worker holds no authorisation yet
    thread_entered.store(1);
    base::notice("[SAS] standalone_thread is running.\n");
    Worker worker;
    config::get_server_address(worker.serverUrl, sizeof worker.serverUrl);
    if (worker.serverUrl[0] == '\0') {
        base::notice_to_syslog("[SAS] sas server URL is invalid.\n");
        base::notice_to_syslog("[SAS] standalone_thread exit.\n");
        return 0;
    }
    if (!allocate_records(worker.records)) return 0;
    oper_timer_reset(&worker.operTimer);
    worker.lastLteConnected = true;
    while (run_pass(worker)) {
    }
    return 0;
}

}  // namespace cbsd::standalone
