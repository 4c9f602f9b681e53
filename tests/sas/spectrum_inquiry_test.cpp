#include "sas/spectrum_inquiry.h"

#include "body_assertions.h"
#include "exchange_fixture.h"
#include "sas/exchanges.h"
#include "sas/request_body.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <string>

namespace cbsd::sas {
namespace {

using test::integer_member;
using test::ParsedBody;
using test::string_member;

class SpectrumInquiryBodyTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::prepare_log_directory();
        record = test::sample_device_record();
    }
    BodyStatus build(const char* cbsdId = "cbsd-1") {
        return build_spectrum_inquiry_body(cbsdId, &record, body, sizeof body);
    }
    config::DeviceRecord record{};
    char body[kRequestBodyCapacity];
};

TEST(MhzToHz, ConvertsWithHundredKilohertzResolution) {
    EXPECT_EQ(3550000000u, mhz_text_to_hz("3550.0"));
    EXPECT_EQ(3552400000u, mhz_text_to_hz("3552.47"));
    EXPECT_EQ(3699900000u, mhz_text_to_hz("3699.99"));
    EXPECT_EQ(0u, mhz_text_to_hz(""));
    EXPECT_EQ(0u, mhz_text_to_hz("abc"));
    EXPECT_EQ(0u, mhz_text_to_hz("-5"));
}

TEST_F(SpectrumInquiryBodyTest, AsksForTheCellRangeInHertz) {
    base::copy_text(record.lowFrequency, sizeof record.lowFrequency, "3552.47");
    base::copy_text(record.highFrequency, sizeof record.highFrequency, "3570.0");
    ASSERT_EQ(BodyStatus::kStored, build());
    ParsedBody parsed(body, "spectrumInquiryRequest");
    ASSERT_NE(nullptr, parsed.element());
    EXPECT_EQ("cbsd-1", string_member(parsed.element(), "cbsdId"));
    json_t* spectrum = parsed.get("inquiredSpectrum");
    ASSERT_TRUE(json_is_array(spectrum));
    ASSERT_EQ(1u, json_array_size(spectrum));
    json_t* range = json_array_get(spectrum, 0);
    EXPECT_EQ(2u, json_object_size(range));
    EXPECT_EQ(3552400000, integer_member(range, "lowFrequency"));
    EXPECT_EQ(3570000000, integer_member(range, "highFrequency"));
}

TEST_F(SpectrumInquiryBodyTest, EmptyCellEdgesAreSentAsZero) {
    record.lowFrequency[0] = '\0';
    record.highFrequency[0] = '\0';
    ASSERT_EQ(BodyStatus::kStored, build());
    ParsedBody parsed(body, "spectrumInquiryRequest");
    json_t* range = json_array_get(parsed.get("inquiredSpectrum"), 0);
    EXPECT_EQ(0, integer_member(range, "lowFrequency"));
    EXPECT_EQ(0, integer_member(range, "highFrequency"));
}

TEST_F(SpectrumInquiryBodyTest, WithoutGrantCapabilitySendsFifteenIdenticalEntries) {
    ASSERT_EQ(BodyStatus::kStored, build());
    ParsedBody parsed(body, "spectrumInquiryRequest");
    json_t* report = parsed.get("measReport");
    ASSERT_TRUE(json_is_object(report));
    EXPECT_EQ(1u, json_object_size(report));
    json_t* entries = json_object_get(report, "rcvdPowerMeasReports");
    ASSERT_TRUE(json_is_array(entries));
    ASSERT_EQ(15u, json_array_size(entries));
    for (size_t i = 0; i < 15; ++i) {
        json_t* entry = json_array_get(entries, i);
        EXPECT_EQ(3u, json_object_size(entry));
        EXPECT_EQ(3690000000, integer_member(entry, "measFrequency")) << i;
        EXPECT_EQ(10000000, integer_member(entry, "measBandwidth")) << i;
        EXPECT_EQ(-76, integer_member(entry, "measRcvdPower")) << i;
    }
}

TEST_F(SpectrumInquiryBodyTest, OtherCapabilitiesSendNoReport) {
    for (const char* capability : {"RECEIVED_POWER_WITH_GRANT", "", "RECEIVED"}) {
        base::copy_text(record.measCapability, sizeof record.measCapability, capability);
        ASSERT_EQ(BodyStatus::kStored, build());
        ParsedBody parsed(body, "spectrumInquiryRequest");
        ASSERT_NE(nullptr, parsed.element());
        EXPECT_EQ(nullptr, parsed.get("measReport")) << capability;
        EXPECT_EQ(2u, json_object_size(parsed.element()));
    }
}

TEST_F(SpectrumInquiryBodyTest, BodyIsIndentedByTwoAndLogged) {
    ASSERT_EQ(BodyStatus::kStored, build());
    EXPECT_EQ(0, std::string(body).find("{\n  \"spectrumInquiryRequest\": [\n    {\n"));
    EXPECT_NE(std::string::npos, test::log_text().find(std::string("[SAS] ") + body + "\n"));
}

TEST_F(SpectrumInquiryBodyTest, BodyThatDoesNotFitIsRefusedWhole) {
    char small[200];
    EXPECT_EQ(BodyStatus::kTooLong,
              build_spectrum_inquiry_body("cbsd-1", &record, small, sizeof small));
    EXPECT_EQ(std::string(sizeof small, '\0'), std::string(small, sizeof small));
    EXPECT_NE(std::string::npos, test::log_text().find("bytes, limit 199), not sent\n"));
}

// --- the reply ---

class SpectrumInquiryReplyTest : public ::testing::Test {
protected:
    void SetUp() override { test::prepare_log_directory(); }
    int32_t parse_channel(const std::string& channel) {
        test::write_reply(R"({"spectrumInquiryResponse":[{"cbsdId":"c-1","availableChannel":[)" +
                          channel + R"(],"response":{"responseCode":0}}]})");
        std::memset(&reply, 0, sizeof reply);
        return parse_spectrum_inquiry_response(test::reply_bytes(), &reply);
    }
    SpectrumInquiryResponse reply{};
};

TEST_F(SpectrumInquiryReplyTest, SuccessReadsTheFirstChannelOnly) {
    ASSERT_EQ(0, parse_channel(
                     R"({"frequencyRange":{"lowFrequency":3550000000,"highFrequency":3560000000},)"
                     R"("channelType":"GAA","ruleApplied":"FCC_PART_96","maxEirp":23},)"
                     R"({"frequencyRange":{"lowFrequency":1,"highFrequency":2},"maxEirp":1})"));
    EXPECT_EQ(0, reply.responseCode);
    EXPECT_STREQ("c-1", reply.cbsdId);
    EXPECT_EQ(3550000000u, reply.lowFrequency);
    EXPECT_EQ(3560000000u, reply.highFrequency);
    EXPECT_STREQ("GAA", reply.channelType);
    EXPECT_STREQ("FCC_PART_96", reply.ruleApplied);
    EXPECT_EQ(23, reply.maxEirp);
}

TEST_F(SpectrumInquiryReplyTest, EmptyChannelListSucceedsWithNoLimit) {
    ASSERT_EQ(0, parse_channel(""));
    EXPECT_EQ(0u, reply.lowFrequency);
    EXPECT_EQ(0u, reply.highFrequency);
    EXPECT_EQ(2147483647, reply.maxEirp);
}

TEST_F(SpectrumInquiryReplyTest, MaxEirpIsTruncatedTowardZero) {
    ASSERT_EQ(0, parse_channel(R"({"maxEirp":23.9})"));
    EXPECT_EQ(23, reply.maxEirp);
    ASSERT_EQ(0, parse_channel(R"({"maxEirp":-3.5})"));
    EXPECT_EQ(-3, reply.maxEirp);
}

TEST_F(SpectrumInquiryReplyTest, MissingOrUnusableMaxEirpMeansNoLimit) {
    for (const char* channel :
         {R"({"channelType":"PAL"})", R"({"maxEirp":"20"})", R"({"maxEirp":null})"}) {
        ASSERT_EQ(0, parse_channel(channel)) << channel;
        EXPECT_EQ(2147483647, reply.maxEirp) << channel;
    }
}

TEST_F(SpectrumInquiryReplyTest, MaxEirpBeyondThirtyTwoBitsSaturates) {
    ASSERT_EQ(0, parse_channel(R"({"maxEirp":1e300})"));
    EXPECT_EQ(2147483647, reply.maxEirp);
    ASSERT_EQ(0, parse_channel(R"({"maxEirp":-99999999999})"));
    EXPECT_EQ(INT32_MIN, reply.maxEirp);
}

TEST_F(SpectrumInquiryReplyTest, LongTextsAreCutToTheirFields) {
    ASSERT_EQ(0, parse_channel(R"({"channelType":")" + std::string(40, 't') +
                               R"(","ruleApplied":")" + std::string(400, 'r') + R"("})"));
    EXPECT_EQ(std::string(15, 't'), reply.channelType);
    EXPECT_EQ(std::string(127, 'r'), reply.ruleApplied);
}

TEST_F(SpectrumInquiryReplyTest, SuccessWithoutChannelListFails) {
    test::write_reply(
        R"({"spectrumInquiryResponse":[{"cbsdId":"c-1","response":{"responseCode":0}}]})");
    EXPECT_EQ(-1, parse_spectrum_inquiry_response(test::reply_bytes(), &reply));
    EXPECT_EQ(0, reply.responseCode);
    EXPECT_STREQ("c-1", reply.cbsdId);
}

TEST_F(SpectrumInquiryReplyTest, RefusalAndStaleReplyFail) {
    test::write_reply(R"({"spectrumInquiryResponse":[{"response":{"responseCode":300}}]})");
    EXPECT_EQ(-1, parse_spectrum_inquiry_response(test::reply_bytes(), &reply));
    EXPECT_EQ(300, reply.responseCode);
    test::write_reply(R"({"registrationResponse":[{"cbsdId":"r","response":{"responseCode":0}}]})");
    EXPECT_EQ(-1, parse_spectrum_inquiry_response(test::reply_bytes(), &reply));
    EXPECT_EQ(-1, reply.responseCode);
}

class SpectrumInquiryExchangeTest : public test::ExchangeTest {};

TEST_F(SpectrumInquiryExchangeTest, InquiryReachesTheSasAndTheChannelIsRead) {
    RegistrationResponse registration{};
    base::copy_text(registration.cbsdId, sizeof registration.cbsdId, "cbsd-77");
    ASSERT_EQ(0, test::posted(spectrumInquiry_request(
                         sas::https_transport(), url.c_str(), &registration, &record)));
    test::ReceivedBodies bodies(received("spectrumInquiry"), "spectrumInquiryRequest");
    ASSERT_EQ(1u, bodies.size());
    EXPECT_EQ("cbsd-77", string_member(bodies.element(0), "cbsdId"));
    json_t* range = json_array_get(json_object_get(bodies.element(0), "inquiredSpectrum"), 0);
    EXPECT_EQ(3552500000, integer_member(range, "lowFrequency"));
    EXPECT_EQ(3567500000, integer_member(range, "highFrequency"));
    EXPECT_EQ(15u, json_array_size(json_object_get(json_object_get(bodies.element(0), "measReport"),
                                                   "rcvdPowerMeasReports")));

    SpectrumInquiryResponse reply{};
    ASSERT_EQ(0, parse_spectrum_inquiry_response(test::reply_bytes(), &reply));
    EXPECT_STREQ("cbsd-77", reply.cbsdId);
    EXPECT_EQ(3552500000u, reply.lowFrequency);
    EXPECT_EQ(3567500000u, reply.highFrequency);
    EXPECT_STREQ("GAA", reply.channelType);
    EXPECT_EQ(37, reply.maxEirp);
}

}  // namespace
}  // namespace cbsd::sas
