#include "sas/deregistration.h"

#include "base/log.h"
#include "base/text.h"
#include "sas/exchanges.h"
#include "sas/exchange.h"
#include "sas/reply_reader.h"

#include <jansson.h>

#include <cstdio>
#include <cstring>
#include <string_view>

namespace cbsd::sas {

BodyStatus build_deregistration_body(const char* cbsdId, char* body, size_t capacity) {
    char cbsdIdText[128] = {};
    base::copy_text(cbsdIdText, sizeof cbsdIdText, cbsdId);

    json_t* deregistration = json_object();
    set_text(deregistration, "cbsdId", cbsdIdText);
    json_t* root = single_request_envelope("deregistrationRequest", deregistration);
    BodyStatus status = store_request_body(root, body, capacity);
    json_decref(root);
    return status;
}

void deregistration_request(const Transport& post, const char* serverUrl, const char* cbsdId,
                            DeregistrationResponse* reply) {
    auto build = [&](char* body, size_t capacity) {
        return build_deregistration_body(cbsdId, body, capacity) != BodyStatus::kTooLong;
    };
    run_logged_exchange(
        base::Request::kDeregistration, "deregistration_request", "Deregister",
        [&] {
            return post_message(post, serverUrl, "deregistration", kShortRequestBodyCapacity, build);
        },
        [reply](std::string_view bytes) {
            std::memset(reply, 0, sizeof *reply);
            parse_deregistration_response(bytes, reply);
            return reply->responseCode;
        });
}

int32_t parse_deregistration_response(std::string_view bytes, DeregistrationResponse* reply) {
    reply->responseCode = -1;
    SasReply sasReply;
    if (!read_sas_success(bytes, "deregistrationResponse", &sasReply, &reply->responseCode))
        return -1;
    copy_reply_text(sasReply.element, "cbsdId", reply->cbsdId, sizeof reply->cbsdId);
    return 0;
}

}  // namespace cbsd::sas
