// The worker's heartbeats, in Granted and in Authorized, and what each answer
// makes of the grant.
#include "standalone/heartbeat_steps.h"

#include "standalone/worker_steps.h"

#include "base/cbsd_state.h"
#include "base/log.h"
#include "config/accessors.h"
#include "sas/exchange.h"
#include "sas/exchanges.h"
#include "sas/response_codes.h"
#include "standalone/expiry.h"
#include "standalone/grant_time.h"
#include "standalone/transmit_deadline.h"

#include <string>

namespace cbsd::standalone {

namespace {

// `sasNow`: the SAS's clock as the reply stated it, when it did.
void on_heartbeat_success(Worker& w, const sas::HeartbeatResponse* reply, const int64_t* sasNow) {
    write_status(w, base::kAuthorized);
    // Held before RadioEnable "1" is written, so that the loop finds it when
    // it opens.  The parser accepted only a parseable time.
    hold_deadline_of_reply(reply->transmitExpireTime, sasNow);
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
// record.
sas::PostReply send_heartbeat(Worker& w, const char* operationState) {
    return exchange(
        base::Request::kHeartbeat, "heartbeat", std::string("(") + operationState + ")",
        [&] {
            return sas::heartbeat_request(w.transport, w.serverUrl, w.records.grant.get(),
                                          w.records.device.get(), operationState);
        },
        sas::parse_heartbeat_response, w.records.heartbeat.get());
}

void succeed(Worker& w, const sas::PostReply& posted) {
    on_heartbeat_success(w, w.records.heartbeat.get(), posted.dated ? &posted.date : nullptr);
}

}  // namespace

void run_granted(Worker& w) {
    sas::PostReply posted = send_heartbeat(w, "GRANTED");
    if (posted.result != 0) {
        oper_timer_start(&w.operTimer, timer_type_from_post_result(posted.result));
        return;
    }
    int32_t code = w.records.heartbeat->responseCode;
    sas::log_outcome("Heartbeat", code);
    if (code == sas::kSuccess) {
        succeed(w, posted);
    } else if (code == sas::kDeregister) {
        start_over_unregistered(w, true);
    } else if (code == sas::kTerminatedGrant || code == sas::kUnsyncOpParam) {
        start_over_registered(w);
    } else if (code == sas::kSuspendedGrant) {
        oper_timer_start(&w.operTimer, SUSPENDED_GRANT);
    } else {
        oper_timer_start(&w.operTimer, RESPONSE_ERROR);
    }
}

void run_authorized(Worker& w) {
    sas::PostReply posted = send_heartbeat(w, "AUTHORIZED");
    if (posted.result != 0) {
        // An authorised device retries quickly, whatever the transport said.
        oper_timer_start(&w.operTimer, HEART_BEAT_ERROR);
        return;
    }
    int32_t code = w.records.heartbeat->responseCode;
    if (code == sas::kSuccess) {
        base::notice("[SAS] Heartbeat successfully\n");
        succeed(w, posted);
        return;
    }
    // Every refusal of an authorised heartbeat ends the authorisation: the
    // SAS has withdrawn or suspended the grant (kTerminatedGrant,
    // kSuspendedGrant, kDeregister) or the device is out of step with it.
    // Transmission stops at once, whatever the last transmitExpireTime
    // allowed, and before anything is given back; the "0" goes before the
    // line, whose system-log copy starts a process.
    withdraw_radio();
    sas::log_outcome("Heartbeat", code);
    switch (code) {
        case sas::kDeregister:
            start_over_unregistered(w, true);
            break;
        case sas::kTerminatedGrant:
        case sas::kUnsyncOpParam:
            start_over_registered(w);
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

}  // namespace cbsd::standalone
