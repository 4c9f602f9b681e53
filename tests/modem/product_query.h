// The product queries as the daemon calls them: a buffer of a given size whose
// last byte stays free for the terminator.
#pragma once

#include "modem/modem.h"

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

namespace cbsd::test {

// What `query` (the model or the serial number) leaves in a buffer of `size`
// bytes that held `before`.
inline std::string queried(void (*query)(char*, size_t), size_t size, const char* before = "") {
    std::vector<char> buffer(size, '\0');
    std::strncpy(buffer.data(), before, size - 1);
    query(buffer.data(), size - 1);
    return buffer.data();
}

}  // namespace cbsd::test
