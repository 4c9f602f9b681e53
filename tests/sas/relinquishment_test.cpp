#include "sas/deregistration.h"
#include "sas/relinquishment.h"

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

using test::ParsedBody;
using test::string_member;

class RelinquishmentBodyTest : public ::testing::Test {
protected:
    void SetUp() override { test::prepare_log_directory(); }
    char body[kShortRequestBodyCapacity];
};

TEST_F(RelinquishmentBodyTest, CarriesBothIdsAsStrings) {
    ASSERT_EQ(BodyStatus::kStored,
              build_relinquishment_body("cbsd-1", "grant-1", body, sizeof body));
    ParsedBody parsed(body, "relinquishmentRequest");
    ASSERT_NE(nullptr, parsed.element());
    EXPECT_EQ(2u, json_object_size(parsed.element()));
    EXPECT_EQ("cbsd-1", string_member(parsed.element(), "cbsdId"));
    EXPECT_EQ("grant-1", string_member(parsed.element(), "grantId"));
    EXPECT_NE(std::string::npos, test::log_text().find(std::string("[SAS] ") + body + "\n"));
}

TEST_F(RelinquishmentBodyTest, NullOrEmptyGrantIdIsSentAsEmptyString) {
    for (const char* grantId : {static_cast<const char*>(nullptr), ""}) {
        ASSERT_EQ(BodyStatus::kStored,
                  build_relinquishment_body("cbsd-1", grantId, body, sizeof body));
        ParsedBody parsed(body, "relinquishmentRequest");
        EXPECT_EQ("", string_member(parsed.element(), "grantId"));
    }
}

TEST_F(RelinquishmentBodyTest, IdsLongerThan127AreCut) {
    std::string longId(200, 'c');
    ASSERT_EQ(BodyStatus::kStored,
              build_relinquishment_body(longId.c_str(), longId.c_str(), body, sizeof body));
    ParsedBody parsed(body, "relinquishmentRequest");
    EXPECT_EQ(std::string(127, 'c'), string_member(parsed.element(), "cbsdId"));
    EXPECT_EQ(std::string(127, 'c'), string_member(parsed.element(), "grantId"));
}

TEST_F(RelinquishmentBodyTest, BodyThatDoesNotFitIsRefusedWhole) {
    char small[40];
    EXPECT_EQ(BodyStatus::kTooLong,
              build_relinquishment_body("cbsd-1", "grant-1", small, sizeof small));
    EXPECT_EQ(std::string(sizeof small, '\0'), std::string(small, sizeof small));
}

TEST_F(RelinquishmentBodyTest, DeregistrationCarriesTheIdCutTo127) {
    std::string longId(130, 'd');
    ASSERT_EQ(BodyStatus::kStored, build_deregistration_body(longId.c_str(), body, sizeof body));
    ParsedBody parsed(body, "deregistrationRequest");
    ASSERT_NE(nullptr, parsed.element());
    EXPECT_EQ(1u, json_object_size(parsed.element()));
    EXPECT_EQ(std::string(127, 'd'), string_member(parsed.element(), "cbsdId"));
    ASSERT_EQ(BodyStatus::kStored, build_deregistration_body(nullptr, body, sizeof body));
    ParsedBody empty(body, "deregistrationRequest");
    EXPECT_EQ("", string_member(empty.element(), "cbsdId"));
}

// --- the replies ---

TEST(RelinquishmentReply, UnreadableReplyLeavesTheCallersCode) {
    test::prepare_log_directory();
    RelinquishmentResponse relinquished{};
    EXPECT_EQ(-1, parse_relinquishment_response(test::reply_bytes(), &relinquished));
    EXPECT_EQ(0, relinquished.responseCode);
    DeregistrationResponse deregistered{};
    EXPECT_EQ(-1, parse_deregistration_response(test::reply_bytes(), &deregistered));
    EXPECT_EQ(-1, deregistered.responseCode);
}

TEST(RelinquishmentReply, SuccessCopiesTheIds) {
    test::prepare_log_directory();
    test::write_reply(
        R"({"relinquishmentResponse":[{"cbsdId":"c","grantId":"g","response":{"responseCode":0}}]})");
    RelinquishmentResponse relinquished{};
    EXPECT_EQ(0, parse_relinquishment_response(test::reply_bytes(), &relinquished));
    EXPECT_STREQ("c", relinquished.cbsdId);
    EXPECT_STREQ("g", relinquished.grantId);
    test::write_reply(
        R"({"deregistrationResponse":[{"cbsdId":"d","response":{"responseCode":0}}]})");
    DeregistrationResponse deregistered{};
    EXPECT_EQ(0, parse_deregistration_response(test::reply_bytes(), &deregistered));
    EXPECT_STREQ("d", deregistered.cbsdId);
}

class RelinquishmentExchangeTest : public test::ExchangeTest {};

TEST_F(RelinquishmentExchangeTest, SuccessfulDriversLogTheirOutcome) {
    RelinquishmentResponse relinquished{};
    relinquishment_request(sas::https_transport(), url.c_str(), "cbsd-1", "grant-1", &relinquished);
    DeregistrationResponse deregistered{};
    deregistration_request(sas::https_transport(), url.c_str(), "cbsd-1", &deregistered);
    std::string log = test::log_text();
    EXPECT_NE(std::string::npos, log.find("[SAS] send relinquishment_request...\n"));
    EXPECT_NE(std::string::npos, log.find("[SAS] URL = " + url + "/relinquishment\n"));
    EXPECT_NE(std::string::npos, log.find("[SAS] Relinquish successfully\n"));
    EXPECT_NE(std::string::npos, log.find("[SAS] send deregistration_request...\n"));
    EXPECT_NE(std::string::npos, log.find("[SAS] Deregister successfully\n"));
    EXPECT_STREQ("grant-1", relinquished.grantId);
    EXPECT_STREQ("cbsd-1", deregistered.cbsdId);

    test::ReceivedBodies relinquishments(received("relinquishment"), "relinquishmentRequest");
    ASSERT_EQ(1u, relinquishments.size());
    EXPECT_EQ("grant-1", string_member(relinquishments.element(0), "grantId"));
    test::ReceivedBodies deregistrations(received("deregistration"), "deregistrationRequest");
    ASSERT_EQ(1u, deregistrations.size());
    EXPECT_EQ("cbsd-1", string_member(deregistrations.element(0), "cbsdId"));
}

TEST_F(RelinquishmentExchangeTest, RefusalsAreLoggedWithTheCodeName) {
    ASSERT_TRUE(simulator->push("relinquishment", R"({"responseCode":103})"));
    ASSERT_TRUE(simulator->push("deregistration", R"({"responseCode":105})"));
    RelinquishmentResponse relinquished{};
    relinquishment_request(sas::https_transport(), url.c_str(), "cbsd-1", "grant-1", &relinquished);
    DeregistrationResponse deregistered{};
    deregistration_request(sas::https_transport(), url.c_str(), "cbsd-1", &deregistered);
    std::string log = test::log_text();
    EXPECT_NE(std::string::npos,
              log.find("[SAS] Relinquish unsuccessfully, responseCode:103(INVALID_VALUE)\n"));
    EXPECT_NE(std::string::npos,
              log.find("[SAS] Deregister unsuccessfully, responseCode:105(DEREGISTER)\n"));
}

// A reply without "Response" leaves the grant's reply in the dump file, and no
// parser takes it: the error pages have no bytes to parse.
TEST_F(RelinquishmentExchangeTest, StaleGrantReplyCountsAsRelinquishedButNotAsDeregistered) {
    RegistrationResponse registration{};
    ASSERT_EQ(0, test::posted(grant_request(
                         sas::https_transport(), url.c_str(), &registration, &record)));
    ASSERT_TRUE(simulator->push("relinquishment", R"({"html_error":true})"));
    ASSERT_TRUE(simulator->push("deregistration", R"({"html_error":true})"));
    RelinquishmentResponse relinquished{};
    relinquishment_request(sas::https_transport(), url.c_str(), "cbsd-1", "grant-1", &relinquished);
    DeregistrationResponse deregistered{};
    deregistration_request(sas::https_transport(), url.c_str(), "cbsd-1", &deregistered);
    std::string log = test::log_text();
    EXPECT_NE(std::string::npos, log.find("[SAS] Relinquish successfully\n"));
    EXPECT_NE(std::string::npos,
              log.find("[SAS] Deregister unsuccessfully, responseCode:-1(UNKNOWN)\n"));
    EXPECT_EQ(0, relinquished.responseCode);
    EXPECT_EQ(-1, deregistered.responseCode);
}

TEST_F(RelinquishmentExchangeTest, TransportFailureIsLoggedAndNothingParsed) {
    RelinquishmentResponse relinquished{};
    relinquished.responseCode = 77;
    relinquishment_request(sas::https_transport(), "https://127.0.0.1:1/v1.2",
                           "cbsd-1", "grant-1", &relinquished);
    DeregistrationResponse deregistered{};
    deregistered.responseCode = 77;
    deregistration_request(sas::https_transport(), "https://127.0.0.1:1/v1.2",
                           "cbsd-1", &deregistered);
    std::string log = test::log_text();
    EXPECT_NE(std::string::npos, log.find("[SAS] post relinquishment_request failed\n"));
    EXPECT_NE(std::string::npos, log.find("[SAS] post deregistration_request failed\n"));
    EXPECT_EQ(77, relinquished.responseCode);
    EXPECT_EQ(77, deregistered.responseCode);
}

TEST_F(RelinquishmentExchangeTest, NullGrantIdIsSentEmpty) {
    RelinquishmentResponse relinquished{};
    relinquishment_request(sas::https_transport(), url.c_str(), "cbsd-1", nullptr, &relinquished);
    test::ReceivedBodies bodies(received("relinquishment"), "relinquishmentRequest");
    ASSERT_EQ(1u, bodies.size());
    EXPECT_EQ("", string_member(bodies.element(0), "grantId"));
}

}  // namespace
}  // namespace cbsd::sas
