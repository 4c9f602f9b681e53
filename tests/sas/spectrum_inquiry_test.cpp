#include "sas/spectrum_inquiry.h"

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
    core::copy_text(record.lowFrequency, sizeof record.lowFrequency, "3552.47");
    core::copy_text(record.highFrequency, sizeof record.highFrequency, "3570.0");
    ASSERT_EQ(BodyStatus::Stored, build());
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
    ASSERT_EQ(BodyStatus::Stored, build());
    ParsedBody parsed(body, "spectrumInquiryRequest");
    json_t* range = json_array_get(parsed.get("inquiredSpectrum"), 0);
    EXPECT_EQ(0, integer_member(range, "lowFrequency"));
    EXPECT_EQ(0, integer_member(range, "highFrequency"));
}

TEST_F(SpectrumInquiryBodyTest, WithoutGrantCapabilitySendsFifteenIdenticalEntries) {
    ASSERT_EQ(BodyStatus::Stored, build());
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
        core::copy_text(record.measCapability, sizeof record.measCapability, capability);
        ASSERT_EQ(BodyStatus::Stored, build());
        ParsedBody parsed(body, "spectrumInquiryRequest");
        ASSERT_NE(nullptr, parsed.element());
        EXPECT_EQ(nullptr, parsed.get("measReport")) << capability;
        EXPECT_EQ(2u, json_object_size(parsed.element()));
    }
}

TEST_F(SpectrumInquiryBodyTest, BodyIsIndentedByTwoAndLogged) {
    ASSERT_EQ(BodyStatus::Stored, build());
    EXPECT_EQ(0, std::string(body).find("{\n  \"spectrumInquiryRequest\": [\n    {\n"));
    EXPECT_NE(std::string::npos, test::log_text().find(std::string("[SAS] ") + body + "\n"));
}

TEST_F(SpectrumInquiryBodyTest, BodyThatDoesNotFitIsRefusedWhole) {
    char small[200];
    EXPECT_EQ(BodyStatus::TooLong, build_spectrum_inquiry_body("cbsd-1", &record, small, sizeof small));
    EXPECT_EQ(std::string(sizeof small, '\0'), std::string(small, sizeof small));
    EXPECT_NE(std::string::npos, test::log_text().find("bytes, limit 199), not sent\n"));
}

}  // namespace
}  // namespace cbsd::sas
