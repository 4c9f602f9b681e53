#include "sas/heartbeat.h"

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

class HeartbeatBodyTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::prepare_log_directory();
        record = test::sample_device_record();
        core::copy_text(grant.cbsdId, sizeof grant.cbsdId, "cbsd-3");
        core::copy_text(grant.grantId, sizeof grant.grantId, "grant-5");
    }
    BodyStatus build(bool renew, const char* state = "GRANTED") {
        return build_heartbeat_body(&grant, &record, state, renew, body, sizeof body);
    }
    config::DeviceRecord record{};
    GrantResponse grant{};
    char body[kRequestBodyCapacity];
};

TEST_F(HeartbeatBodyTest, CarriesIdsStateAndRenewalWithExactTypes) {
    ASSERT_EQ(BodyStatus::Stored, build(false, "AUTHORIZED"));
    ParsedBody parsed(body, "heartbeatRequest");
    ASSERT_NE(nullptr, parsed.element());
    EXPECT_EQ(4u, json_object_size(parsed.element()));
    EXPECT_EQ("cbsd-3", string_member(parsed.element(), "cbsdId"));
    EXPECT_EQ("grant-5", string_member(parsed.element(), "grantId"));
    EXPECT_EQ("AUTHORIZED", string_member(parsed.element(), "operationState"));
    json_t* renew = parsed.get("grantRenew");
    ASSERT_TRUE(json_is_boolean(renew));
    EXPECT_TRUE(json_is_false(renew));
}

TEST_F(HeartbeatBodyTest, RenewalRequestedSendsTrue) {
    ASSERT_EQ(BodyStatus::Stored, build(true));
    ParsedBody parsed(body, "heartbeatRequest");
    EXPECT_TRUE(json_is_true(parsed.get("grantRenew")));
}

TEST_F(HeartbeatBodyTest, WithoutGrantCapabilitySendsNoReport) {
    ASSERT_EQ(BodyStatus::Stored, build(false));
    ParsedBody parsed(body, "heartbeatRequest");
    EXPECT_EQ(nullptr, parsed.get("measReport"));
}

TEST_F(HeartbeatBodyTest, WithGrantCapabilitySendsFifteenDistinctEntries) {
    core::copy_text(record.measCapability, sizeof record.measCapability, "RECEIVED_POWER_WITH_GRANT");
    ASSERT_EQ(BodyStatus::Stored, build(false));
    ParsedBody parsed(body, "heartbeatRequest");
    json_t* entries = json_object_get(parsed.get("measReport"), "rcvdPowerMeasReports");
    ASSERT_TRUE(json_is_array(entries));
    ASSERT_EQ(15u, json_array_size(entries));
    for (long long i = 0; i < 15; ++i) {
        json_t* entry = json_array_get(entries, static_cast<size_t>(i));
        EXPECT_EQ(3550000000 + i * 10000000, integer_member(entry, "measFrequency"));
        EXPECT_EQ(10000000, integer_member(entry, "measBandwidth"));
        EXPECT_EQ(-90 + i, integer_member(entry, "measRcvdPower"));
    }
}

TEST_F(HeartbeatBodyTest, BodyThatDoesNotFitIsRefusedWhole) {
    core::copy_text(record.measCapability, sizeof record.measCapability, "RECEIVED_POWER_WITH_GRANT");
    char small[1024];
    EXPECT_EQ(BodyStatus::TooLong, build_heartbeat_body(&grant, &record, "GRANTED", false, small, sizeof small));
    EXPECT_EQ(std::string(sizeof small, '\0'), std::string(small, sizeof small));
}

}  // namespace
}  // namespace cbsd::sas
