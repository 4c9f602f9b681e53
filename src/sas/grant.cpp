#include "sas/grant.h"

#include "base/log.h"
#include "base/text.h"
#include "sas/exchanges.h"
#include "sas/exchange.h"
#include "sas/reply_reader.h"
#include "sas/response_codes.h"

#include <jansson.h>

#include <cmath>
#include <string_view>
#include <cstdlib>
#include <cstring>

namespace cbsd::sas {

namespace {

constexpr int32_t kCategoryAMaxEirp = 20;  // dBm/MHz
constexpr int32_t kCategoryBMaxEirp = 37;
constexpr double kChannelStepMhz = 5.0;

uint32_t low_edge_hz(const char* mhzText) {
    float mhz = static_cast<float>(std::atof(mhzText));
    return mhz_to_hz(static_cast<float>(std::floor(mhz / kChannelStepMhz) * kChannelStepMhz));
}

uint32_t high_edge_hz(const char* mhzText) {
    float mhz = static_cast<float>(std::atof(mhzText));
    return mhz_to_hz(static_cast<float>(std::ceil(mhz / kChannelStepMhz) * kChannelStepMhz));
}

}  // namespace

int32_t capped_max_eirp(const config::DeviceRecord* record) {
    int32_t maxEirp = std::atoi(record->maxEirp);
    if (std::strcmp(record->cbsdCategory, "A") == 0 && maxEirp > kCategoryAMaxEirp)
        return kCategoryAMaxEirp;
    if (std::strcmp(record->cbsdCategory, "B") == 0 && maxEirp > kCategoryBMaxEirp)
        return kCategoryBMaxEirp;
    return maxEirp;
}

void grant_frequency_range(const config::DeviceRecord* record, uint32_t* lowHz, uint32_t* highHz) {
    *lowHz = low_edge_hz(record->lowFrequency);
    *highHz = high_edge_hz(record->highFrequency);
}

BodyStatus build_grant_body(const char* cbsdId, const config::DeviceRecord* record, char* body,
                            size_t capacity) {
    json_t* range = json_object();
    json_object_set_new(range, "lowFrequency", json_integer(low_edge_hz(record->lowFrequency)));
    json_object_set_new(range, "highFrequency", json_integer(high_edge_hz(record->highFrequency)));
    json_t* operation = json_object();
    json_object_set_new(operation, "maxEirp", json_integer(capped_max_eirp(record)));
    json_object_set_new(operation, "operationFrequencyRange", range);

    json_t* grant = json_object();
    set_text(grant, "cbsdId", cbsdId);
    json_object_set_new(grant, "operationParam", operation);
    if (has_capability(record, "RECEIVED_POWER_WITHOUT_GRANT"))
        json_object_set_new(grant, "measReport", distinct_meas_report());

    json_t* root = single_request_envelope("grantRequest", grant);
    BodyStatus status = store_request_body(root, body, capacity);
    json_decref(root);
    return status;
}

PostReply grant_request(const Transport& post, const char* serverUrl,
                        const RegistrationResponse* registration,
                        const config::DeviceRecord* record) {
    return post_message(post, serverUrl, "grant", kRequestBodyCapacity,
                        [&](char* body, size_t capacity) {
                            return build_grant_body(registration->cbsdId, record, body,
                                                    capacity) != BodyStatus::kTooLong;
                        });
}

int32_t parse_grant_response(std::string_view bytes, GrantResponse* reply) {
    reply->responseCode = -1;
    SasReply sasReply;
    if (read_sas_reply(bytes, "grantResponse", &sasReply, &reply->responseCode) !=
        ReplyReadResult::kRead)
        return -1;
    const json_t* element = sasReply.element;
    if (reply->responseCode == kGrantConflict) {
        // The conflicting grant's id, which the caller relinquishes.
        const json_t* data = json_object_get(json_object_get(element, "response"), "responseData");
        const json_t* first = json_array_get(data, 0);
        if (json_is_string(first))
            base::copy_text(reply->responseData, sizeof reply->responseData,
                            json_string_value(first));
        return -1;
    }
    if (reply->responseCode != 0) return -1;
    copy_reply_text(element, "cbsdId", reply->cbsdId, sizeof reply->cbsdId);
    copy_reply_text(element, "grantId", reply->grantId, sizeof reply->grantId);
    copy_reply_text(element, "grantExpireTime", reply->grantExpireTime,
                    sizeof reply->grantExpireTime);
    read_reply_integer(element, "heartbeatInterval", &reply->heartbeatInterval);
    copy_reply_text(element, "channelType", reply->channelType, sizeof reply->channelType);
    return 0;
}

}  // namespace cbsd::sas
