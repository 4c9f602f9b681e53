#include "sas/deregistration.h"
#include "sas/relinquishment.h"

#include "body_assertions.h"
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
    ASSERT_EQ(BodyStatus::Stored, build_relinquishment_body("cbsd-1", "grant-1", body, sizeof body));
    ParsedBody parsed(body, "relinquishmentRequest");
    ASSERT_NE(nullptr, parsed.element());
    EXPECT_EQ(2u, json_object_size(parsed.element()));
    EXPECT_EQ("cbsd-1", string_member(parsed.element(), "cbsdId"));
    EXPECT_EQ("grant-1", string_member(parsed.element(), "grantId"));
    EXPECT_NE(std::string::npos, test::log_text().find(std::string("[SAS] ") + body + "\n"));
}

TEST_F(RelinquishmentBodyTest, NullOrEmptyGrantIdIsSentAsEmptyString) {
    for (const char* grantId : {static_cast<const char*>(nullptr), ""}) {
        ASSERT_EQ(BodyStatus::Stored, build_relinquishment_body("cbsd-1", grantId, body, sizeof body));
        ParsedBody parsed(body, "relinquishmentRequest");
        EXPECT_EQ("", string_member(parsed.element(), "grantId"));
    }
}

TEST_F(RelinquishmentBodyTest, IdsLongerThan127AreCut) {
    std::string longId(200, 'c');
    ASSERT_EQ(BodyStatus::Stored, build_relinquishment_body(longId.c_str(), longId.c_str(), body, sizeof body));
    ParsedBody parsed(body, "relinquishmentRequest");
    EXPECT_EQ(std::string(127, 'c'), string_member(parsed.element(), "cbsdId"));
    EXPECT_EQ(std::string(127, 'c'), string_member(parsed.element(), "grantId"));
}

TEST_F(RelinquishmentBodyTest, BodyThatDoesNotFitIsRefusedWhole) {
    char small[40];
    EXPECT_EQ(BodyStatus::TooLong, build_relinquishment_body("cbsd-1", "grant-1", small, sizeof small));
    EXPECT_EQ(std::string(sizeof small, '\0'), std::string(small, sizeof small));
}

TEST_F(RelinquishmentBodyTest, DeregistrationCarriesTheIdCutTo127) {
    std::string longId(130, 'd');
    ASSERT_EQ(BodyStatus::Stored, build_deregistration_body(longId.c_str(), body, sizeof body));
    ParsedBody parsed(body, "deregistrationRequest");
    ASSERT_NE(nullptr, parsed.element());
    EXPECT_EQ(1u, json_object_size(parsed.element()));
    EXPECT_EQ(std::string(127, 'd'), string_member(parsed.element(), "cbsdId"));
    ASSERT_EQ(BodyStatus::Stored, build_deregistration_body(nullptr, body, sizeof body));
    ParsedBody empty(body, "deregistrationRequest");
    EXPECT_EQ("", string_member(empty.element(), "cbsdId"));
}

}  // namespace
}  // namespace cbsd::sas
