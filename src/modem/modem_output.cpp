#include "modem/modem_output.h"

#include "base/text.h"

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace cbsd::modem {

bool parse_quoted_value(const char* output, char* buffer, size_t length) {
    if (!output || !buffer) return false;
    const char* colon = std::strchr(output, ':');
    if (!colon) return false;
    const char* open = std::strchr(colon + 1, '"');
    if (!open) return false;
    const char* value = open + 1;
    // A truncated reply has no closing quote: the value then ends with the line.
    const char* close = std::strpbrk(value, "\"\n");
    size_t value_length = close ? static_cast<size_t>(close - value) : std::strlen(value);
    size_t copied = value_length < length ? value_length : length;
    std::memcpy(buffer, value, copied);
    if (copied < length) buffer[copied] = '\0';
    return true;
}

bool parse_number(const char* output, int* value) {
    if (!output || !value || !*output) return false;
    const char* colon = std::strchr(output, ':');
    if (!colon) return false;
    char work[64] = {};
    const char* start = colon + 1;
    size_t span = std::strcspn(start, ",");
    std::memcpy(work, start, span < sizeof work - 1 ? span : sizeof work - 1);
    base::trim(work);
    // Like atoi, but without its undefined behaviour on out-of-range text.
    long number = std::strtol(work, nullptr, 10);
    if (number > INT_MAX) number = INT_MAX;
    if (number < INT_MIN) number = INT_MIN;
    *value = static_cast<int>(number);
    return true;
}

bool shows_attached(const char* output) {
    return output && std::strchr(output, '4') != nullptr;
}

CellRange compute_cell_range(int frequency, int bandwidth) {
    // 64-bit so that absurd readings give absurd numbers rather than overflow.
    int64_t width = static_cast<int64_t>(bandwidth) * 10;
    int64_t half = width >> 1;
    CellRange range{};
    std::snprintf(range.lowFrequency, sizeof range.lowFrequency, "%.1f",
                  static_cast<float>(frequency - half) / 10.0);
    std::snprintf(range.highFrequency, sizeof range.highFrequency, "%.1f",
                  static_cast<float>(frequency + half) / 10.0);
    std::snprintf(range.bandwidth, sizeof range.bandwidth, "%d", static_cast<int>(width / 10));
    return range;
}

}  // namespace cbsd::modem
