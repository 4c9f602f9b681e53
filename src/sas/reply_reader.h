// The reading that every SAS reply parser shares: load /tmp/sasmsg.json, log
// it, take element 0 of the message's member array and its response code.
#pragma once

#include <jansson.h>

#include <cstddef>
#include <cstdint>

namespace cbsd::sas {

// A loaded reply.  `root` is owned and released by the destructor; `element`
// points into it (element 0 of the member array, NULL when the array is empty).
struct SasReply {
    json_t* root = nullptr;
    json_t* element = nullptr;

    SasReply() = default;
    SasReply(const SasReply&) = delete;
    SasReply& operator=(const SasReply&) = delete;
    ~SasReply() { json_decref(root); }
};

enum ReplyReadResult : int32_t {
    kReplyRead = 0,         // element taken, *responseCode set
    kReplyUnreadable = -1,  // no dump file, not JSON, or not a JSON object
    kReplyNoMember = -2,    // the object lacks the member, or it is no array
    kReplyNoCode = -3,      // element 0 has no integer response.responseCode
};

// Loads the dump file (unreadable when the transport says it is stale) and
// logs it re-serialised with indent 2, then takes element 0 of `memberName`
// (e.g. "grantResponse") and stores its integer response.responseCode in
// *responseCode (a missing, non-integer or out-of-range code is kReplyNoCode).  *responseCode is left untouched unless the result is
// kReplyRead: setting it to -1 beforehand is the caller's choice.
ReplyReadResult read_sas_reply(const char* memberName, SasReply* reply, int32_t* responseCode);

// Copies a member of `object` into a fixed-width field when it is present and
// a string, keeping at most size - 1 characters; otherwise the field stays as
// it was.  Returns 1 when copied.
int copy_reply_text(const json_t* object, const char* member, char* field, size_t size);

// Stores the integer value of a present member (a non-integer reads as 0, the
// way responseCode does) and returns 1; returns 0 and leaves *value when the
// member is absent.
int read_reply_integer(const json_t* object, const char* member, int32_t* value);

}  // namespace cbsd::sas
