#include "standalone/grant_time.h"

#include "config/uci_store.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace cbsd::standalone {
namespace {

const char* const kStore =
    "config sasConfig 'sasConfig'\n"
    "\toption transmitExpireTime '2024-05-01T12:00:00Z'\n"
    "\toption grantExpireTime '2024-05-08T12:00:00Z'\n"
    "\toption powerSpectralDensity ''\n\n"
    "config operation 'operation'\n"
    "\toption GrantRenew '0'\n";

std::string stored(const char* section, const char* option) {
    char value[128] = {};
    config::config_get(config::kSasConfigPath, section, option, value, sizeof value);
    return value;
}

class GrantTime : public ::testing::Test {
protected:
    void SetUp() override {
        mkdir("/root/sas", 0755);
        unlink("/root/sas/sas.log");
        ASSERT_TRUE(test::write_file(config::kSasConfigPath, kStore));
    }
};

TEST_F(GrantTime, GettersCopyTheStoredTimes) {
    char text[32];
    get_transmit_expire_time(text, sizeof text);
    EXPECT_STREQ(text, "2024-05-01T12:00:00Z");
    get_grant_expire_time(text, sizeof text);
    EXPECT_STREQ(text, "2024-05-08T12:00:00Z");
}

TEST_F(GrantTime, GettersCutToTheBuffer) {
    char text[8];
    std::memset(text, 'x', sizeof text);
    get_transmit_expire_time(text, sizeof text);
    EXPECT_STREQ(text, "2024-05");
}

TEST_F(GrantTime, GettersIgnoreNoBuffer) {
    char text[4] = "abc";
    get_transmit_expire_time(text, 0);
    EXPECT_STREQ(text, "abc");
    get_grant_expire_time(nullptr, 16);
}

TEST_F(GrantTime, UnreadableStoreGivesEmptyTextAndALogLine) {
    unlink(config::kSasConfigPath);
    char text[32] = "stale";
    get_transmit_expire_time(text, sizeof text);
    EXPECT_STREQ(text, "");
    std::strcpy(text, "stale");
    get_grant_expire_time(text, sizeof text);
    EXPECT_STREQ(text, "");
    std::string log = test::read_file("/root/sas/sas.log");
    EXPECT_NE(log.find("[SAS] transmitExpireTime No value.\n"), std::string::npos);
    EXPECT_NE(log.find("[SAS] grantExpireTime No value.\n"), std::string::npos);
}

TEST_F(GrantTime, MissingOptionIsEmptyWithoutLogLine) {
    ASSERT_TRUE(test::write_file(config::kSasConfigPath, "config sasConfig 'sasConfig'\n"));
    char text[32] = "stale";
    get_transmit_expire_time(text, sizeof text);
    EXPECT_STREQ(text, "");
    EXPECT_EQ(test::read_file("/root/sas/sas.log").find("No value"), std::string::npos);
}

TEST_F(GrantTime, SettersWriteTheStore) {
    EXPECT_EQ(set_transmit_expire_time(""), 1u);
    EXPECT_EQ(stored("sasConfig", "transmitExpireTime"), "");
    set_grant_expire_time("2030-01-01T00:00:00Z");
    EXPECT_EQ(stored("sasConfig", "grantExpireTime"), "2030-01-01T00:00:00Z");
    set_power_spectral_density("20");
    EXPECT_EQ(stored("sasConfig", "powerSpectralDensity"), "20");
    set_grant_renew("1");
    EXPECT_EQ(stored("operation", "GrantRenew"), "1");
}

TEST_F(GrantTime, GrantRenewIsItsIntegerValue) {
    EXPECT_EQ(get_grant_renew(), 0);
    set_grant_renew("1");
    EXPECT_EQ(get_grant_renew(), 1);
    set_grant_renew("7");
    EXPECT_EQ(get_grant_renew(), 7);
    set_grant_renew("");
    EXPECT_EQ(get_grant_renew(), 0);
    ASSERT_TRUE(test::write_file(config::kSasConfigPath, "config operation 'operation'\n"));
    EXPECT_EQ(get_grant_renew(), 0);
}

}  // namespace
}  // namespace cbsd::standalone
