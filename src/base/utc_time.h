// SAS times ("2024-05-01T12:00:00Z") and HTTP dates as 64-bit epoch seconds, computed from
// the civil date alone: no mktime and no zone round trip, so a date from 2038
// on converts the same on a router whose time_t has 32 bits.
#pragma once

#include <cstddef>
#include <cstdint>

namespace cbsd::base {

// Days from 1970-01-01 to the given proleptic Gregorian date (negative before).
int64_t days_from_civil(int64_t year, uint32_t month, uint32_t day);

// Parses exactly "YYYY-MM-DDTHH:MM:SSZ" with fields in range.  Returns false
// and leaves *epochSeconds untouched for any other text.
bool parse_utc_time(const char* text, int64_t* epochSeconds);

// The SAS's layout for epoch seconds: "YYYY-MM-DDTHH:MM:SSZ", from the civil
// date alone as the parser reads it (years 0 to 9999; others give "").
inline constexpr size_t kUtcTextSize = 21;
void format_utc_time(int64_t epochSeconds, char (&text)[kUtcTextSize]);

// Parses an HTTP date in its one current form, "Sun, 06 Nov 1994 08:49:37
// GMT", with fields in range (the weekday is not checked against the date).
// Returns false and leaves *epochSeconds untouched for any other text.
bool parse_http_date(const char* text, int64_t* epochSeconds);

}  // namespace cbsd::base
