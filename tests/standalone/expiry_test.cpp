#include "standalone/expiry.h"

#include "base/clock.h"

#include "support/test_util.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace cbsd::standalone {
namespace {

time_t fake_now = 0;
time_t read_fake_now() { return fake_now; }

// 2024-05-01T12:00:00Z
constexpr time_t kNoon = 1714564800;

// The router's libc reads /etc/TZ; glibc reads TZ, so both get the zone.
void use_zone(const std::string& zone) {
    ASSERT_TRUE(test::write_file("/etc/TZ", zone + "\n"));
    setenv("TZ", zone.c_str(), 1);
    tzset();
}

class Expiry : public ::testing::Test {
protected:
    void SetUp() override { base::set_clock({read_fake_now, nullptr, nullptr}); }
    void TearDown() override {
        base::set_clock({});
        unlink("/etc/TZ");
        unsetenv("TZ");
        tzset();
    }
};

int32_t offset_of(const std::string& zone) {
    test::write_file("/etc/TZ", zone + "\n");
    return tz_offset_seconds();
}

TEST_F(Expiry, ZoneOffsetIsEastOfUtc) {
    EXPECT_EQ(offset_of("CST-8"), 28800);
    EXPECT_EQ(offset_of("EST5EDT,M3.2.0,M11.1.0"), -18000);
    EXPECT_EQ(offset_of("XXX-5:30"), 19800);
    EXPECT_EQ(offset_of("XXX5:30"), -19800);
    EXPECT_EQ(offset_of("UTC0"), 0);
    EXPECT_EQ(offset_of("XXX-14"), 50400);
    EXPECT_EQ(offset_of("XXX13"), -46800);
}

TEST_F(Expiry, ZeroHoursWestCountAsEast) {
    // Zero hours take the branch of the non-positive hours, so the minutes
    // are subtracted whatever the sign of the zone.
    EXPECT_EQ(offset_of("XXX0:30"), 1800);
    EXPECT_EQ(offset_of("XXX-0:30"), 1800);
}

TEST_F(Expiry, OutOfRangeOffsetsCountAsUtc) {
    EXPECT_EQ(offset_of("XXX14"), 0);
    EXPECT_EQ(offset_of("XXX-15"), 0);
}

TEST_F(Expiry, OnlyTheStandardPartOfTheZoneCounts) {
    // The daylight rule's numbers behind the first comma are ignored.
    EXPECT_EQ(offset_of("ABC,M3.2.0,M11.1.0"), 0);
    EXPECT_EQ(offset_of("NZST-12NZDT,M9.5.0,M4.1.0/3"), 43200);
    // At most three characters of hours are used: "-123" reads as -12 h.
    EXPECT_EQ(offset_of("XXX-123"), 43200);
}

TEST_F(Expiry, MissingZoneIsUtcAndLogged) {
    mkdir("/root/sas", 0755);
    unlink("/root/sas/sas.log");
    unlink("/etc/TZ");
    EXPECT_EQ(tz_offset_seconds(), 0);
    EXPECT_NE(test::read_file("/root/sas/sas.log").find("TZ No value.\n"), std::string::npos);
    EXPECT_EQ(offset_of("UTC"), 0);  // no digits: no log needed, still UTC
}

TEST_F(Expiry, TransmitExpiryHasThirtySecondsOfGrace) {
    use_zone("CST-8");
    fake_now = kNoon + 30;
    EXPECT_EQ(is_time_expired("2024-05-01T12:00:00Z", 30), 0);
    fake_now = kNoon + 31;
    EXPECT_EQ(is_time_expired("2024-05-01T12:00:00Z", 30), 1);
}

TEST_F(Expiry, GrantRenewalWindowAndGrantExpiry) {
    use_zone("CST-8");
    fake_now = kNoon - 7200;
    EXPECT_EQ(is_time_expired("2024-05-01T12:00:00Z", -7200), 0);
    fake_now = kNoon - 7199;
    EXPECT_EQ(is_time_expired("2024-05-01T12:00:00Z", -7200), 1);
    fake_now = kNoon;
    EXPECT_EQ(is_time_expired("2024-05-01T12:00:00Z", 0), 0);
    fake_now = kNoon + 1;
    EXPECT_EQ(is_time_expired("2024-05-01T12:00:00Z", 0), 1);
}

TEST_F(Expiry, ZonesWestAndWithHalfHoursGiveTheSameInstant) {
    for (const char* zone : {"EST5EDT,M3.2.0,M11.1.0", "XXX-5:30", "UTC0"}) {
        use_zone(zone);
        fake_now = kNoon;
        EXPECT_EQ(is_time_expired("2024-05-01T12:00:00Z", 0), 0) << zone;
        fake_now = kNoon + 1;
        EXPECT_EQ(is_time_expired("2024-05-01T12:00:00Z", 0), 1) << zone;
    }
}

TEST_F(Expiry, EmptyTimeNeverExpires) {
    use_zone("UTC0");
    fake_now = kNoon;
    EXPECT_EQ(is_time_expired("", 0), 0);
    EXPECT_EQ(is_time_expired(nullptr, 30), 0);
}

TEST_F(Expiry, TextBeforeTheEpochNeverExpires) {
    use_zone("UTC0");
    fake_now = kNoon;
    EXPECT_EQ(is_time_expired("1970-01-01T00:00:00Z", 0), 0);
    EXPECT_EQ(is_time_expired("1960-01-01T00:00:00Z", 0), 0);
    EXPECT_EQ(is_time_expired("1970-01-01T00:00:01Z", 0), 1);
}

// The conversion before this one: mktime in the process's zone plus the
// standard offset of /etc/TZ.  On the normal path (both naming the same zone)
// the instant must be unchanged.
time_t previous_conversion(const char* text) {
    struct tm broken_down{};
    broken_down.tm_isdst = 0;
    (void)strptime(text, "%Y-%m-%dT%H:%M:%SZ", &broken_down);
    return mktime(&broken_down) + tz_offset_seconds();
}

TEST_F(Expiry, SameInstantAsThePreviousConversionInEveryZone) {
    const char* zones[] = {"UTC0", "CST-8", "EST5EDT,M3.2.0,M11.1.0", "XXX-5:30",
                           "NZST-12NZDT,M9.5.0,M4.1.0/3", "XXX13"};
    const char* times[] = {"2024-05-01T12:00:00Z", "2024-01-15T03:30:00Z",
                           "2025-07-04T23:59:59Z", "2030-12-31T00:00:00Z"};
    for (const char* zone : zones) {
        use_zone(zone);
        for (const char* text : times) {
            time_t before = previous_conversion(text);
            fake_now = before;
            EXPECT_EQ(is_time_expired(text, 0), 0) << zone << " " << text;
            fake_now = before + 1;
            EXPECT_EQ(is_time_expired(text, 0), 1) << zone << " " << text;
        }
    }
}

TEST_F(Expiry, UnparsableTextIsNoDeadline) {
    use_zone("UTC0");
    fake_now = kNoon;
    EXPECT_EQ(is_time_expired("2024-05-01", 0), 0);
    EXPECT_EQ(is_time_expired("yesterday", 0), 0);
}

TEST_F(Expiry, TimesFrom2038OnCompareIn64Bits) {
    use_zone("CST-8");
    fake_now = kNoon;
    EXPECT_EQ(is_time_expired("2040-06-01T00:00:00Z", 30), 0);
    EXPECT_EQ(is_time_expired("2038-01-19T03:14:08Z", 0), 0);
    if (sizeof(time_t) < 8) return;
    fake_now = static_cast<time_t>(int64_t{2222121600} + 31);
    EXPECT_EQ(is_time_expired("2040-06-01T00:00:00Z", 30), 1);
}

}  // namespace
}  // namespace cbsd::standalone
