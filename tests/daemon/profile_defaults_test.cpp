// The defaults of the product's profile row and the debug overrides.
#include "daemon/profile_defaults.h"

#include "base/settings.h"
#include "base/text.h"
#include "daemon/profile_fixture.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace cbsd::daemon {
using namespace ::cbsd::test;
namespace {

class ProfileDefaults : public ProfileFixture {};

TEST_F(ProfileDefaults, KnownModelWritesItsRow) {
    apply_profile_defaults();
    expect_values({
        {"config", "fccId", "7XK44RQ5518L96"},
        {"config", "antennaGain", "14"},
        {"sasConfig", "maxEirp", "27"},
        {"config", "serialNumber", "SN0042"},
        {"config", "cbsdCategory", "B"},
        {"config", "radioTechnology", "E_UTRA"},
        {"config", "antennaModel", "Internal"},
        {"cpi", "heightType", "AGL"},
        {"cpi", "groupType", "INTERFERENCE_COORDINATION"},
    });
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

TEST_F(ProfileDefaults, LogLinesComeInTheirOrder) {
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

TEST_F(ProfileDefaults, SilentModemGivesTheCatchAllRow) {
    test::set_lab_modem("{}");
    set("config", "serialNumber", "OLD");
    apply_profile_defaults();
    expect_values({
        {"config", "fccId", "unknow_fccid"},
        {"config", "antennaGain", "0"},
        {"sasConfig", "maxEirp", "0"},
        {"config", "antennaBeamwidth", "0"},
    });
    // The empty serial number is written all the same, which clears the old one.
    EXPECT_TRUE(absent("config", "serialNumber")) << test::read_file(config::kSasConfigPath);
    EXPECT_TRUE(logged("[SAS] CPE Product Model: \n"));
    EXPECT_TRUE(logged("[SAS] this product model does not support SAS.\n"));
    EXPECT_TRUE(logged("[SAS] failed to get SN."));
    EXPECT_TRUE(logged("[SAS] set default SN: \n"));
    EXPECT_TRUE(sent_to_syslog("this product model does not support SAS."));
    EXPECT_TRUE(sent_to_syslog("failed to get SN."));
}

TEST_F(ProfileDefaults, UnknownModelGetsTheCatchAllRow) {
    test::set_lab_modem(R"({"productmodule": "ZX7700-NA", "SN": "X1"})");
    apply_profile_defaults();
    EXPECT_EQ(get("config", "fccId"), "unknow_fccid");
    EXPECT_EQ(get("config", "serialNumber"), "X1");
    EXPECT_TRUE(logged("[SAS] this product model does not support SAS.\n"));
}

TEST_F(ProfileDefaults, SecondStartLeavesFirstRunOptionsAlone) {
    mark_as_run_before();
    const std::vector<Option> first_run_options = {
        {"cpi", "indoorDeployment", "1"},
        {"config", "antennaBeamwidth", "90"},
        {"config", "usedp", ""},
        {"config", "address", "https://sas.example/v1.2"},
        {"operation", "usedp", "1"},
        {"operation", "sasServerAddress", "https://old.example"},
    };
    set_all(first_run_options);
    set_all({{"config", "fccId", "edited"}, {"config", "antennaGain", "99"}});
    apply_profile_defaults();
    expect_values(first_run_options);
    // The other defaults are rewritten at every start.
    EXPECT_EQ(get("config", "fccId"), "7XK44RQ5518L96");
    EXPECT_EQ(get("config", "antennaGain"), "14");
    EXPECT_FALSE(logged("indoorDeployment"));
    EXPECT_FALSE(logged("antennaBeamwidth"));
    EXPECT_FALSE(logged("first time"));
}

TEST_F(ProfileDefaults, SecondStartAfterAFirstRunWritesNoFirstRunDefaults) {
    apply_profile_defaults();
    set("cpi", "indoorDeployment", "1");
    set("config", "antennaBeamwidth", "45");
    apply_profile_defaults();
    EXPECT_EQ(get("cpi", "indoorDeployment"), "1");
    EXPECT_EQ(get("config", "antennaBeamwidth"), "45");
}

TEST_F(ProfileDefaults, DebugOverridesReplaceTheDefaults) {
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

TEST_F(ProfileDefaults, OverridesNeedDebugModeAndAValue) {
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
    expect_values({
        {"config", "serialNumber", "SN0042"},
        {"config", "fccId", "7XK44RQ5518L96"},
        {"config", "cbsdCategory", "A"},
    });
}

}  // namespace
}  // namespace cbsd::daemon
