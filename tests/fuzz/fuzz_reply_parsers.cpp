// Any bytes as a SAS reply, read by all six reply parsers.
#include "sas/every_parser.h"

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

    cbsd::sas::parse_with_every_parser(bytes);
    return 0;
}
