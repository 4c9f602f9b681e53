#include "sas/spectrum_inquiry.h"

#include "base/log.h"
#include "sas/exchanges.h"
#include "sas/exchange.h"
#include "sas/reply_reader.h"

#include <jansson.h>

#include <cstdint>
#include <string_view>

namespace cbsd::sas {

namespace {

// The inquiry's report refills one entry at every step and appends that same
// entry each time, so all 15 carry the last step's values.  SAS servers in the
// field have always received the inquiry this way; the grant and heartbeat
// reports carry distinct entries.
json_t* shared_entry_meas_report() {
    json_t* reports = json_array();
    json_t* entry = json_object();
    for (int i = 0; i < kMeasReportEntries; ++i) {
        json_object_set_new(entry, "measFrequency",
                            json_integer(kFirstMeasFrequency + i * kMeasFrequencyStep));
        json_object_set_new(entry, "measBandwidth", json_integer(kMeasBandwidth));
        json_object_set_new(entry, "measRcvdPower", json_integer(kFirstMeasPower + i));
        json_array_append(reports, entry);
    }
    json_decref(entry);
    json_t* report = json_object();
    json_object_set_new(report, "rcvdPowerMeasReports", reports);
    return report;
}

// Truncates toward zero; values beyond the 32-bit range saturate rather than
// overflow.
int32_t truncated_max_eirp(double value) {
    if (value >= 2147483647.0) return INT32_MAX;
    if (value <= -2147483648.0) return INT32_MIN;
    return static_cast<int32_t>(value);
}

// Only the first channel counts.  A SAS that names no power (or no number)
// leaves maxEirp at 2147483647, which means "no limit from the SAS".
void read_first_channel(const json_t* channel, SpectrumInquiryResponse* reply) {
    const json_t* range = json_object_get(channel, "frequencyRange");
    reply->lowFrequency =
        static_cast<uint32_t>(json_integer_value(json_object_get(range, "lowFrequency")));
    reply->highFrequency =
        static_cast<uint32_t>(json_integer_value(json_object_get(range, "highFrequency")));
    copy_reply_text(channel, "channelType", reply->channelType, sizeof reply->channelType);
    copy_reply_text(channel, "ruleApplied", reply->ruleApplied, sizeof reply->ruleApplied);
    const json_t* maxEirp = json_object_get(channel, "maxEirp");
    reply->maxEirp =
        json_is_number(maxEirp) ? truncated_max_eirp(json_number_value(maxEirp)) : INT32_MAX;
}

}  // namespace

BodyStatus build_spectrum_inquiry_body(const char* cbsdId, const config::DeviceRecord* record,
                                       char* body, size_t capacity) {
    json_t* range = json_object();
    json_object_set_new(range, "lowFrequency", json_integer(mhz_text_to_hz(record->lowFrequency)));
    json_object_set_new(range, "highFrequency",
                        json_integer(mhz_text_to_hz(record->highFrequency)));
    json_t* spectrum = json_array();
    json_array_append_new(spectrum, range);

    json_t* inquiry = json_object();
    set_text(inquiry, "cbsdId", cbsdId);
    json_object_set_new(inquiry, "inquiredSpectrum", spectrum);
    if (has_capability(record, "RECEIVED_POWER_WITHOUT_GRANT"))
        json_object_set_new(inquiry, "measReport", shared_entry_meas_report());

    json_t* root = single_request_envelope("spectrumInquiryRequest", inquiry);
    BodyStatus status = store_request_body(root, body, capacity);
    json_decref(root);
    return status;
}

PostReply spectrumInquiry_request(const Transport& post, const char* serverUrl,
                                  const RegistrationResponse* registration,
                                  const config::DeviceRecord* record) {
    return post_message(post, serverUrl, "spectrumInquiry", kRequestBodyCapacity,
                        [&](char* body, size_t capacity) {
                            return build_spectrum_inquiry_body(registration->cbsdId, record, body,
                                                               capacity) != BodyStatus::kTooLong;
                        });
}

int32_t parse_spectrum_inquiry_response(std::string_view bytes, SpectrumInquiryResponse* reply) {
    reply->responseCode = -1;
    SasReply sasReply;
    if (!read_sas_success(bytes, "spectrumInquiryResponse", &sasReply, &reply->responseCode))
        return -1;
    copy_reply_text(sasReply.element, "cbsdId", reply->cbsdId, sizeof reply->cbsdId);
    json_t* channels = json_object_get(sasReply.element, "availableChannel");
    if (!json_is_array(channels)) return -1;
    read_first_channel(json_array_get(channels, 0), reply);
    return 0;
}

}  // namespace cbsd::sas
