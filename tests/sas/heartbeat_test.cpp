#include "sas/heartbeat.h"

#include "body_assertions.h"
#include "exchange_fixture.h"
#include "sas/exchanges.h"
#include <cstring>
#include "config/uci_store.h"
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
        base::copy_text(grant.cbsdId, sizeof grant.cbsdId, "cbsd-3");
        base::copy_text(grant.grantId, sizeof grant.grantId, "grant-5");
    }
    BodyStatus build(bool renew, const char* state = "GRANTED") {
        return build_heartbeat_body(&grant, &record, state, renew, body, sizeof body);
    }
    config::DeviceRecord record{};
    GrantResponse grant{};
    char body[kRequestBodyCapacity];
};

TEST_F(HeartbeatBodyTest, CarriesIdsStateAndRenewalWithExactTypes) {
    ASSERT_EQ(BodyStatus::kStored, build(false, "AUTHORIZED"));
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
    ASSERT_EQ(BodyStatus::kStored, build(true));
    ParsedBody parsed(body, "heartbeatRequest");
    EXPECT_TRUE(json_is_true(parsed.get("grantRenew")));
}

TEST_F(HeartbeatBodyTest, WithoutGrantCapabilitySendsNoReport) {
    ASSERT_EQ(BodyStatus::kStored, build(false));
    ParsedBody parsed(body, "heartbeatRequest");
    EXPECT_EQ(nullptr, parsed.get("measReport"));
}

TEST_F(HeartbeatBodyTest, WithGrantCapabilitySendsFifteenDistinctEntries) {
    base::copy_text(record.measCapability, sizeof record.measCapability,
                    "RECEIVED_POWER_WITH_GRANT");
    ASSERT_EQ(BodyStatus::kStored, build(false));
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
    base::copy_text(record.measCapability, sizeof record.measCapability,
                    "RECEIVED_POWER_WITH_GRANT");
    char small[1024];
    EXPECT_EQ(BodyStatus::kTooLong,
              build_heartbeat_body(&grant, &record, "GRANTED", false, small, sizeof small));
    EXPECT_EQ(std::string(sizeof small, '\0'), std::string(small, sizeof small));
}

TEST(GrantRenewFlag, NonZeroIntegerTextRequestsRenewal) {
    test::prepare_log_directory();
    struct Case {
        const char* option;
        bool renew;
    } cases[] = {{"\toption GrantRenew '1'\n", true},
                 {"\toption GrantRenew '7'\n", true},
                 {"\toption GrantRenew '0'\n", false},
                 {"\toption GrantRenew ''\n", false},
                 {"", false}};
    for (const Case& c : cases) {
        ASSERT_TRUE(test::write_file("/etc/config/sas",
                                     std::string("config operation 'operation'\n") + c.option));
        EXPECT_EQ(c.renew, is_grant_renew_requested()) << c.option;
    }
    std::remove("/etc/config/sas");
    EXPECT_FALSE(is_grant_renew_requested());
}

// --- the reply ---

constexpr char kHeartbeatMember[] = "heartbeatResponse";

class HeartbeatReplyTest
    : public test::ReplyParserTest<HeartbeatResponse, kHeartbeatMember, parse_heartbeat_response> {
protected:
    void SetUp() override {
        ReplyParserTest::SetUp();
        reply.heartbeatInterval = 90;
        base::copy_text(reply.grantExpireTime, sizeof reply.grantExpireTime,
                        "2029-01-01T00:00:00Z");
    }
};

TEST_F(HeartbeatReplyTest, SuccessCopiesTimesAndInterval) {
    ASSERT_EQ(
        0,
        parse(
            R"({"cbsdId":"c","grantId":"g","transmitExpireTime":"2030-01-01T00:04:00Z",)"
            R"("grantExpireTime":"2030-02-01T00:00:00Z","heartbeatInterval":30,"response":{"responseCode":0}})"));
    EXPECT_STREQ("c", reply.cbsdId);
    EXPECT_STREQ("g", reply.grantId);
    EXPECT_STREQ("2030-01-01T00:04:00Z", reply.transmitExpireTime);
    EXPECT_STREQ("2030-02-01T00:00:00Z", reply.grantExpireTime);
    EXPECT_EQ(30, reply.heartbeatInterval);
}

TEST_F(HeartbeatReplyTest, SuccessWithoutGrantExpireTimeOrIntervalKeepsThem) {
    ASSERT_EQ(
        0, parse(R"({"transmitExpireTime":"2030-01-01T00:04:00Z","response":{"responseCode":0}})"));
    EXPECT_STREQ("2029-01-01T00:00:00Z", reply.grantExpireTime);
    EXPECT_EQ(90, reply.heartbeatInterval);
}

TEST_F(HeartbeatReplyTest, TimeOfWrongTypeIsIgnored) {
    ASSERT_EQ(0, parse(R"({"transmitExpireTime":"2030-01-01T00:04:00Z","grantExpireTime":20300101,)"
                       R"("response":{"responseCode":0}})"));
    EXPECT_STREQ("2029-01-01T00:00:00Z", reply.grantExpireTime);
}

// A success authorises only up to a deadline it names.
TEST_F(HeartbeatReplyTest, SuccessWithoutAReadableTransmitExpireTimeIsAFailure) {
    for (const char* time : {"", R"("transmitExpireTime":"soon",)",
                             R"("transmitExpireTime":20300101,)",
                             R"("transmitExpireTime":"2030-01-01T00:04:00",)"}) {
        reply = HeartbeatResponse{};
        std::string text = std::string("{") + time + R"("response":{"responseCode":0}})";
        EXPECT_EQ(-1, parse(text.c_str())) << text;
        EXPECT_EQ(-1, reply.responseCode) << text;
    }
    EXPECT_NE(test::log_text().find("[SAS] heartbeat success without a valid transmitExpireTime[soon]\n"),
              std::string::npos);
}

TEST_F(HeartbeatReplyTest, RefusalKeepsTheCode) {
    for (int code : {500, 501, 502, 105}) {
        EXPECT_EQ(-1, parse(R"({"transmitExpireTime":"x","response":{"responseCode":)" +
                            std::to_string(code) + "}}"));
        EXPECT_EQ(code, reply.responseCode);
        EXPECT_STREQ("", reply.transmitExpireTime);
    }
}

class HeartbeatExchangeTest : public test::ExchangeTest {};

TEST_F(HeartbeatExchangeTest, HeartbeatCarriesTheRenewalFlagFromTheConfiguration) {
    test::write_sas_config("config operation 'operation'\n\toption GrantRenew '1'\n\n");
    GrantResponse grant{};
    base::copy_text(grant.cbsdId, sizeof grant.cbsdId, "cbsd-8");
    base::copy_text(grant.grantId, sizeof grant.grantId, "grant-8");
    ASSERT_EQ(0, test::posted(heartbeat_request(
                         sas::https_transport(), url.c_str(), &grant, &record, "GRANTED")));
    config::config_set("/etc/config/sas", "operation", "GrantRenew", "0");
    ASSERT_EQ(0, test::posted(heartbeat_request(
                         sas::https_transport(), url.c_str(), &grant, &record, "AUTHORIZED")));

    test::ReceivedBodies bodies(received("heartbeat"), "heartbeatRequest");
    ASSERT_EQ(2u, bodies.size());
    EXPECT_TRUE(json_is_true(json_object_get(bodies.element(0), "grantRenew")));
    EXPECT_EQ("GRANTED", string_member(bodies.element(0), "operationState"));
    EXPECT_TRUE(json_is_false(json_object_get(bodies.element(1), "grantRenew")));
    EXPECT_EQ("AUTHORIZED", string_member(bodies.element(1), "operationState"));
    EXPECT_EQ("grant-8", string_member(bodies.element(1), "grantId"));

    HeartbeatResponse reply{};
    ASSERT_EQ(0, parse_heartbeat_response(test::reply_bytes(), &reply));
    EXPECT_STREQ("grant-8", reply.grantId);
    EXPECT_EQ(20u, std::strlen(reply.transmitExpireTime));
}

}  // namespace
}  // namespace cbsd::sas
