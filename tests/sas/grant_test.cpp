#include "sas/grant.h"

#include "body_assertions.h"
#include "exchange_fixture.h"
#include "sas/exchanges.h"
#include <cstring>
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
    void set(char* field, size_t size, const char* text) { base::copy_text(field, size, text); }

    long long sent_max_eirp(const char* category, const char* maxEirp) {
        set(record.cbsdCategory, sizeof record.cbsdCategory, category);
        set(record.maxEirp, sizeof record.maxEirp, maxEirp);
        EXPECT_EQ(BodyStatus::kStored, build());
        ParsedBody parsed(body, "grantRequest");
        return integer_member(parsed.get("operationParam"), "maxEirp");
    }

    std::pair<long long, long long> sent_range(const char* low, const char* high) {
        set(record.lowFrequency, sizeof record.lowFrequency, low);
        set(record.highFrequency, sizeof record.highFrequency, high);
        EXPECT_EQ(BodyStatus::kStored, build());
        ParsedBody parsed(body, "grantRequest");
        json_t* range = json_object_get(parsed.get("operationParam"), "operationFrequencyRange");
        return {integer_member(range, "lowFrequency"), integer_member(range, "highFrequency")};
    }

    config::DeviceRecord record{};
    char body[kRequestBodyCapacity];
};

TEST_F(GrantBodyTest, CarriesIdAndOperationParamWithExactTypes) {
    ASSERT_EQ(BodyStatus::kStored, build());
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
    ASSERT_EQ(BodyStatus::kStored, build());
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
    ASSERT_EQ(BodyStatus::kStored, build());
    ParsedBody parsed(body, "grantRequest");
    EXPECT_EQ(nullptr, parsed.get("measReport"));
}

TEST_F(GrantBodyTest, BodyThatDoesNotFitIsRefusedWhole) {
    char small[300];
    EXPECT_EQ(BodyStatus::kTooLong, build_grant_body("cbsd-9", &record, small, sizeof small));
    EXPECT_EQ(std::string(sizeof small, '\0'), std::string(small, sizeof small));
    EXPECT_NE(std::string::npos, test::log_text().find("bytes, limit 299), not sent\n"));
}

// --- the reply ---

constexpr char kGrantMember[] = "grantResponse";

class GrantReplyTest
    : public test::ReplyParserTest<GrantResponse, kGrantMember, parse_grant_response> {
protected:
    void SetUp() override {
        ReplyParserTest::SetUp();
        reply.heartbeatInterval = 45;
        base::copy_text(reply.responseData, sizeof reply.responseData, "earlier");
    }
};

TEST_F(GrantReplyTest, SuccessCopiesTheGrant) {
    ASSERT_EQ(
        0, parse(R"({"cbsdId":"c","grantId":"g-1","grantExpireTime":"2030-01-01T00:00:00Z",)"
                 R"("heartbeatInterval":120,"channelType":"GAA","response":{"responseCode":0}})"));
    EXPECT_STREQ("c", reply.cbsdId);
    EXPECT_STREQ("g-1", reply.grantId);
    EXPECT_STREQ("2030-01-01T00:00:00Z", reply.grantExpireTime);
    EXPECT_EQ(120, reply.heartbeatInterval);
    EXPECT_STREQ("GAA", reply.channelType);
}

TEST_F(GrantReplyTest, SuccessWithoutHeartbeatIntervalKeepsThePreviousOne) {
    ASSERT_EQ(0, parse(R"({"grantId":"g-2","response":{"responseCode":0}})"));
    EXPECT_EQ(45, reply.heartbeatInterval);
    EXPECT_STREQ("g-2", reply.grantId);
}

TEST_F(GrantReplyTest, LongTextsAreCutToTheirFields) {
    ASSERT_EQ(0, parse(R"({"grantId":")" + std::string(200, 'g') + R"(","grantExpireTime":")" +
                       std::string(100, 't') + R"(","response":{"responseCode":0}})"));
    EXPECT_EQ(std::string(127, 'g'), reply.grantId);
    EXPECT_EQ(std::string(63, 't'), reply.grantExpireTime);
}

TEST_F(GrantReplyTest, ConflictKeepsTheConflictingGrantId) {
    EXPECT_EQ(
        -1,
        parse(
            R"({"grantId":"mine","response":{"responseCode":401,"responseData":["g-old","x"]}})"));
    EXPECT_EQ(401, reply.responseCode);
    EXPECT_STREQ("g-old", reply.responseData);
    EXPECT_STREQ("", reply.grantId);
}

TEST_F(GrantReplyTest, ConflictWithoutUsableResponseDataLeavesTheField) {
    for (const char* data :
         {"", R"(,"responseData":[])", R"(,"responseData":[401])", R"(,"responseData":"g")"}) {
        EXPECT_EQ(-1, parse(std::string(R"({"response":{"responseCode":401)") + data + "}}"))
            << data;
        EXPECT_STREQ("earlier", reply.responseData) << data;
    }
}

TEST_F(GrantReplyTest, ResponseDataIsReadOnlyForAConflict) {
    EXPECT_EQ(-1, parse(R"({"response":{"responseCode":400,"responseData":["g-9"]}})"));
    EXPECT_EQ(400, reply.responseCode);
    EXPECT_STREQ("earlier", reply.responseData);
}

TEST_F(GrantReplyTest, StaleHeartbeatReplyFails) {
    test::write_reply(R"({"heartbeatResponse":[{"response":{"responseCode":0}}]})");
    EXPECT_EQ(-1, parse_grant_response(test::reply_bytes(), &reply));
    EXPECT_EQ(-1, reply.responseCode);
}

class GrantExchangeTest : public test::ExchangeTest {};

TEST_F(GrantExchangeTest, GrantReachesTheSasAndTheGrantIsRead) {
    RegistrationResponse registration{};
    base::copy_text(registration.cbsdId, sizeof registration.cbsdId, "cbsd-5");
    ASSERT_EQ(0, test::posted(grant_request(
                         sas::https_transport(), url.c_str(), &registration, &record)));
    test::ReceivedBodies bodies(received("grant"), "grantRequest");
    ASSERT_EQ(1u, bodies.size());
    json_t* operation = json_object_get(bodies.element(0), "operationParam");
    EXPECT_EQ(20, integer_member(operation, "maxEirp"));
    json_t* range = json_object_get(operation, "operationFrequencyRange");
    EXPECT_EQ(3550000000, integer_member(range, "lowFrequency"));
    EXPECT_EQ(3570000000, integer_member(range, "highFrequency"));

    GrantResponse reply{};
    ASSERT_EQ(0, parse_grant_response(test::reply_bytes(), &reply));
    EXPECT_STREQ("cbsd-5", reply.cbsdId);
    EXPECT_NE('\0', reply.grantId[0]);
    EXPECT_EQ(20u, std::strlen(reply.grantExpireTime));
    EXPECT_EQ(60, reply.heartbeatInterval);
}

TEST_F(GrantExchangeTest, ScriptedConflictYieldsTheConflictingId) {
    ASSERT_TRUE(simulator->push("grant", R"({"responseCode":401,"responseData":["grant-old"]})"));
    RegistrationResponse registration{};
    ASSERT_EQ(0, test::posted(grant_request(
                         sas::https_transport(), url.c_str(), &registration, &record)));
    GrantResponse reply{};
    EXPECT_EQ(-1, parse_grant_response(test::reply_bytes(), &reply));
    EXPECT_EQ(401, reply.responseCode);
    EXPECT_STREQ("grant-old", reply.responseData);
}

}  // namespace
}  // namespace cbsd::sas
