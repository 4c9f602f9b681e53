#include "sas/relinquishment.h"

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

BodyStatus build_relinquishment_body(const char* cbsdId, const char* grantId, char* body,
                                     size_t capacity) {
    char cbsdIdText[128] = {};
    char grantIdText[128] = {};
    base::copy_text(cbsdIdText, sizeof cbsdIdText, cbsdId);
    base::copy_text(grantIdText, sizeof grantIdText, grantId);

    json_t* relinquishment = json_object();
    set_text(relinquishment, "cbsdId", cbsdIdText);
    set_text(relinquishment, "grantId", grantIdText);
    json_t* root = single_request_envelope("relinquishmentRequest", relinquishment);
    BodyStatus status = store_request_body(root, body, capacity);
    json_decref(root);
    return status;
}

void relinquishment_request(const Transport& post, const char* serverUrl, const char* cbsdId,
                            const char* grantId, RelinquishmentResponse* reply) {
    auto build = [&](char* body, size_t capacity) {
        return build_relinquishment_body(cbsdId, grantId, body, capacity) != BodyStatus::kTooLong;
    };
    // The record is cleared and its parser leaves the code at 0, so a reply
    // that cannot be read counts as a successful relinquishment: the grant is
    // given up locally whatever the SAS says.
    run_logged_exchange(
        base::Request::kRelinquishment, "relinquishment_request", "Relinquish",
        [&] {
            return post_message(post, serverUrl, "relinquishment", kShortRequestBodyCapacity, build);
        },
        [reply](std::string_view bytes) {
            std::memset(reply, 0, sizeof *reply);
            parse_relinquishment_response(bytes, reply);
            return reply->responseCode;
        });
}

// Unlike the other parsers this one leaves responseCode as the caller set it.
int32_t parse_relinquishment_response(std::string_view bytes, RelinquishmentResponse* reply) {
    SasReply sasReply;
    if (!read_sas_success(bytes, "relinquishmentResponse", &sasReply, &reply->responseCode))
        return -1;
    copy_reply_text(sasReply.element, "cbsdId", reply->cbsdId, sizeof reply->cbsdId);
    copy_reply_text(sasReply.element, "grantId", reply->grantId, sizeof reply->grantId);
    return 0;
}

}  // namespace cbsd::sas
