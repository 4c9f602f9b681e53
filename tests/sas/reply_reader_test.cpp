// The reading every reply parser shares, on reply bytes in memory.
#include "sas/reply_reader.h"

#include "support/test_util.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace cbsd::sas {
namespace {

using test::read_file;

class ReplyReaderTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directories("/root/sas");
        std::filesystem::remove("/root/sas/sas.log");
    }
    static ReplyReadResult read(const std::string& bytes, const char* member, SasReply* reply,
                                int32_t* code) {
        return read_sas_reply(bytes, member, reply, code);
    }
    static std::string log_text() { return read_file("/root/sas/sas.log"); }
};

TEST_F(ReplyReaderTest, ReadsCodeAndFirstElement) {
    SasReply reply;
    int32_t code = -1;
    ASSERT_EQ(read(R"({"grantResponse": [{"grantId": "g1", "response": {"responseCode": 401}}]})",
                   "grantResponse", &reply, &code),
              ReplyReadResult::kRead);
    EXPECT_EQ(code, 401);
    char grantId[128] = "";
    EXPECT_EQ(copy_reply_text(reply.element, "grantId", grantId, sizeof grantId), 1);
    EXPECT_STREQ(grantId, "g1");
}

TEST_F(ReplyReaderTest, SecondElementIsIgnored) {
    SasReply reply;
    int32_t code = -1;
    ASSERT_EQ(read(R"({"heartbeatResponse": [
                        {"grantId": "first", "response": {"responseCode": 0}},
                        {"grantId": "second", "response": {"responseCode": 500}}]})",
                   "heartbeatResponse", &reply, &code),
              ReplyReadResult::kRead);
    EXPECT_EQ(code, 0);
    char grantId[128] = "";
    copy_reply_text(reply.element, "grantId", grantId, sizeof grantId);
    EXPECT_STREQ(grantId, "first");
}

TEST_F(ReplyReaderTest, ElementWithoutResponseHasNoCode) {
    SasReply reply;
    int32_t code = -1;
    ASSERT_EQ(read(R"({"registrationResponse": [{"cbsdId": "c1"}]})", "registrationResponse",
                   &reply, &code),
              ReplyReadResult::kNoCode);
    EXPECT_EQ(code, -1);
    char cbsdId[128] = "";
    copy_reply_text(reply.element, "cbsdId", cbsdId, sizeof cbsdId);
    EXPECT_STREQ(cbsdId, "c1");
}

TEST_F(ReplyReaderTest, NonIntegerOrOutOfRangeCodeIsNoCode) {
    for (const char* value : {"\"401\"", "0.0", "null", "false", "4294967296", "-2147483649"}) {
        SasReply reply;
        int32_t code = -1;
        std::string text = std::string(R"({"grantResponse": [{"response": {"responseCode": )") +
                           value + "}}]}";
        EXPECT_EQ(read(text.c_str(), "grantResponse", &reply, &code), ReplyReadResult::kNoCode) << value;
        EXPECT_EQ(code, -1) << value;
    }
}

TEST_F(ReplyReaderTest, EmptyArrayHasNoCodeAndNoElement) {
    SasReply reply;
    int32_t code = -1;
    ASSERT_EQ(read(R"({"grantResponse": []})", "grantResponse", &reply, &code), ReplyReadResult::kNoCode);
    EXPECT_EQ(code, -1);
    EXPECT_EQ(reply.element, nullptr);
    char field[16] = "kept";
    EXPECT_EQ(copy_reply_text(reply.element, "grantId", field, sizeof field), 0);
    EXPECT_STREQ(field, "kept");
}

TEST_F(ReplyReaderTest, NoBytesAreUnreadableAndLeaveTheCode) {
    SasReply reply;
    int32_t code = -1;
    EXPECT_EQ(read_sas_reply("", "grantResponse", &reply, &code), ReplyReadResult::kUnreadable);
    EXPECT_EQ(code, -1);
    EXPECT_EQ(log_text().find("[SAS] "), std::string::npos);
}

TEST_F(ReplyReaderTest, TopLevelArrayOrTextIsUnreadable) {
    int32_t code = 7;
    SasReply array;
    EXPECT_EQ(read(R"([{"grantResponse": []}])", "grantResponse", &array, &code), ReplyReadResult::kUnreadable);
    SasReply text;
    EXPECT_EQ(read("<html>500</html>", "grantResponse", &text, &code), ReplyReadResult::kUnreadable);
    EXPECT_EQ(code, 7);
}

TEST_F(ReplyReaderTest, MissingOrMistypedMemberFailsAfterLoggingTheReply) {
    int32_t code = 7;
    SasReply other;
    EXPECT_EQ(read(R"({"registrationResponse": [{"cbsdId": "c"}]})", "grantResponse", &other, &code),
              ReplyReadResult::kNoMember);
    SasReply object;
    EXPECT_EQ(read(R"({"grantResponse": {"response": {"responseCode": 0}}})", "grantResponse",
                   &object, &code),
              ReplyReadResult::kNoMember);
    EXPECT_EQ(code, 7);
    EXPECT_NE(log_text().find("[SAS] {\n  \"registrationResponse\": [\n    {\n      \"cbsdId\": \"c\"\n"),
              std::string::npos)
        << log_text();
}

TEST_F(ReplyReaderTest, TextCopyIsBoundedAndSkipsNonStrings) {
    SasReply reply;
    int32_t code = -1;
    ASSERT_EQ(read(R"({"grantResponse": [{"grantId": "0123456789", "channelType": 5,
                                          "heartbeatInterval": 30, "bad": "x",
                                          "response": {"responseCode": 0}}]})",
                   "grantResponse", &reply, &code),
              ReplyReadResult::kRead);
    char shortField[5] = "";
    EXPECT_EQ(copy_reply_text(reply.element, "grantId", shortField, sizeof shortField), 1);
    EXPECT_STREQ(shortField, "0123");
    char channel[16] = "GAA";
    EXPECT_EQ(copy_reply_text(reply.element, "channelType", channel, sizeof channel), 0);
    EXPECT_STREQ(channel, "GAA");

    int32_t interval = 60;
    EXPECT_EQ(read_reply_integer(reply.element, "heartbeatInterval", &interval), 1);
    EXPECT_EQ(interval, 30);
    EXPECT_EQ(read_reply_integer(reply.element, "missing", &interval), 0);
    EXPECT_EQ(interval, 30);
    EXPECT_EQ(read_reply_integer(reply.element, "bad", &interval), 1);
    EXPECT_EQ(interval, 0);
}

}  // namespace
}  // namespace cbsd::sas
