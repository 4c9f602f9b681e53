// Arbitrary bytes as a SAS reply chunk: through the steps of the transport's
// write callback that decide what the reply keeps (the file copy left out),
// and the shared reply reading, as every reply parser uses it.
#include "base/settings.h"
#include "sas/https.h"
#include "sas/reply_reader.h"

#include <cstdint>
#include <string_view>

namespace {

const char* const kMembers[] = {"registrationResponse",   "spectrumInquiryResponse",
                                "grantResponse",          "heartbeatResponse",
                                "relinquishmentResponse", "deregistrationResponse"};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    cbsd::base::settings().logLevel = 2;  // keep the fuzzer off the log file
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* chunk = reinterpret_cast<const char*>(data);
    cbsd::sas::PostReply reply;
    reply.result = 0;
    reply.httpStatus = 200;
    cbsd::sas::take_reply_chunk(chunk, cbsd::sas::kept_chunk_length(size), &reply);

    // The parsers read whatever the reply keeps; feed them the input whole too.
    for (std::string_view bytes : {reply.usable(), std::string_view(chunk, size)}) {
        for (const char* member : kMembers) {
            cbsd::sas::SasReply parsed;
            int32_t code = -1;
            if (cbsd::sas::read_sas_reply(bytes, member, &parsed, &code) !=
                cbsd::sas::ReplyReadResult::kRead)
                continue;
            char text[16];
            int32_t number = 0;
            cbsd::sas::copy_reply_text(parsed.element, "cbsdId", text, sizeof text);
            cbsd::sas::copy_reply_text(parsed.element, "grantId", text, sizeof text);
            cbsd::sas::read_reply_integer(parsed.element, "heartbeatInterval", &number);
        }
    }
    return 0;
}
