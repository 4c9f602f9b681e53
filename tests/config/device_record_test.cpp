// The device record and the credential paths, loaded from a real
// /etc/config/sas (each test process has its own /etc).
#include "config/device_record.h"
#include "sas_file_test.h"

#include "support/test_util.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <ostream>
#include <string>

namespace cbsd::config {
namespace {

using test::read_file;
using test::write_file;

const char* const kSas = test::kSasFile;

class DeviceRecordTest : public test::SasFileTest {
protected:
    void SetUp() override {
        SasFileTest::SetUp();
        std::memset(&record_, 0, sizeof record_);
    }
    static std::string section(const std::string& name, const std::string& options) {
        return "config sas '" + name + "'\n" + options + "\n";
    }
    static std::string option(const std::string& name, const std::string& value) {
        return "\toption " + name + " '" + value + "'\n";
    }
    // A cpi section holding only the height and its unit.
    unsigned load_height(const std::string& height, const char* unit) {
        std::string options = option("height", height);
        if (unit) options += option("heightUnit", unit);
        EXPECT_TRUE(write_file(kSas, section("cpi", options)));
        return load_device_record(&record_);
    }

    DeviceRecord record_;
};

TEST_F(DeviceRecordTest, EveryFieldComesFromItsOption) {
    ASSERT_TRUE(write_file(
        kSas,
        section("config", option("userId", "user-1") + option("fccId", "FCC-1") +
                              option("serialNumber", "SN-1") + option("callSign", "CALL") +
                              option("cbsdCategory", "B") + option("radioTechnology", "E_UTRA") +
                              option("antennaGain", "5") + option("antennaModel", "ANT-9") +
                              option("antennaBeamwidth", "65") + option("antennaDowntilt", "3") +
                              option("antennaAzimuth", "270")) +
            section("cpi", option("height", "12.5") + option("heightType", "AGL") +
                               option("latitude", "37.4") + option("longitude", "-122.1") +
                               option("indoorDeployment", "1") + option("groupId", "grp") +
                               option("groupType", "INTERFERENCE_COORDINATION") +
                               option("installCertificationTime", "2024-01-01T00:00:00Z") +
                               option("cpiId", "cpi-7") + option("cpiName", "Installer")) +
            section("cellInfo", option("lowFrequency", "3552.5") + option("highFrequency", "3567.5")) +
            section("sasConfig", option("maxEirp", "30")) +
            section("operation", option("measCapability", "RECEIVED_POWER_WITHOUT_GRANT"))));

    EXPECT_EQ(load_device_record(&record_), 1u);
    EXPECT_STREQ(record_.userId, "user-1");
    EXPECT_STREQ(record_.fccId, "FCC-1");
    EXPECT_STREQ(record_.serialNumber, "SN-1");
    EXPECT_STREQ(record_.callSign, "CALL");
    EXPECT_STREQ(record_.cbsdCategory, "B");
    EXPECT_STREQ(record_.radioTechnology, "E_UTRA");
    EXPECT_STREQ(record_.height, "12.5");
    EXPECT_STREQ(record_.heightType, "AGL");
    EXPECT_STREQ(record_.longitude, "-122.1");
    EXPECT_STREQ(record_.latitude, "37.4");
    EXPECT_STREQ(record_.indoorDeployment, "1");
    EXPECT_STREQ(record_.antennaGain, "5");
    EXPECT_STREQ(record_.antennaModel, "ANT-9");
    EXPECT_STREQ(record_.measCapability, "RECEIVED_POWER_WITHOUT_GRANT");
    EXPECT_STREQ(record_.groupId, "grp");
    EXPECT_STREQ(record_.groupType, "INTERFERENCE_COORDINATION");
    EXPECT_STREQ(record_.installCertificationTime, "2024-01-01T00:00:00Z");
    EXPECT_STREQ(record_.cpiId, "cpi-7");
    EXPECT_STREQ(record_.cpiName, "Installer");
    EXPECT_STREQ(record_.lowFrequency, "3552.5");
    EXPECT_STREQ(record_.highFrequency, "3567.5");
    EXPECT_STREQ(record_.maxEirp, "30");
    EXPECT_STREQ(record_.antennaAzimuth, "270");
    EXPECT_STREQ(record_.antennaDowntilt, "3");
    EXPECT_STREQ(record_.antennaBeamwidth, "65");
}

TEST_F(DeviceRecordTest, FieldsKeepTwoCharactersLessThanTheirWidth) {
    ASSERT_TRUE(write_file(kSas, section("config", option("userId", std::string(200, 'u')) +
                                                       option("cbsdCategory", "ABCD") +
                                                       option("antennaAzimuth", "123456789")) +
                                     section("sasConfig", option("maxEirp", "1234567890"))));
    load_device_record(&record_);
    EXPECT_EQ(std::string(record_.userId), std::string(126, 'u'));
    EXPECT_STREQ(record_.cbsdCategory, "AB");
    EXPECT_STREQ(record_.antennaAzimuth, "123456");
    EXPECT_STREQ(record_.maxEirp, "123456");
}

TEST_F(DeviceRecordTest, MissingFileLeavesTheClearedRecordAndReturnsZero) {
    EXPECT_EQ(load_device_record(&record_), 0u);
    DeviceRecord empty;
    std::memset(&empty, 0, sizeof empty);
    EXPECT_EQ(std::memcmp(&record_, &empty, sizeof empty), 0);
}

TEST_F(DeviceRecordTest, MissingOptionsLeaveEmptyFieldsAndReturnOne) {
    ASSERT_TRUE(write_file(kSas, section("config", option("fccId", "F"))));
    EXPECT_EQ(load_device_record(&record_), 1u);
    EXPECT_STREQ(record_.fccId, "F");
    EXPECT_STREQ(record_.antennaAzimuth, "");
    EXPECT_STREQ(record_.height, "");
}

TEST_F(DeviceRecordTest, EmptyHeightInFeetBecomesZero) {
    load_height("", "1");
    EXPECT_STREQ(record_.height, "0.00");
    SetUp();
    ASSERT_TRUE(write_file(kSas, section("cpi", option("heightUnit", "1"))));
    load_device_record(&record_);
    EXPECT_STREQ(record_.height, "0.00");
}

// A height and its unit (nullptr: no unit option) and the height the record holds.
struct HeightCase {
    const char* height;
    const char* unit;
    const char* stored;
};

void PrintTo(const HeightCase& c, std::ostream* out) {
    *out << "height '" << c.height << "' unit " << (c.unit ? "'" + std::string(c.unit) + "'" : "absent");
}

class Height : public DeviceRecordTest, public ::testing::WithParamInterface<HeightCase> {};

TEST_P(Height, IsStoredAsExpected) {
    load_height(GetParam().height, GetParam().unit);
    EXPECT_STREQ(record_.height, GetParam().stored);
}

INSTANTIATE_TEST_SUITE_P(FeetAreConvertedToMetresWithTwoDecimals, Height,
                         ::testing::Values(HeightCase{"100", "1", "30.48"},
                                           HeightCase{"1000", "1", "304.80"},
                                           HeightCase{"3.5", "1", "1.07"}));

INSTANTIATE_TEST_SUITE_P(LargeFeetValueIsCutToSevenCharacters, Height,
                         ::testing::Values(HeightCase{"32808", "1", "9999.88"},
                                           HeightCase{"32809", "1", "10000.1"},
                                           HeightCase{"99999", "1", "30479.7"}));

INSTANTIATE_TEST_SUITE_P(OtherUnitsKeepTheHeightAsEntered, Height,
                         ::testing::Values(HeightCase{"12.75", "0", "12.75"},
                                           HeightCase{"12.75", "2", "12.75"},
                                           HeightCase{"12.75", "feet", "12.75"},
                                           HeightCase{"12.75", "01", "12.75"},
                                           HeightCase{"12.75", "11", "12.75"},
                                           HeightCase{"12.75", "", "12.75"},
                                           HeightCase{"12.75", nullptr, "12.75"},
                                           HeightCase{"abc", "0", "abc"}));

// In feet, the cut comes before the conversion.
INSTANTIATE_TEST_SUITE_P(LongHeightIsCutToSixCharacters, Height,
                         ::testing::Values(HeightCase{"1234567", "0", "123456"},
                                           HeightCase{"1234567", "1", "37629.3"}));

// "1x" fits the unit buffer and is not "1"; "1xy" is cut to "1x" as well.
INSTANTIATE_TEST_SUITE_P(UnitIsReadWithTwoCharactersAtMost, Height,
                         ::testing::Values(HeightCase{"100", "1xy", "100"}));

class CertPathsTest : public DeviceRecordTest {
protected:
    void SetUp() override {
        DeviceRecordTest::SetUp();
        std::memset(&paths_, 0, sizeof paths_);
    }
    // The paths a load left (the CRL's is fixed), loaded without a "No value" message.
    void expect_quiet_load(const char* client_cert, const char* client_key, const char* server_ca) {
        EXPECT_STREQ(paths_.clientCert, client_cert);
        EXPECT_STREQ(paths_.clientKey, client_key);
        EXPECT_STREQ(paths_.serverCA, server_ca);
        EXPECT_STREQ(paths_.crlFile, "/root/sas/cert/serverCA/server_crl.crl");
        EXPECT_EQ(log_text().find("No value"), std::string::npos);
    }
    CertificatePaths paths_;
};

TEST_F(CertPathsTest, NamesAreJoinedToTheirDirectories) {
    ASSERT_TRUE(write_file(kSas, section("cert", option("clientCertFileName", "cbsd.pem") +
                                                     option("clientKeyFileName", "cbsd.key") +
                                                     option("serverCAFileName", "ca.pem"))));
    std::strcpy(paths_.unused, "untouched");
    load_cert_paths(&paths_);
    EXPECT_STREQ(paths_.unused, "untouched");
    expect_quiet_load("/root/sas/cert/clientCert/cbsd.pem", "/root/sas/cert/clientKey/cbsd.key",
                      "/root/sas/cert/serverCA/ca.pem");
}

TEST_F(CertPathsTest, WithoutCertSectionOnlyTheCrlPathIsSet) {
    ASSERT_TRUE(write_file(kSas, section("config", option("fccId", "F"))));
    load_cert_paths(&paths_);
    expect_quiet_load("", "", "");
}

TEST_F(CertPathsTest, EmptyNameLeavesTheFieldAsItWas) {
    ASSERT_TRUE(write_file(kSas, section("cert", option("clientCertFileName", ""))));
    std::strcpy(paths_.clientCert, "earlier");
    load_cert_paths(&paths_);
    EXPECT_STREQ(paths_.clientCert, "earlier");
}

TEST_F(CertPathsTest, UnreadableConfigurationLogsEachMissingName) {
    load_cert_paths(&paths_);
    std::string log = log_text();
    EXPECT_NE(log.find("[SAS] clientCertFileName No value.\n"), std::string::npos) << log;
    EXPECT_NE(log.find("[SAS] clientKeyFileName No value.\n"), std::string::npos);
    EXPECT_NE(log.find("[SAS] serverCAFileName No value.\n"), std::string::npos);
    EXPECT_STREQ(paths_.clientCert, "");
    EXPECT_STREQ(paths_.crlFile, "/root/sas/cert/serverCA/server_crl.crl");
}

TEST_F(CertPathsTest, LongNameIsCutBeforeJoining) {
    ASSERT_TRUE(write_file(kSas, section("cert", option("serverCAFileName", std::string(200, 'c')))));
    load_cert_paths(&paths_);
    EXPECT_EQ(std::string(paths_.serverCA), "/root/sas/cert/serverCA/" + std::string(126, 'c'));
}

TEST_F(CertPathsTest, NullRecordIsIgnored) {
    ASSERT_TRUE(write_file(kSas, section("cert", option("clientCertFileName", "cbsd.pem"))));
    load_cert_paths(nullptr);
    EXPECT_EQ(log_text().find("No value"), std::string::npos);
}

TEST_F(DeviceRecordTest, CpiKeyNameAndPasswordAreCopiedBounded) {
    ASSERT_TRUE(write_file(kSas, section("cert", option("cpiKeyFileName", "cpi.p12") +
                                                     option("cpiKeyFilePassword", "secret-pass"))));
    EXPECT_EQ(test::read_bounded(get_cpi_key_file, 256), "cpi.p12");
    EXPECT_EQ(test::read_bounded(get_cpi_key_password, 7), "secret");
}

TEST_F(DeviceRecordTest, CpiKeyGettersIgnoreNullBufferAndNonPositiveSize) {
    ASSERT_TRUE(write_file(kSas, section("cert", option("cpiKeyFileName", "cpi.p12"))));
    get_cpi_key_file(nullptr, 16);
    char buffer[16] = "untouched";
    get_cpi_key_file(buffer, 0);
    EXPECT_STREQ(buffer, "untouched");
    get_cpi_key_password(buffer, -1);
    EXPECT_STREQ(buffer, "untouched");
}

TEST_F(DeviceRecordTest, AbsentCpiKeyOptionGivesEmptyTextWithoutMessage) {
    ASSERT_TRUE(write_file(kSas, section("cert", option("clientCertFileName", "c.pem"))));
    char buffer[16] = "stale";
    get_cpi_key_password(buffer, sizeof buffer);
    EXPECT_STREQ(buffer, "");
    EXPECT_EQ(log_text().find("No value"), std::string::npos);
}

TEST_F(DeviceRecordTest, UnreadableConfigurationEmptiesTheCpiBuffersAndLogs) {
    char name[16] = "stale";
    char password[16] = "stale";
    get_cpi_key_file(name, sizeof name);
    get_cpi_key_password(password, sizeof password);
    EXPECT_STREQ(name, "");
    EXPECT_STREQ(password, "");
    EXPECT_NE(log_text().find("[SAS] cpiKeyFileName No value.\n"), std::string::npos);
    EXPECT_NE(log_text().find("[SAS] cpiKeyFilePassword No value.\n"), std::string::npos);
}

}  // namespace
}  // namespace cbsd::config
