// Typed accessors of /etc/config/sas and the log lines they leave.
#include "config/accessors.h"
#include "config/uci_store.h"
#include "sas_file_test.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace cbsd::config {
namespace {

using test::read_file;
using test::write_file;

const char* const kSas = test::kSasFile;

class AccessorsTest : public test::SasFileTest {
protected:
    static void write_sas(const std::string& config_options, const std::string& sas_config_options,
                          const std::string& operation_options = "") {
        ASSERT_TRUE(write_file(kSas, "config sas 'config'\n" + config_options +
                                         "config sas 'sasConfig'\n" + sas_config_options +
                                         "config sas 'operation'\n" + operation_options));
    }
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

TEST_F(AccessorsTest, TlsHardeningOptionsAreOnOnlyForTheIntegerOne) {
    write_sas("\toption verifySasHost '1'\n\toption requireSasCa '1'\n", "");
    EXPECT_TRUE(is_sas_host_verified());
    EXPECT_TRUE(is_sas_ca_required());
    write_sas("\toption verifySasHost '0'\n\toption requireSasCa 'yes'\n", "");
    EXPECT_FALSE(is_sas_host_verified());
    EXPECT_FALSE(is_sas_ca_required());
    write_sas("\toption verifySasHost '2'\n\toption requireSasCa ''\n", "");
    EXPECT_FALSE(is_sas_host_verified());
    EXPECT_FALSE(is_sas_ca_required());
    EXPECT_EQ(log_text(), "");
}

TEST_F(AccessorsTest, TlsHardeningOptionsAreOffWhenAbsentOrUnreadableWithoutAMessage) {
    write_sas("", "");
    EXPECT_FALSE(is_sas_host_verified());
    EXPECT_FALSE(is_sas_ca_required());
    unlink(kSas);
    EXPECT_FALSE(is_sas_host_verified());
    EXPECT_FALSE(is_sas_ca_required());
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
    EXPECT_EQ(test::read_bounded(get_status, 16), "Authorized");
    // size - 1 = 4 bytes are read, of which config_get keeps 3.
    EXPECT_EQ(test::read_bounded(get_status, 5), "Aut");
}

TEST_F(AccessorsTest, StatusOfAnUnreadableFileIsEmpty) {
    char status[16] = "stale";
    get_status(status, sizeof status);
    EXPECT_STREQ(status, "");
}

TEST_F(AccessorsTest, ServerAddressIsReadLikeTheStatus) {
    write_sas("\toption address 'https://sas.example.net'\n", "");
    EXPECT_EQ(test::read_bounded(get_server_address, 128), "https://sas.example.net");
    EXPECT_EQ(test::read_bounded(get_server_address, 8), "https:");
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

// Without the file nothing lands, and the setters say so.
TEST_F(AccessorsTest, SettersReportZeroWithoutTheFile) {
    EXPECT_EQ(set_radio_enable("1"), 0u);
    EXPECT_EQ(set_status("Granted"), 0u);
    EXPECT_FALSE(test::file_exists(kSas));
    EXPECT_EQ(set_status(nullptr), 0u);
    write_sas("", "", "");
    EXPECT_EQ(set_status("Granted"), 1u);
}

// A store that cannot be written: /etc/config on a tmpfs of its own (in the
// test's private mount namespace), remounted read-only while it fails.
class FailingStore : public AccessorsTest {
protected:
    void SetUp() override {
        AccessorsTest::SetUp();
        ASSERT_EQ(mount("tmpfs", "/etc/config", "tmpfs", 0, "size=64k"), 0) << std::strerror(errno);
        write_sas("", "\toption RadioEnable '0'\n", "\toption status 'Granted'\n");
    }
    void TearDown() override { umount2("/etc/config", MNT_DETACH); }
    static void set_read_only(bool read_only) {
        unsigned long flags = MS_REMOUNT | (read_only ? MS_RDONLY : 0);
        ASSERT_EQ(mount(nullptr, "/etc/config", nullptr, flags, "size=64k"), 0) << std::strerror(errno);
    }
    static size_t count(const std::string& text, const std::string& what) {
        size_t n = 0;
        for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
        return n;
    }
};

TEST_F(FailingStore, AWriteThatDoesNotLandIsReportedAndLoggedOncePerStreak) {
    const std::string failing = "[SAS] /etc/config/sas cannot be written (sasConfig.RadioEnable), "
                                "the decision stays in memory.\n";
    const std::string again = "[SAS] /etc/config/sas can be written again.\n";
    EXPECT_EQ(set_radio_enable("1"), 1u);
    EXPECT_FALSE(store_failing());
    set_read_only(true);
    EXPECT_EQ(set_radio_enable("0"), 0u);
    EXPECT_TRUE(store_failing());
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(set_radio_enable("0"), 0u);
        EXPECT_EQ(set_status("Registered"), 0u);
    }
    EXPECT_EQ(count(log_text(), failing), 1u) << log_text();
    EXPECT_EQ(count(log_text(), "cannot be written"), 1u) << log_text();
    EXPECT_EQ(log_text().find(again), std::string::npos);
    // The value the file already holds reads back (nothing is lost by it),
    // but proves nothing about the store: the streak goes on.
    EXPECT_EQ(set_radio_enable("1"), 1u);
    EXPECT_TRUE(store_failing());
    EXPECT_EQ(log_text().find(again), std::string::npos) << log_text();
    set_read_only(false);
    EXPECT_EQ(set_status("Registered"), 1u);
    EXPECT_EQ(set_radio_enable("0"), 1u);
    EXPECT_EQ(count(log_text(), again), 1u) << log_text();
    EXPECT_FALSE(store_failing());
}

TEST_F(FailingStore, AWriteIntoAMissingSectionDoesNotLand) {
    EXPECT_EQ(write_sas_option(schema::kAddress, "https://sas.example.net"), 1u);
    write_file(kSas, "config sas 'operation'\n\toption status 'Granted'\n");
    EXPECT_EQ(write_sas_option(schema::kAddress, "https://sas.example.net"), 0u);
    EXPECT_TRUE(store_failing());
    EXPECT_EQ(set_status("Registered"), 1u);
    EXPECT_FALSE(store_failing());
}

}  // namespace
}  // namespace cbsd::config
