#include "base/utc_time.h"

#include <cstring>

namespace cbsd::base {

namespace {

constexpr const char* kLayout = "dddd-dd-ddTdd:dd:ddZ";
// "Sun, 06 Nov 1994 08:49:37 GMT": 'a' is any letter, the month is checked apart.
constexpr const char* kHttpLayout = "aaa, dd aaa dddd dd:dd:dd GMT";
constexpr const char kMonthNames[] = "JanFebMarAprMayJunJulAugSepOctNovDec";

// Every 'd' of the layout a digit, every 'a' a letter, every other character
// as written.
bool matches_layout(const char* text, const char* layout) {
    size_t length = std::strlen(layout);
    if (std::strlen(text) != length) return false;
    for (size_t i = 0; i < length; ++i) {
        bool digit = text[i] >= '0' && text[i] <= '9';
        bool letter = (text[i] >= 'A' && text[i] <= 'Z') || (text[i] >= 'a' && text[i] <= 'z');
        if (layout[i] == 'd' ? !digit : layout[i] == 'a' ? !letter : text[i] != layout[i])
            return false;
    }
    return true;
}

// 1..12 for an English month abbreviation, 0 for anything else.
uint32_t month_of(const char* name) {
    for (uint32_t month = 0; month < 12; ++month)
        if (std::strncmp(name, kMonthNames + 3 * month, 3) == 0) return month + 1;
    return 0;
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

namespace {

// The civil date and time of day as epoch seconds, when every field is in range.
bool epoch_of(int64_t year, uint32_t month, uint32_t day, const char* clock,
              int64_t* epochSeconds) {
    uint32_t hour = digits(clock, 2);
    uint32_t minute = digits(clock + 3, 2);
    uint32_t second = digits(clock + 6, 2);
    if (month < 1 || month > 12 || day < 1 || day > days_in_month(year, month)) return false;
    if (hour > 23 || minute > 59 || second > 60) return false;
    *epochSeconds = days_from_civil(year, month, day) * 86400 + hour * 3600 + minute * 60 + second;
    return true;
}

}  // namespace

bool parse_utc_time(const char* text, int64_t* epochSeconds) {
    if (!text || !matches_layout(text, kLayout)) return false;
    return epoch_of(digits(text, 4), digits(text + 5, 2), digits(text + 8, 2), text + 11,
                    epochSeconds);
}

bool parse_http_date(const char* text, int64_t* epochSeconds) {
    if (!text || !matches_layout(text, kHttpLayout)) return false;
    return epoch_of(digits(text + 12, 4), month_of(text + 8), digits(text + 5, 2), text + 17,
                    epochSeconds);
}

// The inverse of days_from_civil (the era arithmetic of the proleptic
// Gregorian calendar, 400 years to an era).
void format_utc_time(int64_t epochSeconds, char (&text)[kUtcTextSize]) {
    int64_t days = epochSeconds >= 0 ? epochSeconds / 86400 : (epochSeconds - 86399) / 86400;
    int64_t second = epochSeconds - days * 86400;
    int64_t z = days + 719468;
    int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    int64_t dayOfEra = z - era * 146097;
    int64_t yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    int64_t dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    int64_t mp = (5 * dayOfYear + 2) / 153;
    int64_t day = dayOfYear - (153 * mp + 2) / 5 + 1;
    int64_t month = mp < 10 ? mp + 3 : mp - 9;
    int64_t year = yearOfEra + era * 400 + (month <= 2 ? 1 : 0);
    text[0] = '\0';
    if (year < 0 || year > 9999) return;
    const int64_t fields[] = {year, month, day, second / 3600, second / 60 % 60, second % 60};
    std::memcpy(text, "0000-00-00T00:00:00Z", kUtcTextSize);
    // Each field's last digit sits where the layout's separator after it is not.
    const size_t ends[] = {4, 7, 10, 13, 16, 19};
    for (size_t field = 0; field < 6; ++field)
        for (int64_t value = fields[field], at = static_cast<int64_t>(ends[field]) - 1; value > 0;
             value /= 10, --at)
            text[at] = static_cast<char>('0' + value % 10);
}

}  // namespace cbsd::base
