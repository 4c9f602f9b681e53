// Any bytes as the SAS reply dump file, read by all six reply parsers.
#include "sas/exchanges.h"
#include "sas/https.h"

#include "reply_fuzz_support.h"

#include <cstdint>
#include <cstdio>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    cbsd::fuzz::enter_private_tmp();
    cbsd::fuzz::quiet_logging();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FILE* dump = std::fopen(cbsd::sas::kReplyDumpPath, "wb");
    if (!dump) return 0;
    std::fwrite(data, 1, size, dump);
    std::fclose(dump);
    // The log grows with every input; start each one from an empty file.
    std::remove("/root/sas/sas.log");

    using namespace cbsd::sas;
    RegistrationResponse registration{};
    parse_registration_response(&registration);
    SpectrumInquiryResponse inquiry{};
    parse_spectrum_inquiry_response(&inquiry);
    GrantResponse grant{};
    parse_grant_response(&grant);
    HeartbeatResponse heartbeat{};
    parse_heartbeat_response(&heartbeat);
    RelinquishmentResponse relinquishment{};
    parse_relinquishment_response(&relinquishment);
    DeregistrationResponse deregistration{};
    parse_deregistration_response(&deregistration);
    return 0;
}
