#include "base/utc_time.h"

#include <cstring>

namespace cbsd::base {

namespace {

constexpr const char* kLayout = "dddd-dd-ddTdd:dd:ddZ";

// Every 'd' of the layout a digit, every other character as written.
bool matches_layout(const char* text) {
    size_t length = std::strlen(kLayout);
    if (std::strlen(text) != length) return false;
    for (size_t i = 0; i < length; ++i) {
        bool digit = text[i] >= '0' && text[i] <= '9';
        if (kLayout[i] == 'd' ? !digit : text[i] != kLayout[i]) return false;
    }
    return true;
}

uint32_t digits(const char* text, size_t count) {
    uint32_t value = 0;
    for (size_t i = 0; i < count; ++i) value = value * 10 + static_cast<uint32_t>(text[i] - '0');
    return value;
}

bool is_leap(int64_t year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

uint32_t days_in_month(int64_t year, uint32_t month) {
    static const uint32_t kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && is_leap(year) ? 29 : kDays[month - 1];
}

}  // namespace

// The era arithmetic of the proleptic Gregorian calendar: 400-year eras of
// 146097 days, years counted from March so that the leap day comes last.
int64_t days_from_civil(int64_t year, uint32_t month, uint32_t day) {
    year -= month <= 2 ? 1 : 0;
    int64_t era = (year >= 0 ? year : year - 399) / 400;
    int64_t yearOfEra = year - era * 400;
    int64_t shiftedMonth = month > 2 ? month - 3 : month + 9;
    int64_t dayOfYear = (153 * shiftedMonth + 2) / 5 + day - 1;
    int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + dayOfEra - 719468;
}

bool parse_utc_time(const char* text, int64_t* epochSeconds) {
    if (!text || !matches_layout(text)) return false;
    int64_t year = digits(text, 4);
    uint32_t month = digits(text + 5, 2);
    uint32_t day = digits(text + 8, 2);
    uint32_t hour = digits(text + 11, 2);
    uint32_t minute = digits(text + 14, 2);
    uint32_t second = digits(text + 17, 2);
    if (month < 1 || month > 12 || day < 1 || day > days_in_month(year, month)) return false;
    if (hour > 23 || minute > 59 || second > 60) return false;
    *epochSeconds = days_from_civil(year, month, day) * 86400 + hour * 3600 + minute * 60 + second;
    return true;
}

}  // namespace cbsd::base
