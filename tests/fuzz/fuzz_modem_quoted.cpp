// Feeds arbitrary modem manager output to the quoted-value and attach readers,
// with the callers' buffer sizes, checking the bound and the terminator.
#include "modem/modem_output.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string output(reinterpret_cast<const char*>(data), size);  // terminated copy
    for (size_t buffer_size : {size_t{1}, size_t{16}, size_t{32}, size_t{256}}) {
        char buffer[257];
        std::memset(buffer, 0, sizeof buffer);
        buffer[buffer_size] = 'G';  // guard just past the caller's buffer
        cbsd::modem::parse_quoted_value(output.c_str(), buffer, buffer_size - 1);
        if (buffer[buffer_size] != 'G' || buffer[buffer_size - 1] != '\0') std::abort();
    }
    volatile bool attached = cbsd::modem::shows_attached(output.c_str());
    (void)attached;
    return 0;
}
