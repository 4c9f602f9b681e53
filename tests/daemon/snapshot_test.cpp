// The supervision snapshot loaded from a real /etc/config/sas and a stand-in
// modem manager (a `ubus` script first on PATH that serves files).
#include "daemon/snapshot.h"

#include "config/uci_store.h"
#include "daemon/profile_fixture.h"

#include "support/modem_standin.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>

namespace cbsd::daemon {
using namespace ::cbsd::config;
namespace {

using test::read_file;
using test::write_file;

const char* const kLogPath = "/root/sas/sas.log";

using test::install_modem_standin;
using test::set_modem;
using test::set_modem_garbage;

const char* const kFullConfig =
    "config config 'config'\n"
    "\toption enableMode '1'\n"
    "\toption usedp '1'\n"
    "\toption sasStepChoice '1'\n"
    "\toption address 'https://sas.example:8443/v1.2'\n"
    "\toption userId 'user1'\n"
    "\toption callSign 'CALL1'\n"
    "\toption antennaAzimuth '270'\n"
    "\toption antennaDowntilt '3'\n"
    "\toption antennaBeamwidth '60'\n"
    "\n"
    "config cpi 'cpi'\n"
    "\toption latitude '37.419236'\n"
    "\toption longitude '-122.081428'\n"
    "\toption indoorDeployment '0'\n"
    "\toption height '12.5'\n"
    "\toption heightUnit '1'\n"
    "\toption cpiId 'cpi-7'\n"
    "\toption cpiName 'Jo Installer'\n"
    "\toption installCertificationTime '2026-01-02T03:04:05Z'\n"
    "\n"
    "config sasConfig 'sasConfig'\n"
    "\toption RadioEnable '1'\n"
    "\toption powerSpectralDensity '17'\n";

class SnapshotTest : public ::testing::Test {
protected:
    void SetUp() override {
        install_modem_standin();
        set_modem("4", "3625000", "20");
        mkdir("/root/sas", 0755);
        write_file(kLogPath, "");
        mkdir("/etc/config", 0755);
        std::remove("/etc/config/sas");
    }

    static SupervisionSnapshot load() {
        SupervisionSnapshot s;
        std::memset(&s, 0, sizeof s);
        load_snapshot(&s);
        return s;
    }
};

TEST_F(SnapshotTest, ConfigurationBlockRunsFromRegMethodToTheEnd) {
    EXPECT_EQ(kConfigurationBlockOffset, offsetof(SupervisionSnapshot, regMethod));
    EXPECT_EQ(kConfigurationBlockOffset + kConfigurationBlockSize, sizeof(SupervisionSnapshot));
    EXPECT_EQ(offsetof(SupervisionSnapshot, bandwidth) + 8, sizeof(SupervisionSnapshot));
    EXPECT_EQ(offsetof(SupervisionSnapshot, powerSptDensity), 4u);
}

TEST_F(SnapshotTest, LoadsEveryFieldFromConfigurationAndModem) {
    write_file("/etc/config/sas", kFullConfig);
    SupervisionSnapshot s = load();
    EXPECT_EQ(s.sasEnable, 1);
    EXPECT_EQ(s.dpEnable, 1);
    EXPECT_EQ(s.radioEnable, 1);
    EXPECT_EQ(s.lteConnected, 1);
    EXPECT_EQ(s.powerSptDensity, 17);
    EXPECT_STREQ(s.regMethod, "1");
    EXPECT_STREQ(s.sasServerURL, "https://sas.example:8443/v1.2");
    EXPECT_STREQ(s.userId, "user1");
    EXPECT_STREQ(s.callSign, "CALL1");
    EXPECT_STREQ(s.longitude, "-122.081428");
    EXPECT_STREQ(s.latitude, "37.419236");
    EXPECT_STREQ(s.indoorDeployment, "0");
    EXPECT_STREQ(s.height, "12.5");
    EXPECT_STREQ(s.heightUnit, "1");
    EXPECT_STREQ(s.cpiId, "cpi-7");
    EXPECT_STREQ(s.cpiName, "Jo Installer");
    EXPECT_STREQ(s.cpiInstallTime, "2026-01-02T03:04:05Z");
    EXPECT_STREQ(s.antennaAzimuth, "270");
    EXPECT_STREQ(s.antennaDowntilt, "3");
    EXPECT_STREQ(s.antennaBeamwidth, "60");
    EXPECT_STREQ(s.frequency, "36250");
    EXPECT_STREQ(s.bandwidth, "20");
}

TEST_F(SnapshotTest, MissingConfigurationGivesEmptyTextZeroFlagsAndNoValueLines) {
    SupervisionSnapshot s = load();
    EXPECT_EQ(s.sasEnable, 0);
    EXPECT_EQ(s.dpEnable, 0);
    EXPECT_EQ(s.radioEnable, 0);
    EXPECT_EQ(s.powerSptDensity, 0);
    // Every configuration text is still all zero bytes up to the modem fields.
    const auto* raw = reinterpret_cast<const unsigned char*>(&s);
    for (size_t i = kConfigurationBlockOffset; i < offsetof(SupervisionSnapshot, frequency); ++i)
        ASSERT_EQ(raw[i], 0) << "byte " << i;
    EXPECT_STREQ(s.frequency, "36250");

    test::expect_in_order(read_file(kLogPath),
                          {"[SAS] enableMode no value", "[SAS] usedp no value",
                           "[SAS] RadioEnable no value", "[SAS] powerSpectralDensity No value.\n"});
}

TEST_F(SnapshotTest, HeightOfEightCharactersOrMoreIsCutToSix) {
    write_file("/etc/config/sas", "config cpi 'cpi'\n\toption height '12345678'\n");
    EXPECT_STREQ(load().height, "123456");
    write_file("/etc/config/sas", "config cpi 'cpi'\n\toption height '1234567'\n");
    EXPECT_STREQ(load().height, "123456");
    write_file("/etc/config/sas", "config cpi 'cpi'\n\toption height '123456'\n");
    EXPECT_STREQ(load().height, "123456");
}

TEST_F(SnapshotTest, EachTextKeepsTwoCharactersLessThanItsWidth) {
    std::string long_text(300, 'x');
    write_file("/etc/config/sas", "config config 'config'\n"
                                  "\toption sasStepChoice '12345'\n"
                                  "\toption callSign '" + long_text + "'\n"
                                  "\toption antennaAzimuth '123456789'\n"
                                  "config cpi 'cpi'\n"
                                  "\toption latitude '" + long_text + "'\n"
                                  "\toption installCertificationTime '" + long_text + "'\n");
    SupervisionSnapshot s = load();
    EXPECT_STREQ(s.regMethod, "12");
    EXPECT_EQ(std::string(s.callSign), std::string(126, 'x'));
    EXPECT_EQ(s.callSign[127], 0);
    EXPECT_EQ(std::string(s.latitude), std::string(30, 'x'));
    EXPECT_EQ(std::string(s.cpiInstallTime), std::string(62, 'x'));
    EXPECT_STREQ(s.antennaAzimuth, "123456");
}

TEST_F(SnapshotTest, TwoLoadsOfUnchangedInputsAreIdenticalByteForByte) {
    write_file("/etc/config/sas", kFullConfig);
    SupervisionSnapshot a = load();
    SupervisionSnapshot b = load();
    EXPECT_EQ(std::memcmp(&a, &b, sizeof a), 0);
    EXPECT_TRUE(snapshots_equal(a, b));
}

TEST_F(SnapshotTest, FailedModemQueriesGiveZeroFrequencyAndMinusOneBandwidth) {
    set_modem_garbage("garbage\nno numbers here\n");
    SupervisionSnapshot s = load();
    EXPECT_EQ(s.lteConnected, 0);
    EXPECT_STREQ(s.frequency, "0");
    EXPECT_STREQ(s.bandwidth, "-1");
}

TEST_F(SnapshotTest, DetachedModemClearsTheLteFlagOnly) {
    set_modem("1", "3625000", "20");
    SupervisionSnapshot s = load();
    EXPECT_EQ(s.lteConnected, 0);
    EXPECT_STREQ(s.frequency, "36250");
}

TEST_F(SnapshotTest, NullRecordIsIgnored) {
    load_snapshot(nullptr);
    SUCCEED();
}

TEST_F(SnapshotTest, ConfigurationBlockComparisonIgnoresFlagsAndPower) {
    write_file("/etc/config/sas", kFullConfig);
    SupervisionSnapshot a = load();
    SupervisionSnapshot b = a;
    b.sasEnable = 0;
    b.radioEnable = 0;
    b.powerSptDensity = 99;
    EXPECT_TRUE(configuration_block_equal(a, b));
    EXPECT_FALSE(snapshots_equal(a, b));
    b.bandwidth[0] = '1';
    EXPECT_FALSE(configuration_block_equal(a, b));
    b.bandwidth[0] = a.bandwidth[0];
    b.regMethod[0] = '0';
    EXPECT_FALSE(configuration_block_equal(a, b));

    copy_configuration_block(b, a);
    EXPECT_TRUE(configuration_block_equal(a, b));
    EXPECT_EQ(b.powerSptDensity, 99);  // outside the block, untouched
    EXPECT_EQ(b.sasEnable, 0);
}

}  // namespace
}  // namespace cbsd::daemon
