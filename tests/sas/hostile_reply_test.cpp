// Replies from the network are untrusted: whatever they hold, the parsers
// neither crash nor hand any of it to a shell.  A stand-in `logger` records
// the system-log copies so the hostile texts can be seen arriving there as
// plain arguments.
#include "base/log.h"
#include "sas/exchanges.h"

#include "body_assertions.h"
#include "every_parser.h"
#include "exchange_fixture.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>

namespace cbsd::sas {
namespace {

constexpr const char* kCanary = "/tmp/canary";
constexpr const char* kLoggerArgs = "/tmp/logger.args";

// Quote, semicolon, command substitution and backticks, as JSON string content.
const std::string kHostileText =
    R"($(touch /tmp/canary)\"; touch /tmp/canary; \"`touch /tmp/canary`'; touch /tmp/canary #)";

void install_recording_logger() {
    mkdir("/tmp/bin", 0755);
    ASSERT_TRUE(test::write_file(
        "/tmp/bin/logger",
        "#!/bin/sh\nfor a in \"$@\"; do printf '%s\\n' \"$a\"; done >> /tmp/logger.args\n"));
    chmod("/tmp/bin/logger", 0755);
    std::string path =
        std::string("/tmp/bin:") + (std::getenv("PATH") ? std::getenv("PATH") : "/usr/bin:/bin");
    setenv("PATH", path.c_str(), 1);
}

// Every parser over the reply under test; none may crash.
void parse_with_all_parsers() { parse_with_every_parser(test::reply_bytes()); }

std::string every_member_reply(const std::string& member, const std::string& value) {
    return "{\"" + member + "\":[{\"cbsdId\":" + value + ",\"grantId\":" + value +
           ",\"grantExpireTime\":" + value + ",\"transmitExpireTime\":" + value +
           ",\"channelType\":" + value + ",\"heartbeatInterval\":" + value +
           ",\"availableChannel\":[{\"frequencyRange\":{\"lowFrequency\":" + value +
           ",\"highFrequency\":" + value + "},\"channelType\":" + value +
           ",\"ruleApplied\":" + value + ",\"maxEirp\":" + value +
           "}],\"response\":{\"responseCode\":0,\"responseData\":[" + value + "]}}]}";
}

const char* const kMembers[] = {"registrationResponse",   "spectrumInquiryResponse",
                                "grantResponse",          "heartbeatResponse",
                                "relinquishmentResponse", "deregistrationResponse"};

class HostileReplyTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::prepare_log_directory();
        install_recording_logger();
        std::remove(kCanary);
    }
    void TearDown() override {
        EXPECT_FALSE(test::file_exists(kCanary)) << "a reply reached a shell";
    }
};

TEST_F(HostileReplyTest, ShellMetacharactersStayData) {
    test::write_reply(every_member_reply("grantResponse", "\"" + kHostileText + "\""));
    GrantResponse grant{};
    ASSERT_EQ(0, parse_grant_response(test::reply_bytes(), &grant));
    const std::string plain =
        "$(touch /tmp/canary)\"; touch /tmp/canary; \"`touch /tmp/canary`'; touch /tmp/canary #";
    EXPECT_EQ(plain.substr(0, 63), grant.grantExpireTime);
    EXPECT_EQ(plain, grant.grantId);

    // The worker reports an expired grant time to the system log this way.
    base::log(5, 1, "[SAS] grantExpireTime[%s] is expired.\n", grant.grantExpireTime);
    base::log(5, 1, "[SAS] grant %s\n", grant.grantId);
    for (const char* member : kMembers) {
        test::write_reply(every_member_reply(member, "\"" + kHostileText + "\""));
        parse_with_all_parsers();
    }
    std::string recorded = test::read_file(kLoggerArgs);
    EXPECT_NE(std::string::npos, recorded.find("[SAS] grant " + plain));
    EXPECT_NE(std::string::npos, test::log_text().find("touch /tmp/canary"));
}

TEST_F(HostileReplyTest, HugeStringsAreCutToTheirFields) {
    std::string huge = "\"" + std::string(100 * 1024, 'A') + "\"";
    for (const char* member : kMembers) {
        test::write_reply(every_member_reply(member, huge));
        parse_with_all_parsers();
    }
    test::write_reply(every_member_reply("heartbeatResponse", huge));
    HeartbeatResponse heartbeat{};
    // The cut deadline is no time, so the success authorises nothing.
    ASSERT_EQ(-1, parse_heartbeat_response(test::reply_bytes(), &heartbeat));
    EXPECT_EQ(std::string(127, 'A'), heartbeat.cbsdId);
    EXPECT_EQ(std::string(63, 'A'), heartbeat.transmitExpireTime);
}

TEST_F(HostileReplyTest, WrongJsonTypesAreIgnoredOrReadAsZero) {
    for (const char* value :
         {"null", "true", "[1,2]", "{\"a\":1}", "-1e308", "9223372036854775807", "1.5"}) {
        for (const char* member : kMembers) {
            test::write_reply(every_member_reply(member, value));
            parse_with_all_parsers();
        }
        test::write_reply(every_member_reply("grantResponse", value));
        GrantResponse grant{};
        ASSERT_EQ(0, parse_grant_response(test::reply_bytes(), &grant)) << value;
        EXPECT_STREQ("", grant.grantId) << value;
    }
    const char* shapes[] = {
        R"({"grantResponse":{"response":{"responseCode":0}}})",
        R"({"grantResponse":[]})",
        R"({"grantResponse":[7]})",
        R"({"grantResponse":[{"response":"0"}]})",
        R"({"grantResponse":[{"response":{"responseCode":"401","responseData":"g"}}]})",
        R"({"grantResponse":[{"response":{"responseCode":4294967697}}]})",
        R"({"grantResponse":[{"response":{"responseCode":401,"responseData":{"0":"g"}}}]})",
        R"("just a string")",
        ""};
    for (const char* shape : shapes) {
        test::write_reply(shape);
        parse_with_all_parsers();
    }
}

TEST_F(HostileReplyTest, DeepNestingAndInvalidUtf8AreRefused) {
    std::string deep = R"({"grantResponse":[{"response":{"responseCode":0},"cbsdId":)" +
                       std::string(100000, '[') + std::string(100000, ']') + "}]}";
    test::write_reply(deep);
    GrantResponse grant{};
    EXPECT_EQ(-1, parse_grant_response(test::reply_bytes(), &grant));
    EXPECT_EQ(-1, grant.responseCode);
    parse_with_all_parsers();

    test::write_reply(
        "{\"grantResponse\":[{\"grantId\":\"\xff\xfe\xc0\xaf\",\"response\":{\"responseCode\":0}}]"
        "}");
    EXPECT_EQ(-1, parse_grant_response(test::reply_bytes(), &grant));
    EXPECT_EQ(-1, grant.responseCode);
    test::write_reply(std::string(
        "{\"grantResponse\":[{\"grantId\":\"a\0b\",\"response\":{\"responseCode\":0}}]}", 62));
    parse_with_all_parsers();
}

class HostileExchangeTest : public test::ExchangeTest {
protected:
    void SetUp() override {
        test::ExchangeTest::SetUp();
        install_recording_logger();
        std::remove(kCanary);
    }
    void TearDown() override {
        EXPECT_FALSE(test::file_exists(kCanary)) << "a reply reached a shell";
    }
};

// A hostile conflicting grant id goes back out, as data, in the relinquishment.
TEST_F(HostileExchangeTest, HostileConflictIdTravelsOnlyAsJson) {
    ASSERT_TRUE(simulator->push(
        "grant", R"({"responseCode":401,"responseData":[")" + kHostileText + R"("]})"));
    ASSERT_TRUE(simulator->push(
        "relinquishment", R"({"responseCode":103,"set":{"cbsdId":")" + kHostileText + R"("}})"));
    RegistrationResponse registration{};
    ASSERT_EQ(0, test::posted(grant_request(
                         sas::https_transport(), url.c_str(), &registration, &record)));
    GrantResponse grant{};
    ASSERT_EQ(-1, parse_grant_response(test::reply_bytes(), &grant));
    RelinquishmentResponse relinquished{};
    relinquishment_request(sas::https_transport(), url.c_str(),
                           "cbsd-1", grant.responseData, &relinquished);

    test::ReceivedBodies bodies(received("relinquishment"), "relinquishmentRequest");
    ASSERT_EQ(1u, bodies.size());
    EXPECT_EQ(grant.responseData, test::string_member(bodies.element(0), "grantId"));
    EXPECT_NE(std::string::npos,
              test::read_file(kLoggerArgs)
                  .find("[SAS] Relinquish unsuccessfully, responseCode:103(INVALID_VALUE)"));
}

}  // namespace
}  // namespace cbsd::sas
