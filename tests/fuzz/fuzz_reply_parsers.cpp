// Any bytes as a SAS reply, read by all six reply parsers.
#include "sas/exchanges.h"

#include "reply_fuzz_support.h"

#include <cstdint>
#include <string_view>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    cbsd::fuzz::log_to_private_file();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    cbsd::fuzz::empty_log();
    std::string_view bytes(reinterpret_cast<const char*>(data), size);

    using namespace cbsd::sas;
    RegistrationResponse registration{};
    parse_registration_response(bytes, &registration);
    SpectrumInquiryResponse inquiry{};
    parse_spectrum_inquiry_response(bytes, &inquiry);
    GrantResponse grant{};
    parse_grant_response(bytes, &grant);
    HeartbeatResponse heartbeat{};
    parse_heartbeat_response(bytes, &heartbeat);
    RelinquishmentResponse relinquishment{};
    parse_relinquishment_response(bytes, &relinquishment);
    DeregistrationResponse deregistration{};
    parse_deregistration_response(bytes, &deregistration);
    return 0;
}
