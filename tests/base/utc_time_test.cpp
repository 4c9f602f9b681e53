#include "base/utc_time.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <initializer_list>
#include <string>

namespace cbsd::base {
namespace {

using Parser = bool (*)(const char*, int64_t*);

int64_t parsed(const char* text, Parser parse = parse_utc_time) {
    int64_t value = -12345;
    EXPECT_TRUE(parse(text, &value)) << text;
    return value;
}

// Refused, and the output left untouched.
bool rejects(const char* text, Parser parse = parse_utc_time) {
    int64_t value = -12345;
    return !parse(text, &value) && value == -12345;
}

int64_t http_parsed(const char* text) { return parsed(text, parse_http_date); }

struct Instant {
    const char* text;
    int64_t seconds;
};

// Every text is read as its instant.
void expect_instants(Parser parse, std::initializer_list<Instant> instants) {
    for (const Instant& instant : instants) EXPECT_EQ(parsed(instant.text, parse), instant.seconds) << instant.text;
}

// Every text is refused, the output left untouched.
void expect_refused(Parser parse, std::initializer_list<const char*> texts) {
    for (const char* text : texts) EXPECT_TRUE(rejects(text, parse)) << (text ? text : "(null)");
}

TEST(UtcTime, DaysFromCivil) {
    EXPECT_EQ(days_from_civil(1970, 1, 1), 0);
    EXPECT_EQ(days_from_civil(1969, 12, 31), -1);
    EXPECT_EQ(days_from_civil(2000, 3, 1), 11017);
    EXPECT_EQ(days_from_civil(2024, 2, 29), 19782);
}

TEST(UtcTime, KnownInstants) {
    expect_instants(parse_utc_time, {{"1970-01-01T00:00:00Z", 0},
                                     {"2024-05-01T12:00:00Z", 1714564800},
                                     {"2038-01-19T03:14:07Z", 2147483647}});
}

TEST(UtcTime, PastThe32BitEnd) {
    expect_instants(parse_utc_time, {{"2038-01-19T03:14:08Z", int64_t{2147483648}},
                                     {"2040-06-01T00:00:00Z", int64_t{2222121600}},
                                     {"2106-02-07T06:28:16Z", int64_t{4294967296}}});
}

TEST(UtcTime, RejectsWhatIsNotATime) {
    expect_refused(parse_utc_time,
                   {nullptr, "", "soon", "2024-05-01T12:00:00", "2024-05-01T12:00:00+01:00",
                    "2024-05-01 12:00:00Z", "2024-13-01T12:00:00Z", "2023-02-29T12:00:00Z",
                    "2024-05-01T24:00:00Z", "2024-05-01T12:60:00Z", "2024-05-01T12:00:00Zjunk",
                    "+024-05-01T12:00:00Z"});
}

TEST(HttpDate, KnownInstants) {
    expect_instants(parse_http_date, {{"Thu, 01 Jan 1970 00:00:00 GMT", 0},
                                      {"Sun, 06 Nov 1994 08:49:37 GMT", 784111777},
                                      {"Wed, 01 May 2024 12:00:00 GMT", 1714564800},
                                      {"Thu, 29 Feb 2024 23:59:59 GMT", 1709251199}});
}

TEST(HttpDate, PastThe32BitEnd) {
    expect_instants(parse_http_date, {{"Tue, 19 Jan 2038 03:14:08 GMT", int64_t{2147483648}},
                                      {"Fri, 01 Jun 2040 00:00:00 GMT", int64_t{2222121600}}});
}

TEST(HttpDate, EveryMonthByName) {
    const char* const names[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                 "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    for (uint32_t month = 1; month <= 12; ++month) {
        std::string text = std::string("Mon, 01 ") + names[month - 1] + " 2024 00:00:00 GMT";
        EXPECT_EQ(http_parsed(text.c_str()), days_from_civil(2024, month, 1) * 86400) << text;
    }
}

// The obsolete forms and anything malformed are not used: the wall clock alone
// then stands for the SAS's time.
TEST(HttpDate, RejectsOtherForms) {
    expect_refused(parse_http_date,
                   {nullptr, "", "Sunday, 06-Nov-94 08:49:37 GMT", "Sun Nov  6 08:49:37 1994",
                    "Sun, 06 Nov 1994 08:49:37 UTC", "Sun, 06 Nov 1994 08:49:37 GMT ",
                    "Sun, 06 Nux 1994 08:49:37 GMT", "Sun, 06 nov 1994 08:49:37 GMT",
                    "Sun, 31 Nov 1994 08:49:37 GMT", "Sun, 06 Nov 1994 24:49:37 GMT",
                    "S1n, 06 Nov 1994 08:49:37 GMT"});
}

// Where time_t has 64 bits, the conversion agrees with the C library's UTC
// conversion on every day of several centuries.
TEST(UtcTime, AgreesWithTimegmDayByDay) {
    if (sizeof(time_t) < 8) GTEST_SKIP() << "32-bit time_t";
    for (int64_t day = -25567; day < 60000; day += 1) {
        time_t instant = static_cast<time_t>(day * 86400 + 3723);
        tm broken{};
        ASSERT_NE(gmtime_r(&instant, &broken), nullptr);
        char text[32];
        ASSERT_GT(strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &broken), 0u);
        EXPECT_EQ(parsed(text), static_cast<int64_t>(instant)) << text;
    }
}


TEST(UtcTime, FormatsWhatItParses) {
    const char* texts[] = {"1970-01-01T00:00:00Z", "2000-02-29T23:59:59Z", "2024-05-01T12:00:00Z",
                           "2038-01-19T03:14:08Z", "2106-02-07T06:28:16Z", "9999-12-31T23:59:59Z"};
    for (const char* text : texts) {
        int64_t epoch = 0;
        ASSERT_TRUE(parse_utc_time(text, &epoch)) << text;
        char formatted[kUtcTextSize];
        format_utc_time(epoch, formatted);
        EXPECT_STREQ(formatted, text);
    }
}

TEST(UtcTime, FormatsKnownInstantsAndRefusesYearsBeyondTheLayout) {
    char formatted[kUtcTextSize];
    format_utc_time(1'800'000'000, formatted);
    EXPECT_STREQ(formatted, "2027-01-15T08:00:00Z");
    format_utc_time(-1, formatted);
    EXPECT_STREQ(formatted, "1969-12-31T23:59:59Z");
    format_utc_time(253402300800, formatted);  // 10000-01-01
    EXPECT_STREQ(formatted, "");
}

}  // namespace
}  // namespace cbsd::base
