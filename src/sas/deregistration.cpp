#include "sas/deregistration.h"

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

int32_t post_deregistration(const char* serverUrl, const char* cbsdId) {
    std::unique_ptr<char[]> body(new (std::nothrow) char[kShortRequestBodyCapacity]);
    if (!body) return -1;
    char url[128] = {};
    std::snprintf(url, sizeof url, "%s/deregistration", serverUrl);
    base::notice("[SAS] URL = %s\n", url);
    if (build_deregistration_body(cbsdId, body.get(), kShortRequestBodyCapacity) ==
        BodyStatus::TooLong)
        return -1;
    return https_post(url, body.get());
}

void deregistration_request(const char* serverUrl, const char* cbsdId,
                            DeregistrationResponse* reply) {
    base::notice("\n[SAS] send deregistration_request...\n");
    if (post_deregistration(serverUrl, cbsdId) != 0) {
        base::notice("[SAS] post deregistration_request failed\n");
        return;
    }
    std::memset(reply, 0, sizeof *reply);
    parse_deregistration_response(reply);
    if (reply->responseCode != 0)
        base::notice_to_syslog("[SAS] Deregister unsuccessfully, responseCode:%d(%s)\n",
                  reply->responseCode, responseCode_name(reply->responseCode));
    else
        base::notice_to_syslog("[SAS] Deregister successfully\n");
}

int32_t parse_deregistration_response(DeregistrationResponse* reply) {
    reply->responseCode = -1;
    SasReply sasReply;
    if (read_sas_reply("deregistrationResponse", &sasReply, &reply->responseCode) != kReplyRead ||
        reply->responseCode != 0)
        return -1;
    copy_reply_text(sasReply.element, "cbsdId", reply->cbsdId, sizeof reply->cbsdId);
    return 0;
}

}  // namespace cbsd::sas
