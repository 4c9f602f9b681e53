// Typed accessors of /etc/config/sas and the log lines they leave.
#include "config/accessors.h"
#include "config/uci_store.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace cbsd::config {
namespace {

using test::read_file;
using test::write_file;

const char* const kSas = "/etc/config/sas";
const char* const kLog = "/root/sas/sas.log";

class AccessorsTest : public ::testing::Test {
protected:
    void SetUp() override {
        mkdir("/root/sas", 0755);
        unlink(kLog);
        unlink(kSas);
    }
    static void write_sas(const std::string& config_options, const std::string& sas_config_options,
                          const std::string& operation_options = "") {
        ASSERT_TRUE(write_file(kSas, "config sas 'config'\n" + config_options +
                                         "config sas 'sasConfig'\n" + sas_config_options +
                                         "config sas 'operation'\n" + operation_options));
    }
    static std::string log_text() { return read_file(kLog); }
};

TEST_F(AccessorsTest, FlagsAreSetOnlyByTheIntegerOne) {
    write_sas("\toption enableMode '1'\n\toption usedp '01'\n\toption sasStepChoice '1'\n",
              "\toption RadioEnable '1'\n");
    EXPECT_TRUE(is_sas_enabled());
    EXPECT_TRUE(is_dp_enabled());
    EXPECT_TRUE(is_single_step_registration());
    EXPECT_TRUE(is_radio_enabled());

    write_sas("\toption enableMode 'yes'\n\toption usedp '2'\n\toption sasStepChoice '0'\n",
              "\toption RadioEnable '0'\n");
    EXPECT_FALSE(is_sas_enabled());
    EXPECT_FALSE(is_dp_enabled());
    EXPECT_FALSE(is_single_step_registration());
    EXPECT_FALSE(is_radio_enabled());
    EXPECT_EQ(log_text(), "");
}

TEST_F(AccessorsTest, AbsentFlagsAreOffWithoutAMessage) {
    write_sas("", "");
    EXPECT_FALSE(is_sas_enabled());
    EXPECT_FALSE(is_dp_enabled());
    EXPECT_FALSE(is_radio_enabled());
    EXPECT_EQ(get_antenna_gain(), 0);
    EXPECT_EQ(get_power_spectral_density(), 0);
    EXPECT_EQ(log_text(), "");
}

TEST_F(AccessorsTest, UnreadableFileLogsTheNoValueMessages) {
    EXPECT_FALSE(is_sas_enabled());
    EXPECT_FALSE(is_dp_enabled());
    EXPECT_FALSE(is_single_step_registration());
    EXPECT_FALSE(is_radio_enabled());
    EXPECT_EQ(get_antenna_gain(), -1);
    EXPECT_EQ(get_power_spectral_density(), 0);
    std::string log = log_text();
    // Each message is written as it is, after the "[uptime, time]" stamp.
    EXPECT_NE(log.find("][SAS] enableMode no value["), std::string::npos) << log;
    EXPECT_NE(log.find("][SAS] usedp no value["), std::string::npos) << log;
    EXPECT_NE(log.find("][SAS] RadioEnable no value["), std::string::npos) << log;
    EXPECT_NE(log.find("][SAS] antennaGain No value.\n["), std::string::npos) << log;
    EXPECT_NE(log.find("][SAS] powerSpectralDensity No value.\n"), std::string::npos) << log;
    EXPECT_EQ(log.find("sasStepChoice"), std::string::npos) << log;
}

TEST_F(AccessorsTest, NumbersUseTheDecimalConversion) {
    write_sas("\toption antennaGain '-3'\n", "\toption powerSpectralDensity '17dBm'\n");
    EXPECT_EQ(get_antenna_gain(), -3);
    EXPECT_EQ(get_power_spectral_density(), 17);
    write_sas("\toption antennaGain 'abc'\n", "\toption powerSpectralDensity ''\n");
    EXPECT_EQ(get_antenna_gain(), 0);
    EXPECT_EQ(get_power_spectral_density(), 0);
}

TEST_F(AccessorsTest, StatusIsReadWithOneByteLessAndTerminated) {
    write_sas("", "", "\toption status 'Authorized'\n");
    char status[16];
    std::memset(status, 'x', sizeof status);
    get_status(status, sizeof status);
    EXPECT_STREQ(status, "Authorized");

    char small[5];
    std::memset(small, 'x', sizeof small);
    get_status(small, sizeof small);
    // size - 1 = 4 bytes are read, of which config_get keeps 3.
    EXPECT_STREQ(small, "Aut");
}

TEST_F(AccessorsTest, StatusOfAnUnreadableFileIsEmpty) {
    char status[16] = "stale";
    get_status(status, sizeof status);
    EXPECT_STREQ(status, "");
}

TEST_F(AccessorsTest, ServerAddressIsReadLikeTheStatus) {
    write_sas("\toption address 'https://sas.example.net'\n", "");
    char address[128] = "stale";
    get_server_address(address, sizeof address);
    EXPECT_STREQ(address, "https://sas.example.net");
    char tiny[8];
    get_server_address(tiny, sizeof tiny);
    EXPECT_STREQ(tiny, "https:");
}

TEST_F(AccessorsTest, SettersWriteTheirOptions) {
    write_sas("", "\toption RadioEnable '0'\n", "\toption status 'Registered'\n");
    EXPECT_EQ(set_radio_enable("1"), 1u);
    EXPECT_EQ(set_status("Granted"), 1u);
    EXPECT_TRUE(is_radio_enabled());
    char status[16] = {};
    get_status(status, sizeof status);
    EXPECT_STREQ(status, "Granted");
}

TEST_F(AccessorsTest, SettersReportOneEvenWithoutTheFile) {
    EXPECT_EQ(set_radio_enable("1"), 1u);
    EXPECT_EQ(set_status("Granted"), 1u);
    EXPECT_FALSE(test::file_exists(kSas));
    EXPECT_EQ(set_status(nullptr), 0u);
}

}  // namespace
}  // namespace cbsd::config
