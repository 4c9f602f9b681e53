#include "sas/reply_date.h"

#include <gtest/gtest.h>

#include <cstring>

namespace cbsd::sas {
namespace {

constexpr int64_t kUntouched = -12345;

int64_t date_of(const char* line) {
    int64_t date = kUntouched;
    return date_from_header_line(line, std::strlen(line), &date) ? date : kUntouched;
}

TEST(ReplyDate, TheDateHeaderAsLibcurlHandsItOver) {
    EXPECT_EQ(date_of("Date: Wed, 01 May 2024 12:00:00 GMT\r\n"), 1714564800);
    EXPECT_EQ(date_of("date:Wed, 01 May 2024 12:00:00 GMT"), 1714564800);
    EXPECT_EQ(date_of("DATE: \t Wed, 01 May 2024 12:00:00 GMT \r\n"), 1714564800);
}

TEST(ReplyDate, OtherHeadersAndBadDatesStateNothing) {
    EXPECT_EQ(date_of("HTTP/1.1 200 OK\r\n"), kUntouched);
    EXPECT_EQ(date_of("Last-Modified: Wed, 01 May 2024 12:00:00 GMT\r\n"), kUntouched);
    EXPECT_EQ(date_of("Dated: Wed, 01 May 2024 12:00:00 GMT\r\n"), kUntouched);
    EXPECT_EQ(date_of("Date: yesterday\r\n"), kUntouched);
    EXPECT_EQ(date_of("Date:\r\n"), kUntouched);
    EXPECT_EQ(date_of("Date: Wed, 01 May 2024 12:00:00 GMT and more text after it\r\n"),
              kUntouched);
    EXPECT_EQ(date_of("\r\n"), kUntouched);
}

// libcurl's header lines are not terminated: only the given length is read.
TEST(ReplyDate, ReadsOnlyTheGivenLength) {
    const char line[] = "Date: Wed, 01 May 2024 12:00:00 GMTXXXX";
    int64_t date = kUntouched;
    EXPECT_TRUE(date_from_header_line(line, std::strlen(line) - 4, &date));
    EXPECT_EQ(date, 1714564800);
    EXPECT_FALSE(date_from_header_line(line, 5, &date));
}

}  // namespace
}  // namespace cbsd::sas
