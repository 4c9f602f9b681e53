// Reply parsers never see the transport's buffer: they read the dump file that
// the transport wrote last, which may be a previous exchange's reply.
#include "sas/reply_reader.h"

#include "core/log.h"
#include "core/text.h"
#include "sas/https.h"

#include <cstdlib>

namespace cbsd::sas {

namespace {

void log_reply(const json_t* root) {
    char* text = json_dumps(root, JSON_INDENT(2));
    if (text) {
        core::log(5, 0, "[SAS] %s\n", text);
        std::free(text);
    } else {
        core::log(5, 0, "[SAS] response message is NULL\n");
    }
}

}  // namespace

ReplyReadResult read_sas_reply(const char* memberName, SasReply* reply, int32_t* responseCode) {
    json_error_t error;
    reply->root = json_load_file(kReplyDumpPath, 0, &error);
    if (!json_is_object(reply->root)) return kReplyUnreadable;
    log_reply(reply->root);
    json_t* member = json_object_get(reply->root, memberName);
    if (!json_is_array(member)) return kReplyNoMember;
    // One request object per message, so only the first answer counts.
    reply->element = json_array_get(member, 0);
    json_t* code = json_object_get(json_object_get(reply->element, "response"), "responseCode");
    *responseCode = static_cast<int32_t>(json_integer_value(code));
    return kReplyRead;
}

int copy_reply_text(const json_t* object, const char* member, char* field, size_t size) {
    const json_t* value = json_object_get(object, member);
    if (!json_is_string(value)) return 0;
    core::copy_text(field, size, json_string_value(value));
    return 1;
}

int read_reply_integer(const json_t* object, const char* member, int32_t* value) {
    const json_t* found = json_object_get(object, member);
    if (!found) return 0;
    *value = static_cast<int32_t>(json_integer_value(found));
    return 1;
}

}  // namespace cbsd::sas
