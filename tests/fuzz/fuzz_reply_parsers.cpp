// Any bytes as a SAS reply, read by all six reply parsers.
#include "sas/exchanges.h"

#include "reply_fuzz_support.h"

#include <cstdint>
#include <string_view>

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    cbsd::fuzz::log_to_private_file();
    return 0;
}

namespace {

// One parser over the bytes, into a fresh reply of its own.
template <typename Reply>
void feed(std::string_view bytes, int32_t (*parse)(std::string_view, Reply*)) {
    Reply reply{};
    parse(bytes, &reply);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    cbsd::fuzz::empty_log();
    std::string_view bytes(reinterpret_cast<const char*>(data), size);

    using namespace cbsd::sas;
    feed(bytes, parse_registration_response);
    feed(bytes, parse_spectrum_inquiry_response);
    feed(bytes, parse_grant_response);
    feed(bytes, parse_heartbeat_response);
    feed(bytes, parse_relinquishment_response);
    feed(bytes, parse_deregistration_response);
    return 0;
}
