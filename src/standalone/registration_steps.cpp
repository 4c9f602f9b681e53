// The worker's steps up to a grant: registration, the spectrum inquiry and
// the grant request, each one exchange and its decision.
#include "standalone/registration_steps.h"

#include "standalone/worker_steps.h"

#include "base/cbsd_state.h"
#include "base/log.h"
#include "base/status_report.h"
#include "base/text.h"
#include "config/accessors.h"
#include "sas/exchange.h"
#include "sas/exchanges.h"
#include "sas/grant.h"
#include "sas/response_codes.h"
#include "standalone/grant_time.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string_view>

namespace cbsd::standalone {

namespace {

// The inquiry's maxEirp when the SAS sent none.
constexpr int32_t kNoMaxEirp = 2147483647;

// The inquiry only caps the power asked for in the grant.
void apply_inquiry_power_cap(config::DeviceRecord* device, int32_t maxEirp) {
    if (maxEirp == kNoMaxEirp || maxEirp >= std::atoi(device->maxEirp)) return;
    if (std::snprintf(device->maxEirp, sizeof device->maxEirp, "%d", maxEirp) < 0)
        device->maxEirp[0] = '\0';
}

// An exchange whose missing reply is paced by the transport's result; true
// when a reply arrived and was parsed into the record.
template <typename Record>
bool exchange_or_pace(Worker& w, base::Request kind, const char* request,
                      const std::function<sas::PostReply()>& post,
                      int32_t (*parse)(std::string_view, Record*), Record* record) {
    sas::PostReply reply = exchange(kind, request, "", post, parse, record);
    if (reply.result == 0) return true;
    oper_timer_start(&w.operTimer, timer_type_from_post_result(reply.result));
    return false;
}

// Returns true when the grant may be asked for in this pass.
bool inquire_spectrum(Worker& w) {
    sas::SpectrumInquiryResponse* reply = w.records.inquiry.get();
    auto post = [&] {
        return sas::spectrumInquiry_request(w.transport, w.serverUrl, w.records.registration.get(),
                                            w.records.device.get());
    };
    if (!exchange_or_pace(w, base::Request::kSpectrumInquiry, "spectrumInquiry", post,
                          sas::parse_spectrum_inquiry_response, reply))
        return false;
    sas::log_outcome("SpectrumInquiry", reply->responseCode);
    if (reply->responseCode == sas::kSuccess) {
        apply_inquiry_power_cap(w.records.device.get(), reply->maxEirp);
        oper_timer_reset(&w.operTimer);
        return true;
    }
    if (reply->responseCode == sas::kDeregister) {
        start_over_unregistered(w, false);
    } else {
        *reply = sas::SpectrumInquiryResponse{};  // so that the next attempt asks again
        oper_timer_start(&w.operTimer, RESPONSE_ERROR);
    }
    return false;
}

// After the state: Granted is what keeps a grant in the report.
void report_granted(const Worker& w) {
    const config::DeviceRecord* device = w.records.device.get();
    uint32_t lowHz = 0, highHz = 0;
    sas::grant_frequency_range(device, &lowHz, &highHz);
    base::report_grant(w.grantId, lowHz, highHz, sas::capped_max_eirp(device));
}

void on_grant(Worker& w, const sas::GrantResponse* reply) {
    base::copy_text(w.grantId, sizeof w.grantId, reply->grantId);
    set_grant_expire_time(reply->grantExpireTime);
    w.heartbeatInterval = reply->heartbeatInterval >= 1
                              ? static_cast<uint32_t>(reply->heartbeatInterval)
                              : kDefaultHeartbeatInterval;
    set_grant_renew("0");
    write_status(w, base::kGranted);
    report_granted(w);
    set_power_spectral_density(w.records.device->maxEirp);
    oper_timer_reset(&w.operTimer);
}

void request_grant(Worker& w) {
    sas::GrantResponse* reply = w.records.grant.get();
    auto post = [&] {
        return sas::grant_request(w.transport, w.serverUrl, w.records.registration.get(),
                                  w.records.device.get());
    };
    if (!exchange_or_pace(w, base::Request::kGrant, "grant", post, sas::parse_grant_response,
                          reply))
        return;
    sas::log_outcome("Grant", reply->responseCode);
    switch (reply->responseCode) {
        case sas::kSuccess:
            on_grant(w, reply);
            return;
        case sas::kDeregister:
            start_over_unregistered(w, false);
            return;
        case sas::kGrantConflict:
            // The SAS names the conflicting grant; drop it and ask again at once.
            cease_transmission();
            sas::relinquishment_request(w.transport, w.serverUrl, w.cbsdId, reply->responseData,
                                        w.records.relinquishment.get());
            write_status(w, base::kRegistered);
            start_over_after_refusal(w);
            return;
        default:
            oper_timer_start(&w.operTimer, RESPONSE_ERROR);
            return;
    }
}

}  // namespace

void register_device(Worker& w) {
    config::DeviceRecord* device = w.records.device.get();
    sas::RegistrationResponse* reply = w.records.registration.get();
    auto post = [&] {
        *device = config::DeviceRecord{};
        config::load_device_record(device);
        return sas::registeration_request(w.transport, w.serverUrl, device);
    };
    if (!exchange_or_pace(w, base::Request::kRegistration, "registeration", post,
                          sas::parse_registration_response, reply))
        return;
    sas::log_outcome("Register", reply->responseCode);
    if (reply->responseCode != sas::kSuccess) {
        oper_timer_start(&w.operTimer, RESPONSE_ERROR);
        return;
    }
    base::copy_text(w.cbsdId, sizeof w.cbsdId, reply->cbsdId);
    base::report_cbsd_id(w.cbsdId);
    write_status(w, base::kRegistered);
    oper_timer_reset(&w.operTimer);
}

void run_registered(Worker& w) {
    bool inquiry_needed =
        std::strcmp(w.records.inquiry->cbsdId, w.records.registration->cbsdId) != 0;
    if (inquiry_needed && !inquire_spectrum(w)) return;
    request_grant(w);
}

}  // namespace cbsd::standalone
