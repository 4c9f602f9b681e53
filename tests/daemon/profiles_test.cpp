#include "config/device_profiles.h"
#include "daemon/profiles.h"
#include "config/uci_store.h"
#include "base/settings.h"
#include "base/text.h"
#include "modem/lab_modem.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace cbsd::daemon {
using namespace ::cbsd::config;
namespace {

constexpr const char* kSections =
    "config sas 'config'\n"
    "\n"
    "config sas 'cpi'\n"
    "\n"
    "config sas 'sasConfig'\n"
    "\n"
    "config sas 'operation'\n"
    "\n"
    "config sas 'cellInfo'\n";

std::string get(const char* section, const char* option) {
    char value[256] = {};
    config_get(kSasConfigPath, section, option, value, sizeof value);
    return value;
}

// Writing an empty value removes the option from the store, as libuci does.
bool absent(const std::string& section, const std::string& option) {
    std::string text = test::read_file(kSasConfigPath);
    size_t start = text.find("config sas '" + section + "'");
    if (start == std::string::npos) return true;
    size_t end = text.find("\nconfig ", start);
    std::string body = text.substr(start, end == std::string::npos ? std::string::npos : end - start);
    return body.find("option " + option + " ") == std::string::npos;
}

void set(const char* section, const char* option, const char* value) {
    config_set(kSasConfigPath, section, option, value);
}

std::string executable_tag() {
    char path[256] = {};
    if (readlink("/proc/self/exe", path, sizeof path - 1) <= 0) return "";
    struct stat status {};
    if (stat(path, &status) != 0) return "";
    return std::to_string(static_cast<long>(status.st_mtime));
}

class Profiles : public ::testing::Test {
protected:
    void SetUp() override {
        saved_settings_ = base::settings();
        mkdir("/root/sas", 0755);
        test::write_file("/root/sas/sas.log", "");
        test::write_file(kSasConfigPath, kSections);
        test::set_lab_modem(R"({"productmodule": "RQ5518L-M2", "SN": "SN0042"})");
        test::write_file("/etc/lab/syslog.jsonl", "");
    }
    void TearDown() override { base::settings() = saved_settings_; }

    static std::string log_text() { return test::read_file("/root/sas/sas.log"); }
    static bool logged(const std::string& text) { return log_text().find(text) != std::string::npos; }
    static bool sent_to_syslog(const std::string& text) {
        return test::read_file("/etc/lab/syslog.jsonl").find(text) != std::string::npos;
    }
    // The state of a device that has already run this executable.
    static void mark_as_run_before() { set("config", "cbsdTag", executable_tag().c_str()); }

    base::ProcessSettings saved_settings_{};
};

TEST(ProfileTable, KnownModelsHaveTheirOwnRows) {
    const DeviceProfile& e = find_device_profile("RQ5518E-M11");
    EXPECT_STREQ(e.model, "RQ5518E-M11");
    EXPECT_STREQ(e.fccId, "7XK44RQ5518E96");
    EXPECT_STREQ(e.antennaGain, "19");
    EXPECT_STREQ(e.antennaBeamwidth, "25");
    EXPECT_STREQ(e.maxEirp, "33");
    for (const char* model : {"RQ5518E", "RQ5518E-M2", "RQ5518E-M11", "RQ5518L", "RQ5518L-M2",
                              "RQ5518L-M11"}) {
        const DeviceProfile& row = find_device_profile(model);
        EXPECT_STREQ(row.model, model);
        EXPECT_FALSE(is_catch_all_profile(row));
        EXPECT_STREQ(row.cbsdCategory, "B");
        EXPECT_STREQ(row.radioTechnology, "E_UTRA");
        EXPECT_STREQ(row.antennaModel, "Internal");
        EXPECT_STREQ(row.heightType, "AGL");
        EXPECT_STREQ(row.indoorDeployment, "0");
        EXPECT_STREQ(row.groupType, "INTERFERENCE_COORDINATION");
    }
    const DeviceProfile& l = find_device_profile("RQ5518L");
    EXPECT_STREQ(l.fccId, "7XK44RQ5518L96");
    EXPECT_STREQ(l.antennaGain, "14");
    EXPECT_STREQ(l.antennaBeamwidth, "60");
    EXPECT_STREQ(l.maxEirp, "27");
}

TEST(ProfileTable, UnknownEmptyAndNullModelsGetTheCatchAllRow) {
    for (const char* model : {"ZX7700-NA", "", "unknow_model", "rq5518l", "RQ5518L "}) {
        const DeviceProfile& row = find_device_profile(model);
        EXPECT_TRUE(is_catch_all_profile(row)) << model;
        EXPECT_STREQ(row.model, "unknow_model");
        EXPECT_STREQ(row.fccId, "unknow_fccid");
        EXPECT_STREQ(row.antennaGain, "0");
        EXPECT_STREQ(row.antennaBeamwidth, "0");
        EXPECT_STREQ(row.maxEirp, "0");
    }
    EXPECT_TRUE(is_catch_all_profile(find_device_profile(nullptr)));
}

TEST_F(Profiles, FirstRunIsTiedToTheExecutablesModificationTime) {
    ASSERT_FALSE(executable_tag().empty());
    EXPECT_EQ(check_first_run(), 1);
    EXPECT_EQ(get("config", "cbsdTag"), executable_tag());
    EXPECT_TRUE(logged("[SAS] cbsd is running for the first time.\n"));
    EXPECT_TRUE(sent_to_syslog("cbsd is running for the first time."));
    EXPECT_EQ(check_first_run(), 0);
}

TEST_F(Profiles, ADifferentStoredTagMeansAFirstRun) {
    set("config", "cbsdTag", "12345");
    EXPECT_EQ(check_first_run(), 1);
    EXPECT_EQ(get("config", "cbsdTag"), executable_tag());
}

TEST_F(Profiles, TouchingTheExecutableMakesTheNextStartAFirstRun) {
    char path[256] = {};
    ASSERT_GT(readlink("/proc/self/exe", path, sizeof path - 1), 0);
    // Touch a private copy mounted over the executable's path (this process
    // has its own mount namespace), so tests running alongside see no change.
    std::string copy = "/tmp/exe-copy";
    ASSERT_EQ(system(("cp '" + std::string(path) + "' " + copy).c_str()), 0);
    ASSERT_EQ(mount(copy.c_str(), path, nullptr, MS_BIND, nullptr), 0);
    struct stat before {};
    ASSERT_EQ(stat(path, &before), 0);
    int first = check_first_run();
    int second = check_first_run();
    timespec times[2] = {before.st_atim, before.st_mtim};
    times[1].tv_sec += 1;
    int touched = utimensat(AT_FDCWD, path, times, 0);
    int after_touch = check_first_run();
    umount(path);

    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 0);
    ASSERT_EQ(touched, 0);
    EXPECT_EQ(after_touch, 1);
    EXPECT_EQ(get("config", "cbsdTag"), std::to_string(static_cast<long>(before.st_mtime) + 1));
}

TEST_F(Profiles, UnreadableStoreStillCountsAsFirstRunAndWritesNothing) {
    unlink(kSasConfigPath);
    // Nothing can be read, so the tag differs; the write creates no section.
    EXPECT_EQ(check_first_run(), 1);
    EXPECT_EQ(get("config", "cbsdTag"), "");
}

TEST_F(Profiles, KnownModelWritesItsRow) {
    apply_profile_defaults();
    EXPECT_EQ(get("config", "fccId"), "7XK44RQ5518L96");
    EXPECT_EQ(get("config", "antennaGain"), "14");
    EXPECT_EQ(get("sasConfig", "maxEirp"), "27");
    EXPECT_EQ(get("config", "serialNumber"), "SN0042");
    EXPECT_EQ(get("config", "cbsdCategory"), "B");
    EXPECT_EQ(get("config", "radioTechnology"), "E_UTRA");
    EXPECT_EQ(get("config", "antennaModel"), "Internal");
    EXPECT_EQ(get("cpi", "heightType"), "AGL");
    EXPECT_EQ(get("cpi", "groupType"), "INTERFERENCE_COORDINATION");
    // First run of this executable on this store.
    EXPECT_EQ(get("cpi", "indoorDeployment"), "0");
    EXPECT_EQ(get("config", "antennaBeamwidth"), "60");
    for (const char* line :
         {"[SAS] CPE Product Model: RQ5518L-M2\n", "[SAS] set default SN: SN0042\n",
          "[SAS] set default fccId: 7XK44RQ5518L96\n", "[SAS] set default cbsdCategory: B\n",
          "[SAS] set default radioTechnology: E_UTRA\n", "[SAS] set default antennaModel: Internal\n",
          "[SAS] set default antennaHeightType: AGL\n", "[SAS] set default indoorDeployment: 0\n",
          "[SAS] set default groupType: INTERFERENCE_COORDINATION\n",
          "[SAS] set default antennaGain: 14\n", "[SAS] set default MaxEIRP(PreferPower): 27\n",
          "[SAS] set default antennaBeamwidth: 60\n"})
        EXPECT_TRUE(logged(line)) << line << log_text();
    EXPECT_FALSE(logged("does not support SAS"));
}

TEST_F(Profiles, LogLinesComeInTheirOrder) {
    apply_profile_defaults();
    std::string log = log_text();
    size_t previous = 0;
    for (const char* line :
         {"CPE Product Model", "running for the first time", "set default SN", "set default fccId",
          "set default cbsdCategory", "set default radioTechnology", "set default antennaModel",
          "set default antennaHeightType", "set default indoorDeployment",
          "set default groupType", "set default antennaGain", "set default MaxEIRP",
          "set default antennaBeamwidth"}) {
        size_t at = log.find(line);
        ASSERT_NE(at, std::string::npos) << line;
        EXPECT_GT(at, previous) << line;
        previous = at;
    }
}

TEST_F(Profiles, SilentModemGivesTheCatchAllRow) {
    test::set_lab_modem("{}");
    set("config", "serialNumber", "OLD");
    apply_profile_defaults();
    EXPECT_EQ(get("config", "fccId"), "unknow_fccid");
    EXPECT_EQ(get("config", "antennaGain"), "0");
    EXPECT_EQ(get("sasConfig", "maxEirp"), "0");
    EXPECT_EQ(get("config", "antennaBeamwidth"), "0");
    // The empty serial number is written all the same, which clears the old one.
    EXPECT_TRUE(absent("config", "serialNumber")) << test::read_file(kSasConfigPath);
    EXPECT_TRUE(logged("[SAS] CPE Product Model: \n"));
    EXPECT_TRUE(logged("[SAS] this product model does not support SAS.\n"));
    EXPECT_TRUE(logged("[SAS] failed to get SN."));
    EXPECT_TRUE(logged("[SAS] set default SN: \n"));
    EXPECT_TRUE(sent_to_syslog("this product model does not support SAS."));
    EXPECT_TRUE(sent_to_syslog("failed to get SN."));
}

TEST_F(Profiles, UnknownModelGetsTheCatchAllRow) {
    test::set_lab_modem(R"({"productmodule": "ZX7700-NA", "SN": "X1"})");
    apply_profile_defaults();
    EXPECT_EQ(get("config", "fccId"), "unknow_fccid");
    EXPECT_EQ(get("config", "serialNumber"), "X1");
    EXPECT_TRUE(logged("[SAS] this product model does not support SAS.\n"));
}

TEST_F(Profiles, SecondStartLeavesFirstRunOptionsAlone) {
    mark_as_run_before();
    set("cpi", "indoorDeployment", "1");
    set("config", "antennaBeamwidth", "90");
    set("config", "usedp", "");
    set("config", "address", "https://sas.example/v1.2");
    set("operation", "usedp", "1");
    set("operation", "sasServerAddress", "https://old.example");
    set("config", "fccId", "edited");
    set("config", "antennaGain", "99");
    apply_profile_defaults();
    EXPECT_EQ(get("cpi", "indoorDeployment"), "1");
    EXPECT_EQ(get("config", "antennaBeamwidth"), "90");
    EXPECT_EQ(get("config", "usedp"), "");
    EXPECT_EQ(get("config", "address"), "https://sas.example/v1.2");
    EXPECT_EQ(get("operation", "usedp"), "1");
    EXPECT_EQ(get("operation", "sasServerAddress"), "https://old.example");
    // The other defaults are rewritten at every start.
    EXPECT_EQ(get("config", "fccId"), "7XK44RQ5518L96");
    EXPECT_EQ(get("config", "antennaGain"), "14");
    EXPECT_FALSE(logged("indoorDeployment"));
    EXPECT_FALSE(logged("antennaBeamwidth"));
    EXPECT_FALSE(logged("first time"));
}

TEST_F(Profiles, SecondStartAfterAFirstRunWritesNoFirstRunDefaults) {
    apply_profile_defaults();
    set("cpi", "indoorDeployment", "1");
    set("config", "antennaBeamwidth", "45");
    apply_profile_defaults();
    EXPECT_EQ(get("cpi", "indoorDeployment"), "1");
    EXPECT_EQ(get("config", "antennaBeamwidth"), "45");
}

TEST_F(Profiles, FirstRunMovesUsedpAndTheUsedpValueFallsIntoAddress) {
    set("operation", "usedp", "1");
    set("config", "address", "https://keep.example");
    apply_profile_defaults();
    EXPECT_EQ(get("config", "usedp"), "1");
    // No operation.sasServerAddress: the shared buffer still holds "1".
    EXPECT_EQ(get("config", "address"), "1");
    EXPECT_TRUE(absent("operation", "usedp"));
    EXPECT_TRUE(absent("operation", "sasServerAddress"));
}

TEST_F(Profiles, FirstRunWithoutOldOptionsEmptiesAddress) {
    set("config", "address", "https://sas.example/v1.2");
    apply_profile_defaults();
    EXPECT_TRUE(absent("config", "address")) << test::read_file(kSasConfigPath);
    EXPECT_EQ(get("config", "usedp"), "");
    EXPECT_TRUE(absent("operation", "sasServerAddress"));
}

TEST_F(Profiles, FirstRunMovesBothOldOptions) {
    set("operation", "usedp", "0");
    set("operation", "sasServerAddress", "https://old.example/v1.2");
    apply_profile_defaults();
    EXPECT_EQ(get("config", "usedp"), "0");
    EXPECT_EQ(get("config", "address"), "https://old.example/v1.2");
    EXPECT_TRUE(absent("operation", "usedp"));
    EXPECT_TRUE(absent("operation", "sasServerAddress"));
}

TEST_F(Profiles, FirstRunWithUsedpSetMovesNothing) {
    set("config", "usedp", "0");
    set("config", "address", "https://sas.example");
    set("operation", "usedp", "1");
    set("operation", "sasServerAddress", "https://old.example");
    apply_profile_defaults();
    EXPECT_EQ(get("config", "usedp"), "0");
    EXPECT_EQ(get("config", "address"), "https://sas.example");
    EXPECT_EQ(get("operation", "usedp"), "1");
    EXPECT_EQ(get("operation", "sasServerAddress"), "https://old.example");
    // Still a first run: the beamwidth was written before the check.
    EXPECT_EQ(get("config", "antennaBeamwidth"), "60");
}

TEST_F(Profiles, DebugOverridesReplaceTheDefaults) {
    base::ProcessSettings& s = base::settings();
    s.debug = 1;
    base::copy_text(s.sn, sizeof s.sn, "DEBUGSN");
    base::copy_text(s.fccId, sizeof s.fccId, "DEBUGFCC");
    base::copy_text(s.category, sizeof s.category, "ABCDEFG");
    base::copy_text(s.maxEIRP, sizeof s.maxEIRP, "1234567");
    apply_profile_defaults();
    EXPECT_EQ(get("config", "serialNumber"), "DEBUGSN");
    EXPECT_EQ(get("config", "fccId"), "DEBUGFCC");
    EXPECT_EQ(get("config", "cbsdCategory"), "ABCD");  // four characters are taken
    EXPECT_EQ(get("sasConfig", "maxEirp"), "1234567");
    EXPECT_EQ(get("config", "antennaGain"), "14");  // no override for the rest
    EXPECT_TRUE(logged("[SAS] set default MaxEIRP(PreferPower): 1234567\n"));
}

TEST_F(Profiles, OverridesNeedDebugModeAndAValue) {
    base::ProcessSettings& s = base::settings();
    s.debug = 0;
    base::copy_text(s.sn, sizeof s.sn, "DEBUGSN");
    base::copy_text(s.fccId, sizeof s.fccId, "DEBUGFCC");
    apply_profile_defaults();
    EXPECT_EQ(get("config", "serialNumber"), "SN0042");
    EXPECT_EQ(get("config", "fccId"), "7XK44RQ5518L96");

    s.debug = 1;
    s.sn[0] = '\0';
    s.fccId[0] = '\0';
    base::copy_text(s.category, sizeof s.category, "A");
    apply_profile_defaults();
    EXPECT_EQ(get("config", "serialNumber"), "SN0042");
    EXPECT_EQ(get("config", "fccId"), "7XK44RQ5518L96");
    EXPECT_EQ(get("config", "cbsdCategory"), "A");
}

TEST_F(Profiles, ProvisioningCopiesTheCertificatesAndRemovesTheDropOff) {
    ASSERT_EQ(system("mkdir -p /tmp/logger/sas/cert/clientCert /tmp/logger/sas/cert/serverCA"), 0);
    ASSERT_TRUE(test::write_file("/tmp/logger/sas/cert/clientCert/client.pem", "CERT"));
    ASSERT_TRUE(test::write_file("/tmp/logger/sas/cert/serverCA/ca.pem", "CA"));
    provision_certificates();
    EXPECT_EQ(test::read_file("/root/sas/cert/clientCert/client.pem"), "CERT");
    EXPECT_EQ(test::read_file("/root/sas/cert/serverCA/ca.pem"), "CA");
    EXPECT_FALSE(test::file_exists("/tmp/logger/sas"));
}

TEST_F(Profiles, ProvisioningWithNothingToCopyKeepsWhatIsThere) {
    ASSERT_EQ(system("mkdir -p /root/sas/cert/clientKey"), 0);
    ASSERT_TRUE(test::write_file("/root/sas/cert/clientKey/key.pem", "KEY"));
    provision_certificates();
    EXPECT_EQ(test::read_file("/root/sas/cert/clientKey/key.pem"), "KEY");
}

TEST_F(Profiles, ProvisioningWithNothingToCopyPrintsNothingAndMakesTheHome) {
    ASSERT_EQ(system("rm -rf /root/sas && mkdir -p /tmp/logger/sas/other"), 0);
    testing::internal::CaptureStderr();
    provision_certificates();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    struct stat home {};
    EXPECT_EQ(stat("/root/sas", &home), 0);
    EXPECT_TRUE(S_ISDIR(home.st_mode));
    EXPECT_FALSE(test::file_exists("/tmp/logger/sas"));
}

class AutoEnable : public Profiles {
protected:
    void SetUp() override {
        Profiles::SetUp();
        set("config", "auto", "1");
        set("config", "enableMode", "x");
    }
    static int count(const std::string& text) {
        std::string log = log_text();
        int n = 0;
        for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++n;
        return n;
    }
    AutoEnableState state_{};
};

TEST_F(AutoEnable, Band48TurnsSasOn) {
    test::set_lab_modem(R"({"band": 48})");
    auto_enable(state_);
    EXPECT_EQ(get("config", "enableMode"), "1");
    EXPECT_TRUE(logged("[SAS] auto SAS is On.\n"));
    EXPECT_TRUE(logged("[SAS] LTE is in Band 48, so turn on SAS automatically.\n"));
    EXPECT_TRUE(sent_to_syslog("LTE is in Band 48, so turn on SAS automatically."));
}

TEST_F(AutoEnable, EnableModeIsWrittenEveryPassButLoggedOnlyOnChange) {
    test::set_lab_modem(R"({"band": 48})");
    auto_enable(state_);
    set("config", "enableMode", "0");
    auto_enable(state_);
    EXPECT_EQ(get("config", "enableMode"), "1");
    EXPECT_EQ(count("auto SAS is On"), 1);
    EXPECT_EQ(count("LTE is in Band 48"), 1);
}

TEST_F(AutoEnable, OtherBandTurnsSasOff) {
    test::set_lab_modem(R"({"band": 41})");
    auto_enable(state_);
    EXPECT_EQ(get("config", "enableMode"), "0");
    EXPECT_TRUE(logged("[SAS] LTE is not in Band 48, so turn off SAS automatically.\n"));
}

// A failed query is "unknown", not "not Band 48": enableMode stays as the
// last answer left it, and the unknown band is logged once per streak.
TEST_F(AutoEnable, FailingBandQueryKeepsTheLastDecision) {
    test::set_lab_modem(R"({"band": 48})");
    auto_enable(state_);
    ASSERT_EQ(get("config", "enableMode"), "1");
    test::set_lab_modem(R"({"fail": ["getlteinfo"], "band": 48})");
    auto_enable(state_);
    auto_enable(state_);
    EXPECT_EQ(get("config", "enableMode"), "1");
    EXPECT_FALSE(logged("LTE is not in Band 48"));
    EXPECT_TRUE(logged("get band error:"));
    EXPECT_EQ(count("[SAS] LTE band unknown, SAS stays as it was.\n"), 1);
    test::set_lab_modem(R"({"band": 41})");
    auto_enable(state_);
    EXPECT_EQ(get("config", "enableMode"), "0");
}

// A modem manager that restarts: the unknown band is logged once per
// streak, and the same band told again afterwards is no news.
TEST_F(AutoEnable, TheSameBandAfterAFailureStreakIsNoNews) {
    test::set_lab_modem(R"({"band": 48})");
    auto_enable(state_);
    for (int streak = 0; streak < 2; ++streak) {
        test::set_lab_modem(R"({"registered": false, "band": 48})");
        auto_enable(state_);
        auto_enable(state_);
        test::set_lab_modem(R"({"band": 48})");
        auto_enable(state_);
    }
    EXPECT_EQ(get("config", "enableMode"), "1");
    EXPECT_EQ(count("LTE is in Band 48"), 1);
    EXPECT_EQ(count("[SAS] LTE band unknown, SAS stays as it was.\n"), 2);
}

TEST_F(AutoEnable, FailingBandQueryOnTheFirstPassWritesNothing) {
    test::set_lab_modem(R"({"fail": ["getlteinfo"], "band": 48})");
    auto_enable(state_);
    EXPECT_EQ(get("config", "enableMode"), "x");
    EXPECT_FALSE(logged("Band 48"));
}

TEST_F(AutoEnable, BandChangesAreLoggedEachTime) {
    test::set_lab_modem(R"({"band": 48})");
    auto_enable(state_);
    test::set_lab_modem(R"({"band": 2})");
    auto_enable(state_);
    EXPECT_EQ(get("config", "enableMode"), "0");
    test::set_lab_modem(R"({"band": 48})");
    auto_enable(state_);
    EXPECT_EQ(get("config", "enableMode"), "1");
    EXPECT_EQ(count("LTE is in Band 48"), 2);
    EXPECT_EQ(count("LTE is not in Band 48"), 1);
}

TEST_F(AutoEnable, ManualModeLeavesEnableModeAsTheUserSetIt) {
    set("config", "auto", "0");
    test::set_lab_modem(R"({"band": 48})");
    auto_enable(state_);
    auto_enable(state_);
    EXPECT_EQ(get("config", "enableMode"), "x");
    EXPECT_EQ(count("[SAS] auto SAS is Off.\n"), 1);
    EXPECT_FALSE(logged("Band 48"));
}

TEST_F(AutoEnable, OnlyExactlyOneMeansAuto) {
    for (const char* value : {"01", "1 ", "yes", "11", ""}) {
        set("config", "auto", value);
        test::set_lab_modem(R"({"band": 48})");
        auto_enable(state_);
        EXPECT_EQ(get("config", "enableMode"), "x") << value;
    }
}

TEST_F(AutoEnable, SwitchingAutoOffAndOnLogsEachChange) {
    test::set_lab_modem(R"({"band": 48})");
    auto_enable(state_);
    set("config", "auto", "0");
    auto_enable(state_);
    set("config", "auto", "1");
    auto_enable(state_);
    EXPECT_EQ(count("auto SAS is On"), 2);
    EXPECT_EQ(count("auto SAS is Off"), 1);
    // The band state survives the Off period: no second band message.
    EXPECT_EQ(count("LTE is in Band 48"), 1);
}

TEST_F(AutoEnable, UnreadableStoreIsLoggedAndCountsAsOff) {
    unlink(kSasConfigPath);
    auto_enable(state_);
    EXPECT_TRUE(logged("[SAS] SAS_AUTO no value"));
    EXPECT_TRUE(logged("[SAS] auto SAS is Off.\n"));
}

TEST_F(AutoEnable, ProcessStateIsKeptBetweenPasses) {
    test::set_lab_modem(R"({"band": 48})");
    auto_enable();
    auto_enable();
    EXPECT_EQ(get("config", "enableMode"), "1");
    EXPECT_EQ(count("auto SAS is On"), 1);
}

}  // namespace
}  // namespace cbsd::daemon
