// Reply parsers read only the bytes of the exchange they parse, handed over
// by the exchange that posted; an exchange without a usable reply hands none.
#include "sas/reply_reader.h"

#include "base/log.h"
#include "base/text.h"

#include <cstdint>
#include <cstdlib>

namespace cbsd::sas {

namespace {

void log_reply(const json_t* root) {
    char* text = json_dumps(root, JSON_INDENT(2));
    if (text) {
        base::notice("[SAS] %s\n", text);
        std::free(text);
    } else {
        base::notice("[SAS] response message is NULL\n");
    }
}

// The code must be a JSON integer in range: a missing or mistyped code is no
// answer, so it can never read as success.
bool read_response_code(const json_t* element, int32_t* responseCode) {
    json_t* code = json_object_get(json_object_get(element, "response"), "responseCode");
    if (!json_is_integer(code)) return false;
    json_int_t value = json_integer_value(code);
    if (value < INT32_MIN || value > INT32_MAX) return false;
    *responseCode = static_cast<int32_t>(value);
    return true;
}

}  // namespace

ReplyReadResult read_sas_reply(std::string_view bytes, const char* memberName, SasReply* reply,
                               int32_t* responseCode) {
    if (bytes.empty()) return ReplyReadResult::kUnreadable;
    json_error_t error;
    reply->root = json_loadb(bytes.data(), bytes.size(), 0, &error);
    if (!json_is_object(reply->root)) return ReplyReadResult::kUnreadable;
    log_reply(reply->root);
    json_t* member = json_object_get(reply->root, memberName);
    if (!json_is_array(member)) return ReplyReadResult::kNoMember;
    // One request object per message, so only the first answer counts.
    reply->element = json_array_get(member, 0);
    return read_response_code(reply->element, responseCode) ? ReplyReadResult::kRead
                                                            : ReplyReadResult::kNoCode;
}

bool read_sas_success(std::string_view bytes, const char* memberName, SasReply* reply,
                      int32_t* responseCode) {
    return read_sas_reply(bytes, memberName, reply, responseCode) == ReplyReadResult::kRead &&
           *responseCode == 0;
}

int copy_reply_text(const json_t* object, const char* member, char* field, size_t size) {
    const json_t* value = json_object_get(object, member);
    if (!json_is_string(value)) return 0;
    base::copy_text(field, size, json_string_value(value));
    return 1;
}

int read_reply_integer(const json_t* object, const char* member, int32_t* value) {
    const json_t* found = json_object_get(object, member);
    if (!found) return 0;
    *value = static_cast<int32_t>(json_integer_value(found));
    return 1;
}

}  // namespace cbsd::sas
