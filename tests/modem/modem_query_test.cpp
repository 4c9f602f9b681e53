#include "base/clock.h"
#include "base/settings.h"
#include "modem/lab_modem.h"
#include "modem/modem.h"
#include "modem/product_query.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <string>
#include <sys/resource.h>
#include <sys/stat.h>

namespace cbsd::modem {
namespace {

class ModemQuery : public ::testing::Test {
protected:
    void SetUp() override {
        mkdir("/root/sas", 0755);
        test::write_file("/root/sas/sas.log", "");
    }
    static std::string log_text() { return test::read_file("/root/sas/sas.log"); }
};

std::string product_model(size_t size = 32) {
    char buffer[1024] = {};
    get_product_model(buffer, size - 1);
    return buffer;
}

TEST_F(ModemQuery, ProductModelAndSerialNumberComeFromProductInfo) {
    test::set_lab_modem(R"({"productmodule": "RQ5518L-M2", "SN": "SN123456789"})");
    EXPECT_EQ(product_model(), "RQ5518L-M2");
    char serial[256] = {};
    get_serial_number(serial, sizeof serial - 1);
    EXPECT_STREQ(serial, "SN123456789");
}

TEST_F(ModemQuery, MissingProductModelLeavesCallersBufferUnchanged) {
    test::set_lab_modem(R"({"SN": "SN1"})");
    char buffer[32] = "untouched";
    get_product_model(buffer, sizeof buffer - 1);
    EXPECT_STREQ(buffer, "untouched");
}

TEST_F(ModemQuery, ProductModelWithoutQuotesLeavesBufferEmpty) {
    test::set_lab_modem(test::raw_replies("{\n\t\"productmodule\": RQ5518L,\n}\n", "", ""));
    EXPECT_EQ(product_model(), "");
}

TEST_F(ModemQuery, LongProductModelIsCutToTheCallersLength) {
    test::set_lab_modem(R"({"productmodule": ")" + std::string(100, 'Q') + R"("})");
    EXPECT_EQ(product_model(32), std::string(31, 'Q'));
}

TEST_F(ModemQuery, AttachedWhenStatusLineHoldsAFour) {
    test::set_lab_modem(R"({"netstat": 4})");
    EXPECT_TRUE(is_lte_connected());
    test::set_lab_modem(R"({"netstat": 14})");
    EXPECT_TRUE(is_lte_connected());
    test::set_lab_modem(R"({"netstat": 1})");
    EXPECT_FALSE(is_lte_connected());
    test::set_lab_modem(R"({})");
    EXPECT_FALSE(is_lte_connected());
}

int64_t fake_now_ms = 0;

// A watcher within the age takes what the last is_lte_connected() saw,
// without asking; past it, it asks the modem for itself alone.
TEST_F(ModemQuery, RecentAttachmentIsReusedAndAnOldOneAskedAgain) {
    base::set_clock({nullptr, nullptr, nullptr, [] { return fake_now_ms; }});
    fake_now_ms = 1000000;
    test::set_lab_modem(R"({"netstat": 4})");
    EXPECT_TRUE(is_lte_connected());
    test::set_lab_modem(R"({"netstat": 1})");
    fake_now_ms += 8000;
    EXPECT_TRUE(lte_connected_seen_within(8000));  // not asked: the modem now says 1
    fake_now_ms += 1;
    EXPECT_FALSE(lte_connected_seen_within(8000));  // asked
    test::set_lab_modem(R"({"netstat": 4})");
    EXPECT_TRUE(lte_connected_seen_within(8000));  // asked again: its own answer was no news
    EXPECT_TRUE(is_lte_connected());
    test::set_lab_modem(R"({"netstat": 1})");
    EXPECT_TRUE(lte_connected_seen_within(8000));  // the news of that query
    base::set_clock({});
}

TEST_F(ModemQuery, FrequencyIsReportedValueDividedByHundred) {
    test::set_lab_modem(R"({"dlfreq": 3625000})");
    EXPECT_EQ(get_dl_frequency(), 36250);
    test::set_lab_modem(R"({"dlfreq": 3625099})");
    EXPECT_EQ(get_dl_frequency(), 36250);
}

TEST_F(ModemQuery, FrequencyBelowHundredReadsAsZero) {
    test::set_lab_modem(R"({"dlfreq": 99})");
    EXPECT_EQ(get_dl_frequency(), 0);
    EXPECT_EQ(log_text().find("error"), std::string::npos);
}

TEST_F(ModemQuery, BandwidthAndBandAreReadAsReported) {
    test::set_lab_modem(R"({"dlfreq": 3625000, "bandwidth": 20, "band": 48})");
    EXPECT_EQ(get_bandwidth(), 20);
    // "grep -w band" must not pick the bandwidth line.
    EXPECT_EQ(get_band(), 48);
}

TEST_F(ModemQuery, BandIsNotTakenFromTheBandwidthLine) {
    test::set_lab_modem(R"({"bandwidth": 20})");
    EXPECT_EQ(get_band(), -1);
}

TEST_F(ModemQuery, MissingNumbersGiveFailureValuesAndMessages) {
    test::set_lab_modem(R"({"netstat": 4})");
    EXPECT_EQ(get_dl_frequency(), 0);
    EXPECT_EQ(get_bandwidth(), -1);
    EXPECT_EQ(get_band(), -1);
    std::string log = log_text();
    EXPECT_NE(log.find("]get frequency error:\n["), std::string::npos) << log;
    EXPECT_NE(log.find("]get band error:\n"), std::string::npos) << log;
    // The bandwidth query reuses the frequency message: two of them.
    EXPECT_NE(log.find("get frequency error:", log.find("get frequency error:") + 1),
              std::string::npos);
}

TEST_F(ModemQuery, FailureMessageCarriesTheCommandOutput) {
    test::set_lab_modem(test::raw_replies("", "", "\t\"band\" 48,\n"));
    EXPECT_EQ(get_band(), -1);
    EXPECT_NE(log_text().find("get band error:\t\"band\" 48,\n"), std::string::npos) << log_text();
}

TEST_F(ModemQuery, FailingModemManagerGivesFailureValues) {
    test::set_lab_modem(R"({"fail": true, "productmodule": "RQ5518L", "netstat": 4,
                           "dlfreq": 3625000, "bandwidth": 20, "band": 48})");
    EXPECT_EQ(test::queried(get_product_model, 32, "kept"), "kept");
    EXPECT_FALSE(is_lte_connected());
    EXPECT_EQ(get_dl_frequency(), 0);
    EXPECT_EQ(get_bandwidth(), -1);
    EXPECT_EQ(get_band(), -1);
}

TEST_F(ModemQuery, TruncatedOutputWithoutCommaStillReadsTheNumber) {
    test::set_lab_modem(test::raw_replies("", "", "\t\"band\": 4"));
    EXPECT_EQ(get_band(), 4);
    test::set_lab_modem(test::raw_replies("\t\"productmodule\": \"RQ55", "", ""));
    EXPECT_EQ(product_model(), "RQ55");
}

TEST_F(ModemQuery, TenKilobyteLineIsAFailureNotACrash) {
    std::string huge = "\t\"dlfreq\": " + std::string(10 * 1024, '7') + ",\n";
    test::set_lab_modem(test::raw_replies("\t\"productmodule\": \"" + std::string(10240, 'P') + "\",\n",
                                          "\t\"netstat\": " + std::string(10240, '1') + ",\n",
                                          huge));
    // The line arrives in 255-character pieces; the first does not fit in 64 bytes.
    EXPECT_EQ(get_dl_frequency(), 0);
    // In 1024 bytes the first pieces fit: the opening quote is there, the closing one is not.
    EXPECT_EQ(product_model(), std::string(31, 'P'));
    EXPECT_FALSE(is_lte_connected());
}

TEST_F(ModemQuery, BinaryOutputGivesDefinedResults) {
    std::string binary;
    for (int i = 1; i < 256; ++i) binary += static_cast<char>(i);
    test::set_lab_modem(test::raw_replies(binary + "productmodule\n", binary + "netstat\n",
                                          "band:" + binary + "\n"));
    char model[32] = {};
    get_product_model(model, sizeof model - 1);
    EXPECT_EQ(model[31], '\0');
    // grep may or may not print a binary match; either way the results are defined.
    int band = get_band();
    EXPECT_TRUE(band == -1 || band == 0) << band;
    int frequency = get_dl_frequency();
    EXPECT_EQ(frequency, 0);
    (void)is_lte_connected();
}

TEST_F(ModemQuery, CommandThatCannotStartCountsAsEmptyOutput) {
#ifdef CBSD_SANITIZED
    // UBSan checks the type of the query's output filter through a pipe of
    // its own, which no file descriptor is left for.
    GTEST_SKIP() << "needs file descriptors the sanitizer runtime also needs";
#endif
    test::set_lab_modem(R"({"productmodule": "RQ5518L", "netstat": 4, "dlfreq": 3625000,
                           "bandwidth": 20, "band": 48})");
    rlimit saved{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit none = saved;
    none.rlim_cur = 0;  // no pipe can be made, so the runner gives no result
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    char model[32] = "kept";
    get_product_model(model, sizeof model - 1);
    bool attached = is_lte_connected();
    int frequency = get_dl_frequency();
    int bandwidth = get_bandwidth();
    int band = get_band();
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &saved), 0);
    EXPECT_STREQ(model, "kept");
    EXPECT_FALSE(attached);
    EXPECT_EQ(frequency, 0);
    EXPECT_EQ(bandwidth, -1);
    EXPECT_EQ(band, -1);
}

}  // namespace
}  // namespace cbsd::modem
