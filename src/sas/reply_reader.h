// The reading that every SAS reply parser shares: load the reply's bytes, log
// them, take element 0 of the message's member array and its response code.
#pragma once

#include <jansson.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

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

enum class ReplyReadResult {
    kRead,        // element taken, *responseCode set
    kUnreadable,  // no bytes, not JSON, or not a JSON object
    kNoMember,    // the object lacks the member, or it is no array
    kNoCode,      // element 0 has no integer response.responseCode
};

// Loads the reply's bytes (PostReply::usable(): none when the exchange brought
// no answer to use) and logs them re-serialised with indent 2, then takes
// element 0 of `memberName`
// (e.g. "grantResponse") and stores its integer response.responseCode in
// *responseCode (a missing, non-integer or out-of-range code is kNoCode).
// *responseCode is left untouched unless the result is kRead: setting it to
// -1 beforehand is the caller's choice.
ReplyReadResult read_sas_reply(std::string_view bytes, const char* memberName, SasReply* reply,
                               int32_t* responseCode);

// read_sas_reply for a parser that takes nothing but a success: true when
// the element was taken and its code is 0.
bool read_sas_success(std::string_view bytes, const char* memberName, SasReply* reply,
                      int32_t* responseCode);

// Copies a member of `object` into a fixed-width field when it is present and
// a string, keeping at most size - 1 characters; otherwise the field stays as
// it was.  Returns 1 when copied.
int copy_reply_text(const json_t* object, const char* member, char* field, size_t size);

// Stores the integer value of a present member (a non-integer reads as 0, the
// way responseCode does) and returns 1; returns 0 and leaves *value when the
// member is absent.
int read_reply_integer(const json_t* object, const char* member, int32_t* value);

}  // namespace cbsd::sas
