// The supervision loop, one pass at a time, with the modem's link and cell
// changing and with a configuration that cannot be read.
#include "daemon/supervision_fixture.h"

namespace cbsd::daemon {
namespace supervision_test {
namespace {

TEST_F(SupervisionTest, LteLinkDownIsLoggedAndUpStoresTheCellRange) {
    start_with("1", "1", "0");
    settle();
    clear_log();
    set_modem("1", "3625000", "20");
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kChanged);
    EXPECT_NE(log().find("[SAS] lteConnected change: 1 -> 0\n"), std::string::npos) << log();
    EXPECT_NE(log().find("[SAS] LTE is not in connection.\n"), std::string::npos);
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kUnchanged);

    set_option("cellInfo", "lowFrequency", "");
    clear_log();
    set_modem("4", "3625000", "20");
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kChanged);
    EXPECT_NE(log().find("[SAS] LTE is in connection.\n"), std::string::npos) << log();
    EXPECT_EQ(log().find("frequence information timeout"), std::string::npos);
    EXPECT_EQ(get_option("cellInfo", "lowFrequency"), "3615.0");
    EXPECT_EQ(get_option("cellInfo", "highFrequency"), "3635.0");
}

// After the armed number of getlteinfo replies the modem takes the next state.
void switch_modem_after_lteinfo_replies(int replies, const std::string& netstat,
                                        const std::string& dlfreq, const std::string& bandwidth) {
    write_file("/tmp/modem/next/getltestatus", modem_status_reply(netstat));
    write_file("/tmp/modem/next/getlteinfo", modem_info_reply(dlfreq, bandwidth));
    write_file("/tmp/modem/replies_left", std::to_string(replies) + "\n");
}

TEST_F(SupervisionTest, LteUpWithoutFrequencyWaitsFiveSecondsThenStoresWhatItReads) {
    start_with("1", "1", "0");
    settle();  // the first pass needs an attached modem
    set_modem("1", "3625000", "20");
    settle();
    clear_log();
    set_modem("4", "3625000", "20");
    // The snapshot reads frequency and bandwidth from one reply; afterwards
    // the frequency reads 0.
    switch_modem_after_lteinfo_replies(1, "4", "50", "20");
    auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kChanged);
    auto waited = std::chrono::steady_clock::now() - started;
    std::string text = log();
    EXPECT_NE(text.find("[SAS] LTE is in connection.\n"), std::string::npos) << text;
    EXPECT_NE(text.find("[SAS] get current frequence information timeout.\n"), std::string::npos);
    EXPECT_GE(waited, std::chrono::seconds(5));
    // Stored without a plausibility check: frequency 0, half-width 10 MHz.
    EXPECT_EQ(get_option("cellInfo", "lowFrequency"), "-10.0");
    EXPECT_EQ(get_option("cellInfo", "highFrequency"), "10.0");
    EXPECT_EQ(get_option("cellInfo", "bandwidth"), "20");
}

TEST_F(SupervisionTest, FrequencyChangeRefreshesTheCellRangeBeforeComparing) {
    start_with("1", "1", "0");
    settle();
    clear_log();
    set_modem("4", "3600000", "10");
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kChanged);
    EXPECT_EQ(get_option("cellInfo", "lowFrequency"), "3595.0");
    EXPECT_EQ(get_option("cellInfo", "highFrequency"), "3605.0");
    std::string text = log();
    size_t stored = text.find("[SAS] LTE accesses network success.\n");
    size_t reported = text.find("[SAS] frequency change: 36250 -> 36000\n");
    ASSERT_NE(stored, std::string::npos) << text;
    ASSERT_NE(reported, std::string::npos) << text;
    EXPECT_LT(stored, reported);
    EXPECT_NE(text.find("[SAS] bandwidth change: 20 -> 10\n"), std::string::npos);
}

TEST_F(SupervisionTest, FrequencyRefreshBlocksUntilTheModemReportsAPlausibleCell) {
    start_with("1", "1", "0");
    settle();
    set_modem("4", "3600000", "25");  // a bandwidth of 25 MHz is never accepted
    std::atomic<bool> finished{false};
    std::thread pass([&] {
        run_supervision_pass(state);
        finished = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_FALSE(finished.load());
    set_modem("4", "3600000", "10");
    for (int i = 0; i < 40 && !finished; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_TRUE(finished.load());
    pass.join();
    EXPECT_EQ(get_option("cellInfo", "bandwidth"), "10");
}

TEST_F(SupervisionTest, GarbageFromTheModemNeverStopsTheLoopForGood) {
    start_with("1", "1", "0");
    settle();
    set_modem_garbage("\x01\x02 not json at all\ndlfreq: , bandwidth:\n::::\n");
    std::atomic<bool> finished{false};
    std::thread pass([&] {
        run_supervision_pass(state);
        finished = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(800));
    set_modem("4", "3625000", "20");
    for (int i = 0; i < 40 && !finished; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_TRUE(finished.load());
    pass.join();
    EXPECT_GE(settle(), 1);
    EXPECT_TRUE(all_gates_closed()) << describe_gates();
}

// Unreadable is not "SAS disabled": with no readable configuration yet the
// gates close and stay closed, and the fault is logged once.
TEST_F(SupervisionTest, MissingConfigurationFileOnTheFirstPassKeepsTrafficStopped) {
    std::remove(kSasConfigPath);
    ASSERT_TRUE(all_gates_open()) << describe_gates();
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kUnchanged);
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kUnchanged);
    EXPECT_TRUE(all_gates_closed()) << describe_gates();
    EXPECT_EQ(count(log(), kUnreadableLine), 1u) << log();
    EXPECT_EQ(log().find("sas disable"), std::string::npos) << log();
    EXPECT_EQ(log().find("enableMode no value"), std::string::npos) << log();
    EXPECT_EQ(state.pass, 0u);
}

class UnreadableConfiguration : public SupervisionTest,
                                public ::testing::WithParamInterface<const char*> {
protected:
    // Missing, empty (a commit cut short by a full store) or not parseable.
    void break_the_file() {
        std::string how = GetParam();
        if (how == "missing")
            std::remove(kSasConfigPath);
        else if (how == "empty")
            write_file(kSasConfigPath, "");
        else
            write_file(kSasConfigPath, "config 'sasConfig\n\"unterminated");
    }
};

TEST_P(UnreadableConfiguration, SasEnabledBeforeKeepsTheGatesClosed) {
    start_with("1", "1", "0");
    ASSERT_EQ(settle(), 2);
    ASSERT_TRUE(all_gates_closed()) << describe_gates();
    std::string good = read_file(kSasConfigPath);
    clear_log();
    break_the_file();
    for (int i = 0; i < 3; ++i) EXPECT_EQ(run_supervision_pass(state), PassOutcome::kUnchanged);
    EXPECT_TRUE(all_gates_closed()) << describe_gates();
    EXPECT_EQ(count(log(), kUnreadableLine), 1u) << log();
    EXPECT_EQ(log().find("sas disable"), std::string::npos) << log();
    EXPECT_EQ(log().find("recovered"), std::string::npos) << log();

    write_file(kSasConfigPath, good);
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kUnchanged);
    EXPECT_EQ(count(log(), "[SAS] /etc/config/sas can be read again.\n"), 1u) << log();
    EXPECT_TRUE(all_gates_closed()) << describe_gates();
}

TEST_P(UnreadableConfiguration, SasDisabledBeforeLeavesTrafficAsItIs) {
    start_with("0", "0", "0");
    ASSERT_EQ(settle(), 2);
    ASSERT_TRUE(all_gates_open()) << describe_gates();
    break_the_file();
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kUnchanged);
    EXPECT_TRUE(all_gates_open()) << describe_gates();
    EXPECT_EQ(count(log(), kUnreadableLine), 1u) << log();
}

// In DP mode the proxy's RadioEnable can no longer be read, so its
// withdrawal would go unseen: an authorised device closes its gates.
TEST_P(UnreadableConfiguration, DpAuthorizedClosesTheGates) {
    start_with("1", "1", "0");
    settle();
    set_option("sasConfig", "RadioEnable", "1");
    settle();
    ASSERT_TRUE(all_gates_open()) << describe_gates();
    break_the_file();
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kUnchanged);
    EXPECT_TRUE(all_gates_closed()) << describe_gates();
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kUnchanged);
    EXPECT_EQ(count(log(), kUnreadableLine), 1u) << log();
}

INSTANTIATE_TEST_SUITE_P(Faults, UnreadableConfiguration,
                         ::testing::Values("missing", "empty", "unparsable"));

}  // namespace
}  // namespace supervision_test
}  // namespace cbsd::daemon
