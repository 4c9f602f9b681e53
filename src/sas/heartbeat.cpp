#include "sas/heartbeat.h"

#include "config/uci_store.h"
#include "base/log.h"
#include "base/utc_time.h"
#include "sas/exchanges.h"
#include "sas/exchange.h"
#include "sas/reply_reader.h"

#include <jansson.h>

#include <string_view>
#include <cstdlib>

namespace cbsd::sas {

bool is_grant_renew_requested() {
    char value[8] = {};
    config::config_get(config::kSasConfigPath, config::schema::kOpGrantRenew, value, sizeof value);
    return std::atoi(value) != 0;
}

BodyStatus build_heartbeat_body(const GrantResponse* grant, const config::DeviceRecord* record,
                                const char* operationState, bool grantRenew, char* body,
                                size_t capacity) {
    json_t* heartbeat = json_object();
    set_text(heartbeat, "cbsdId", grant->cbsdId);
    set_text(heartbeat, "grantId", grant->grantId);
    json_object_set_new(heartbeat, "grantRenew", json_boolean(grantRenew));
    set_text(heartbeat, "operationState", operationState);
    // Received power is reported with a grant only for the with-grant capability.
    if (has_capability(record, "RECEIVED_POWER_WITH_GRANT"))
        json_object_set_new(heartbeat, "measReport", distinct_meas_report());

    json_t* root = single_request_envelope("heartbeatRequest", heartbeat);
    BodyStatus status = store_request_body(root, body, capacity);
    json_decref(root);
    return status;
}

PostReply heartbeat_request(const Transport& post, const char* serverUrl,
                            const GrantResponse* grant, const config::DeviceRecord* record,
                            const char* operationState) {
    bool grantRenew = is_grant_renew_requested();
    return post_message(post, serverUrl, "heartbeat", kRequestBodyCapacity,
                        [&](char* body, size_t capacity) {
                            return build_heartbeat_body(grant, record, operationState, grantRenew,
                                                        body, capacity) != BodyStatus::kTooLong;
                        });
}

int32_t parse_heartbeat_response(std::string_view bytes, HeartbeatResponse* reply) {
    reply->responseCode = -1;
    SasReply sasReply;
    if (!read_sas_success(bytes, "heartbeatResponse", &sasReply, &reply->responseCode))
        return -1;
    const json_t* element = sasReply.element;
    copy_reply_text(element, "cbsdId", reply->cbsdId, sizeof reply->cbsdId);
    copy_reply_text(element, "grantId", reply->grantId, sizeof reply->grantId);
    copy_reply_text(element, "transmitExpireTime", reply->transmitExpireTime,
                    sizeof reply->transmitExpireTime);
    copy_reply_text(element, "grantExpireTime", reply->grantExpireTime,
                    sizeof reply->grantExpireTime);
    read_reply_integer(element, "heartbeatInterval", &reply->heartbeatInterval);
    // A success authorises only up to a deadline it names; without a
    // readable one it authorises nothing.
    int64_t deadline = 0;
    if (!base::parse_utc_time(reply->transmitExpireTime, &deadline)) {
        base::notice_to_syslog("[SAS] heartbeat success without a valid transmitExpireTime[%s]\n",
                               reply->transmitExpireTime);
        reply->responseCode = -1;
        return -1;
    }
    return 0;
}

}  // namespace cbsd::sas
