// Arbitrary bytes as a SAS reply: through the transport's write callback and
// the shared reply reading, as every reply parser uses it.  The process first
// moves into a private mount namespace with its own /tmp and /root, so the
// dump file and the log never touch the host's.
#include "base/settings.h"
#include "sas/https.h"
#include "sas/reply_reader.h"
#include "reply_fuzz_support.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

const char* const kMembers[] = {"registrationResponse",   "spectrumInquiryResponse",
                                "grantResponse",          "heartbeatResponse",
                                "relinquishmentResponse", "deregistrationResponse"};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    cbsd::fuzz::enter_private_tmp();
    mkdir("/root/sas", 0755);
    cbsd::base::settings().logLevel = 2;  // keep the fuzzer off the log file
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static char buffer[cbsd::sas::kResponseBufferSize];
    std::vector<char> chunk(data, data + size);
    cbsd::sas::save_response(chunk.data(), 1, chunk.size(), buffer);

    // The parsers read whatever the dump holds, so feed them the input whole.
    if (FILE* dump = std::fopen(cbsd::sas::kReplyDumpPath, "w")) {
        std::fwrite(data, 1, size, dump);
        std::fclose(dump);
    }
    for (const char* member : kMembers) {
        cbsd::sas::SasReply reply;
        int32_t code = -1;
        if (cbsd::sas::read_sas_reply(member, &reply, &code) != cbsd::sas::kReplyRead) continue;
        char text[16];
        int32_t number = 0;
        cbsd::sas::copy_reply_text(reply.element, "cbsdId", text, sizeof text);
        cbsd::sas::copy_reply_text(reply.element, "grantId", text, sizeof text);
        cbsd::sas::read_reply_integer(reply.element, "heartbeatInterval", &number);
    }
    return 0;
}
