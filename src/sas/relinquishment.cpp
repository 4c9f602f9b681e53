#include "sas/relinquishment.h"

#include "base/log.h"
#include "base/text.h"
#include "sas/exchanges.h"
#include "sas/https.h"
#include "sas/reply_reader.h"
#include "sas/response_codes.h"

#include <jansson.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

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

int32_t post_relinquishment(const char* serverUrl, const char* cbsdId, const char* grantId) {
    std::unique_ptr<char[]> body(new (std::nothrow) char[kShortRequestBodyCapacity]);
    if (!body) return -1;
    char url[128] = {};
    std::snprintf(url, sizeof url, "%s/relinquishment", serverUrl);
    base::notice("[SAS] URL = %s\n", url);
    if (build_relinquishment_body(cbsdId, grantId, body.get(), kShortRequestBodyCapacity) ==
        BodyStatus::TooLong)
        return -1;
    return https_post(url, body.get());
}

void relinquishment_request(const char* serverUrl, const char* cbsdId, const char* grantId,
                            RelinquishmentResponse* reply) {
    base::notice("\n[SAS] send relinquishment_request...\n");
    if (post_relinquishment(serverUrl, cbsdId, grantId) != 0) {
        base::notice("[SAS] post relinquishment_request failed\n");
        return;
    }
    // The record is cleared and its parser leaves the code at 0, so a reply
    // that cannot be read counts as a successful relinquishment: the grant is
    // given up locally whatever the SAS says.
    std::memset(reply, 0, sizeof *reply);
    parse_relinquishment_response(reply);
    if (reply->responseCode != 0)
        base::notice_to_syslog("[SAS] Relinquish unsuccessfully, responseCode:%d(%s)\n",
                  reply->responseCode, responseCode_name(reply->responseCode));
    else
        base::notice_to_syslog("[SAS] Relinquish successfully\n");
}

// Unlike the other parsers this one leaves responseCode as the caller set it.
int32_t parse_relinquishment_response(RelinquishmentResponse* reply) {
    SasReply sasReply;
    if (read_sas_reply("relinquishmentResponse", &sasReply, &reply->responseCode) != kReplyRead ||
        reply->responseCode != 0)
        return -1;
    copy_reply_text(sasReply.element, "cbsdId", reply->cbsdId, sizeof reply->cbsdId);
    copy_reply_text(sasReply.element, "grantId", reply->grantId, sizeof reply->grantId);
    return 0;
}

}  // namespace cbsd::sas
