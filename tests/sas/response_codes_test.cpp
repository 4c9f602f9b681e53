#include "sas/response_codes.h"

#include <gtest/gtest.h>

#include <climits>
#include <string>

namespace cbsd::sas {
namespace {

TEST(ResponseCodeName, EveryKnownCodeHasItsName) {
    const std::pair<int32_t, std::string> table[] = {
        {0, "SUCCESS"},          {100, "VERSION"},         {101, "BLACKLISTED"},
        {102, "MISSING_PARAM"},  {103, "INVALID_VALUE"},   {104, "CERT_ERROR"},
        {105, "DEREGISTER"},     {200, "REG_PENDING"},     {201, "GROUP_ERROR"},
        {300, "UNSUPPORTED_SPECTRUM"}, {400, "INTERFERENCE"}, {401, "GRANT_CONFLICT"},
        {500, "TERMINATED_GRANT"}, {501, "SUSPENDED_GRANT"}, {502, "UNSYNC_OP_PARAM"},
    };
    for (const auto& [code, name] : table) EXPECT_EQ(responseCode_name(code), name) << code;
}

TEST(ResponseCodeName, CodesBetweenTheKnownOnesAreUnknown) {
    EXPECT_STREQ(responseCode_name(106), "UNKNOWN");
    EXPECT_STREQ(responseCode_name(199), "UNKNOWN");
    EXPECT_STREQ(responseCode_name(1), "UNKNOWN");
    EXPECT_STREQ(responseCode_name(503), "UNKNOWN");
}

TEST(ResponseCodeName, NegativeAndExtremeCodesAreUnknown) {
    EXPECT_STREQ(responseCode_name(-1), "UNKNOWN");
    EXPECT_STREQ(responseCode_name(INT32_MIN), "UNKNOWN");
    EXPECT_STREQ(responseCode_name(INT32_MAX), "UNKNOWN");
}

}  // namespace
}  // namespace cbsd::sas
