#include "modem/modem_output.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <ostream>
#include <string>

namespace cbsd::modem {
namespace {

// The caller's side of a quoted query: a cleared buffer, size less one.
std::string quoted(const char* output, size_t size = 32) {
    char buffer[1024] = {};
    parse_quoted_value(output, buffer, size - 1);
    return std::string(buffer);
}

TEST(QuotedValue, TakesTextBetweenQuotesAfterColon) {
    EXPECT_EQ(quoted("\t\"productmodule\": \"RQ5518L-M2\",\n"), "RQ5518L-M2");
    EXPECT_EQ(quoted("\t\"SN\": \"A1B2C3\",\n"), "A1B2C3");
}

TEST(QuotedValue, LineWithoutQuotesLeavesBufferUntouched) {
    char buffer[32] = "previous";
    EXPECT_FALSE(parse_quoted_value("productmodule: RQ5518L,\n", buffer, sizeof buffer - 1));
    EXPECT_STREQ(buffer, "previous");
    EXPECT_EQ(quoted("productmodule: RQ5518L,\n"), "");
}

TEST(QuotedValue, LineWithoutColonLeavesBufferUntouched) {
    char buffer[32] = "previous";
    EXPECT_FALSE(parse_quoted_value("\"productmodule\" \"RQ5518L\"", buffer, sizeof buffer - 1));
    EXPECT_STREQ(buffer, "previous");
}

TEST(QuotedValue, EmptyAndNullOutputGiveNothing) {
    EXPECT_EQ(quoted(""), "");
    char buffer[8] = "keep";
    EXPECT_FALSE(parse_quoted_value(nullptr, buffer, sizeof buffer - 1));
    EXPECT_STREQ(buffer, "keep");
}

TEST(QuotedValue, QuoteBeforeColonIsNotTheOpeningQuote) {
    // The value's opening quote is searched only after the first colon.
    EXPECT_EQ(quoted("\"SN\": \"X9\","), "X9");
    EXPECT_EQ(quoted("\"SN\": X9,"), "");
}

TEST(QuotedValue, TruncatedLineWithoutClosingQuoteRunsToTheEndOfLine) {
    EXPECT_EQ(quoted("\t\"productmodule\": \"RQ55"), "RQ55");
    EXPECT_EQ(quoted("\t\"productmodule\": \"RQ55\n\t\"SN\": \"X\",\n"), "RQ55");
}

TEST(QuotedValue, EmptyQuotedValueIsEmpty) {
    char buffer[16] = {};
    EXPECT_TRUE(parse_quoted_value("\"SN\": \"\",", buffer, sizeof buffer - 1));
    EXPECT_STREQ(buffer, "");
}

TEST(QuotedValue, CopyIsBoundedByTheCallersLength) {
    std::string long_value(2000, 'M');
    std::string line = "\"productmodule\": \"" + long_value + "\",";
    char buffer[33];
    std::memset(buffer, 0, sizeof buffer);
    buffer[32] = 'Z';  // guard byte just past the allowed length
    parse_quoted_value(line.c_str(), buffer, 31);
    EXPECT_EQ(std::string(buffer, 31), std::string(31, 'M'));
    EXPECT_EQ(buffer[31], '\0');  // the caller's cleared last byte
    EXPECT_EQ(buffer[32], 'Z');
}

TEST(QuotedValue, ShortValueIsTerminatedOverOldContent) {
    char buffer[16] = "XXXXXXXXXXXXXXX";
    parse_quoted_value("\"SN\": \"ab\",", buffer, sizeof buffer - 1);
    EXPECT_STREQ(buffer, "ab");
}

int number(const char* output, bool* ok = nullptr) {
    int value = -12345;
    bool parsed = parse_number(output, &value);
    if (ok) *ok = parsed;
    return parsed ? value : -12345;
}

TEST(Number, ReadsValueBetweenColonAndComma) {
    EXPECT_EQ(number("\t\"dlfreq\": 3625000,\n"), 3625000);
    EXPECT_EQ(number("\t\"bandwidth\": 20,\n"), 20);
    EXPECT_EQ(number("\t\"band\": 48,\n"), 48);
}

TEST(Number, WithoutCommaReadsToTheEnd) {
    EXPECT_EQ(number("\"band\": 48\n"), 48);
    EXPECT_EQ(number("\"band\":48"), 48);
}

TEST(Number, EmptyNullOrColonlessOutputFails) {
    bool ok = true;
    number("", &ok);
    EXPECT_FALSE(ok);
    number("\"band\" 48,", &ok);
    EXPECT_FALSE(ok);
    int value = 7;
    EXPECT_FALSE(parse_number(nullptr, &value));
    EXPECT_EQ(value, 7);
}

TEST(Number, NonNumericTextReadsAsZero) {
    EXPECT_EQ(number("\"band\": \"abc\","), 0);
    EXPECT_EQ(number("\"band\": ,"), 0);
    EXPECT_EQ(number("\"band\":"), 0);
}

TEST(Number, NegativeAndSignedValues) {
    EXPECT_EQ(number("\"band\": -3,"), -3);
    EXPECT_EQ(number("\"band\": +7,"), 7);
}

TEST(Number, LeadingDigitsOfMixedTextCount) {
    EXPECT_EQ(number("\"dlfreq\": 36250abc,"), 36250);
    EXPECT_EQ(number("\"dlfreq\": 36250.7,"), 36250);
}

TEST(Number, OutOfRangeValuesAreClamped) {
    EXPECT_EQ(number("\"dlfreq\": 99999999999999999999,"), INT_MAX);
    EXPECT_EQ(number("\"dlfreq\": -99999999999999999999,"), INT_MIN);
}

TEST(Number, OnlyTheFirst63CharactersAfterTheColonAreRead) {
    // 62 blanks then digits: the work buffer holds the blanks and one digit.
    std::string line = "\"dlfreq\":" + std::string(62, ' ') + "12345,";
    EXPECT_EQ(number(line.c_str()), 1);
}

TEST(Number, SecondLineIsNotReadPastAComma) {
    EXPECT_EQ(number("\t\"band\": 48,\n\t\"pci\": 7,\n"), 48);
}

TEST(Attach, AnyFourCountsAsAttached) {
    const struct {
        const char* line;
        bool attached;
    } cases[] = {{"\t\"netstat\": 4,\n", true}, {"\t\"netstat\": 14,\n", true},
                 {"\t\"netstat4\": 1,\n", true}, {"\t\"netstat\": 1,\n", false},
                 {"", false},                     {nullptr, false}};
    for (const auto& c : cases) EXPECT_EQ(shows_attached(c.line), c.attached) << (c.line ? c.line : "(null)");
}

// A centre frequency (100 kHz units) and bandwidth (MHz) and the range stored for them.
struct RangeCase {
    const char* name;
    int centre;
    int bandwidth;
    const char* low;
    const char* high;
    const char* stored_bandwidth;
};

void PrintTo(const RangeCase& c, std::ostream* out) {
    *out << "centre " << c.centre << " bandwidth " << c.bandwidth;
}

class CellRangeArithmeticCase : public ::testing::TestWithParam<RangeCase> {};

TEST_P(CellRangeArithmeticCase, GivesTheStoredRange) {
    CellRange range = compute_cell_range(GetParam().centre, GetParam().bandwidth);
    EXPECT_STREQ(range.lowFrequency, GetParam().low);
    EXPECT_STREQ(range.highFrequency, GetParam().high);
    EXPECT_STREQ(range.bandwidth, GetParam().stored_bandwidth);
}

// Failed readings are stored as computed; implausible values are not checked.
INSTANTIATE_TEST_SUITE_P(
    CellRangeArithmetic, CellRangeArithmeticCase,
    ::testing::Values(RangeCase{"TwentyMegahertzAroundCentre", 36250, 20, "3615.0", "3635.0", "20"},
                      RangeCase{"OddBandwidthGivesHalfTenths", 36000, 3, "3598.5", "3601.5", "3"},
                      RangeCase{"FailedReadingsAreStoredAsComputed", 0, -1, "0.5", "-0.5", "-1"},
                      RangeCase{"ImplausibleValuesAreNotChecked", 50000, 21, "4989.5", "5010.5", "21"}),
    [](const ::testing::TestParamInfo<RangeCase>& info) { return std::string(info.param.name); });

TEST(CellRangeArithmetic, ExtremeValuesDoNotOverflow) {
    CellRange range = compute_cell_range(INT_MAX, INT_MAX);
    EXPECT_STREQ(range.bandwidth, std::to_string(INT_MAX).c_str());
    EXPECT_GT(std::strlen(range.lowFrequency), 0u);
    range = compute_cell_range(INT_MIN, INT_MIN);
    EXPECT_STREQ(range.bandwidth, std::to_string(INT_MIN).c_str());
}

}  // namespace
}  // namespace cbsd::modem
