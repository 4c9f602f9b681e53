// The Band 48 automatic enablement, pass by pass.
#include "daemon/auto_enable.h"

#include "daemon/profile_fixture.h"

#include <gtest/gtest.h>

#include <string>

namespace cbsd::daemon {
using namespace ::cbsd::test;
namespace {

class AutoEnable : public ProfileFixture {
protected:
    void SetUp() override {
        ProfileFixture::SetUp();
        set("config", "auto", "1");
        set("config", "enableMode", "x");
    }
    static int count(const std::string& text) {
        std::string log = log_text();
        int n = 0;
        for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++n;
        return n;
    }
    // One pass with the modem answering `modem` (the lab modem's JSON).
    void pass_with(const char* modem) {
        test::set_lab_modem(modem);
        auto_enable(state_);
    }
    AutoEnableState state_{};
};

TEST_F(AutoEnable, Band48TurnsSasOn) {
    pass_with(R"({"band": 48})");
    EXPECT_EQ(get("config", "enableMode"), "1");
    EXPECT_TRUE(logged("[SAS] auto SAS is On.\n"));
    EXPECT_TRUE(logged("[SAS] LTE is in Band 48, so turn on SAS automatically.\n"));
    EXPECT_TRUE(sent_to_syslog("LTE is in Band 48, so turn on SAS automatically."));
}

TEST_F(AutoEnable, EnableModeIsWrittenEveryPassButLoggedOnlyOnChange) {
    pass_with(R"({"band": 48})");
    set("config", "enableMode", "0");
    auto_enable(state_);
    EXPECT_EQ(get("config", "enableMode"), "1");
    EXPECT_EQ(count("auto SAS is On"), 1);
    EXPECT_EQ(count("LTE is in Band 48"), 1);
}

TEST_F(AutoEnable, OtherBandTurnsSasOff) {
    pass_with(R"({"band": 41})");
    EXPECT_EQ(get("config", "enableMode"), "0");
    EXPECT_TRUE(logged("[SAS] LTE is not in Band 48, so turn off SAS automatically.\n"));
}

// A failed query is "unknown", not "not Band 48": enableMode stays as the
// last answer left it, and the unknown band is logged once per streak.
TEST_F(AutoEnable, FailingBandQueryKeepsTheLastDecision) {
    pass_with(R"({"band": 48})");
    ASSERT_EQ(get("config", "enableMode"), "1");
    pass_with(R"({"fail": ["getlteinfo"], "band": 48})");
    auto_enable(state_);
    EXPECT_EQ(get("config", "enableMode"), "1");
    EXPECT_FALSE(logged("LTE is not in Band 48"));
    EXPECT_TRUE(logged("get band error:"));
    EXPECT_EQ(count("[SAS] LTE band unknown, SAS stays as it was.\n"), 1);
    pass_with(R"({"band": 41})");
    EXPECT_EQ(get("config", "enableMode"), "0");
}

// A modem manager that restarts: the unknown band is logged once per
// streak, and the same band told again afterwards is no news.
TEST_F(AutoEnable, TheSameBandAfterAFailureStreakIsNoNews) {
    pass_with(R"({"band": 48})");
    for (int streak = 0; streak < 2; ++streak) {
        pass_with(R"({"registered": false, "band": 48})");
        auto_enable(state_);
        pass_with(R"({"band": 48})");
    }
    EXPECT_EQ(get("config", "enableMode"), "1");
    EXPECT_EQ(count("LTE is in Band 48"), 1);
    EXPECT_EQ(count("[SAS] LTE band unknown, SAS stays as it was.\n"), 2);
}

TEST_F(AutoEnable, FailingBandQueryOnTheFirstPassWritesNothing) {
    pass_with(R"({"fail": ["getlteinfo"], "band": 48})");
    EXPECT_EQ(get("config", "enableMode"), "x");
    EXPECT_FALSE(logged("Band 48"));
}

TEST_F(AutoEnable, BandChangesAreLoggedEachTime) {
    pass_with(R"({"band": 48})");
    pass_with(R"({"band": 2})");
    EXPECT_EQ(get("config", "enableMode"), "0");
    pass_with(R"({"band": 48})");
    EXPECT_EQ(get("config", "enableMode"), "1");
    EXPECT_EQ(count("LTE is in Band 48"), 2);
    EXPECT_EQ(count("LTE is not in Band 48"), 1);
}

TEST_F(AutoEnable, ManualModeLeavesEnableModeAsTheUserSetIt) {
    set("config", "auto", "0");
    pass_with(R"({"band": 48})");
    auto_enable(state_);
    EXPECT_EQ(get("config", "enableMode"), "x");
    EXPECT_EQ(count("[SAS] auto SAS is Off.\n"), 1);
    EXPECT_FALSE(logged("Band 48"));
}

TEST_F(AutoEnable, OnlyExactlyOneMeansAuto) {
    for (const char* value : {"01", "1 ", "yes", "11", ""}) {
        set("config", "auto", value);
        pass_with(R"({"band": 48})");
        EXPECT_EQ(get("config", "enableMode"), "x") << value;
    }
}

TEST_F(AutoEnable, SwitchingAutoOffAndOnLogsEachChange) {
    pass_with(R"({"band": 48})");
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
    unlink(config::kSasConfigPath);
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
