#include "sas/grant.h"

#include "body_assertions.h"
#include "sas/request_body.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <string>

namespace cbsd::sas {
namespace {

using test::integer_member;
using test::ParsedBody;
using test::string_member;

class GrantBodyTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::prepare_log_directory();
        record = test::sample_device_record();
    }
    BodyStatus build() { return build_grant_body("cbsd-9", &record, body, sizeof body); }
    void set(char* field, size_t size, const char* text) { core::copy_text(field, size, text); }

    long long sent_max_eirp(const char* category, const char* maxEirp) {
        set(record.cbsdCategory, sizeof record.cbsdCategory, category);
        set(record.maxEirp, sizeof record.maxEirp, maxEirp);
        EXPECT_EQ(BodyStatus::Stored, build());
        ParsedBody parsed(body, "grantRequest");
        return integer_member(parsed.get("operationParam"), "maxEirp");
    }

    std::pair<long long, long long> sent_range(const char* low, const char* high) {
        set(record.lowFrequency, sizeof record.lowFrequency, low);
        set(record.highFrequency, sizeof record.highFrequency, high);
        EXPECT_EQ(BodyStatus::Stored, build());
        ParsedBody parsed(body, "grantRequest");
        json_t* range = json_object_get(parsed.get("operationParam"), "operationFrequencyRange");
        return {integer_member(range, "lowFrequency"), integer_member(range, "highFrequency")};
    }

    config::DeviceRecord record{};
    char body[kRequestBodyCapacity];
};

TEST_F(GrantBodyTest, CarriesIdAndOperationParamWithExactTypes) {
    ASSERT_EQ(BodyStatus::Stored, build());
    ParsedBody parsed(body, "grantRequest");
    ASSERT_NE(nullptr, parsed.element());
    EXPECT_EQ(3u, json_object_size(parsed.element()));
    EXPECT_EQ("cbsd-9", string_member(parsed.element(), "cbsdId"));
    json_t* operation = parsed.get("operationParam");
    ASSERT_TRUE(json_is_object(operation));
    EXPECT_EQ(2u, json_object_size(operation));
    EXPECT_EQ(20, integer_member(operation, "maxEirp"));
    json_t* range = json_object_get(operation, "operationFrequencyRange");
    ASSERT_TRUE(json_is_object(range));
    EXPECT_EQ(2u, json_object_size(range));
}

TEST_F(GrantBodyTest, MaxEirpIsCappedByCategory) {
    EXPECT_EQ(20, sent_max_eirp("A", "30"));
    EXPECT_EQ(20, sent_max_eirp("A", "21"));
    EXPECT_EQ(20, sent_max_eirp("A", "20"));
    EXPECT_EQ(19, sent_max_eirp("A", "19"));
    EXPECT_EQ(37, sent_max_eirp("B", "40"));
    EXPECT_EQ(30, sent_max_eirp("B", "30"));
    EXPECT_EQ(30, sent_max_eirp("a", "30"));
    EXPECT_EQ(47, sent_max_eirp("C", "47"));
    EXPECT_EQ(-5, sent_max_eirp("A", "-5"));
    EXPECT_EQ(0, sent_max_eirp("B", ""));
}

TEST_F(GrantBodyTest, RangeIsWidenedToWholeFiveMegahertzSteps) {
    EXPECT_EQ(std::make_pair(3550000000LL, 3570000000LL), sent_range("3552.5", "3567.5"));
    EXPECT_EQ(std::make_pair(3550000000LL, 3570000000LL), sent_range("3550.0", "3570.0"));
    EXPECT_EQ(std::make_pair(3550000000LL, 3570000000LL), sent_range("3551", "3569"));
    EXPECT_EQ(std::make_pair(0LL, 0LL), sent_range("", ""));
}

TEST_F(GrantBodyTest, WithoutGrantCapabilitySendsFifteenDistinctEntries) {
    ASSERT_EQ(BodyStatus::Stored, build());
    ParsedBody parsed(body, "grantRequest");
    json_t* entries = json_object_get(parsed.get("measReport"), "rcvdPowerMeasReports");
    ASSERT_TRUE(json_is_array(entries));
    ASSERT_EQ(15u, json_array_size(entries));
    for (long long i = 0; i < 15; ++i) {
        json_t* entry = json_array_get(entries, static_cast<size_t>(i));
        EXPECT_EQ(3u, json_object_size(entry));
        EXPECT_EQ(3550000000 + i * 10000000, integer_member(entry, "measFrequency"));
        EXPECT_EQ(10000000, integer_member(entry, "measBandwidth"));
        EXPECT_EQ(-90 + i, integer_member(entry, "measRcvdPower"));
    }
}

TEST_F(GrantBodyTest, WithGrantCapabilitySendsNoReport) {
    set(record.measCapability, sizeof record.measCapability, "RECEIVED_POWER_WITH_GRANT");
    ASSERT_EQ(BodyStatus::Stored, build());
    ParsedBody parsed(body, "grantRequest");
    EXPECT_EQ(nullptr, parsed.get("measReport"));
}

TEST_F(GrantBodyTest, BodyThatDoesNotFitIsRefusedWhole) {
    char small[300];
    EXPECT_EQ(BodyStatus::TooLong, build_grant_body("cbsd-9", &record, small, sizeof small));
    EXPECT_EQ(std::string(sizeof small, '\0'), std::string(small, sizeof small));
    EXPECT_NE(std::string::npos, test::log_text().find("bytes, limit 299), not sent\n"));
}

}  // namespace
}  // namespace cbsd::sas
