#include "sas/reply_date.h"

#include "base/utc_time.h"

#include <strings.h>

#include <cstring>

namespace cbsd::sas {

namespace {

constexpr const char kDateName[] = "Date:";
// Longer than any date in the current form with its blanks.
constexpr size_t kLongestValue = 63;

bool is_blank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

}  // namespace

bool date_from_header_line(const char* line, size_t length, int64_t* epochSeconds) {
    constexpr size_t nameLength = sizeof kDateName - 1;
    if (length <= nameLength || strncasecmp(line, kDateName, nameLength) != 0) return false;
    const char* value = line + nameLength;
    const char* end = line + length;
    while (value < end && is_blank(*value)) ++value;
    while (end > value && is_blank(end[-1])) --end;
    size_t valueLength = static_cast<size_t>(end - value);
    if (valueLength > kLongestValue) return false;
    char text[kLongestValue + 1];
    std::memcpy(text, value, valueLength);
    text[valueLength] = '\0';
    return base::parse_http_date(text, epochSeconds);
}

}  // namespace cbsd::sas
