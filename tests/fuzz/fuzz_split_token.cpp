// Any bytes as a token text, split at dots and also at a delimiter taken from
// the input itself.
#include "sas/cpi_signature.h"

#include <cstdint>
#include <cstring>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<char> text(data, data + size);
    text.push_back('\0');
    char* parts[3] = {};
    int count = 0;
    cbsd::sas::split_token(text.data(), ".", parts, 3, &count);
    for (int i = 0; i < count; ++i) {
        if (std::strchr(parts[i], '.') || parts[i][0] == '\0') __builtin_trap();
    }
    if (size < 2) return 0;
    // First byte as a one-character delimiter over the rest.
    std::vector<char> rest(data + 1, data + size);
    rest.push_back('\0');
    char delimiter[2] = {static_cast<char>(data[0]), '\0'};
    char* many[8] = {};
    cbsd::sas::split_token(rest.data(), delimiter, many, 8, &count);
    if (count < 0 || count > 8) __builtin_trap();
    return 0;
}
