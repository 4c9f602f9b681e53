// The supervision loop, one pass at a time: SAS on and off, DP mode and the
// radio switch, power and configuration changes, the repair of the gates and
// the change report.
#include "daemon/supervision_fixture.h"

namespace cbsd::daemon {
namespace supervision_test {
namespace {

TEST_F(SupervisionTest, PreviousStartsAsAllOnesSoTheFirstPassSeesEveryFlagChange) {
    const auto* raw = reinterpret_cast<const unsigned char*>(&state.previous);
    for (size_t i = 0; i < sizeof state.previous; ++i) ASSERT_EQ(raw[i], 0xFF) << "byte " << i;
    EXPECT_EQ(state.pass, 0u);
}

TEST_F(SupervisionTest, StartingWithSasDisabledOpensTrafficOnceThenOnlySleeps) {
    start_with("0", "0", "0");
    shell("echo 0 > /proc/sys/net/ipv4/ip_forward; iptables -I OUTPUT -p icmp --icmp-type 8 -j DROP");

    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kChanged);
    EXPECT_EQ(count(log(), "[SAS] sas disable.\n"), 1u);
    EXPECT_NE(log().find("[SAS] device network has been recovered."), std::string::npos);
    EXPECT_TRUE(all_gates_open()) << describe_gates();
    EXPECT_EQ(get_option("operation", "status"), "Unregistered");
    // Pass 1 skips the change report.
    EXPECT_EQ(log().find("lasted configuration"), std::string::npos);

    for (int i = 0; i < 3; ++i) EXPECT_EQ(run_supervision_pass(state), PassOutcome::kUnchanged);
    EXPECT_EQ(count(log(), "[SAS] sas disable.\n"), 1u);
    EXPECT_EQ(log().find("lasted configuration"), std::string::npos);
    EXPECT_EQ(state.pass, 4u);
}

TEST_F(SupervisionTest, EnablingSasInDpModeClosesAllGates) {
    start_with("0", "1", "0");
    ASSERT_EQ(settle(), 2);
    ASSERT_TRUE(all_gates_open()) << describe_gates();
    clear_log();

    set_option("config", "enableMode", "1");
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kChanged);
    std::string text = log();
    EXPECT_NE(text.find("[SAS] sasEnable change: 0 -> 1\n"), std::string::npos) << text;
    EXPECT_NE(text.find("[SAS] sas will run with lasted configuration.\n"), std::string::npos);
    size_t enable = text.find("[SAS] sas enable.\n");
    size_t unauthorized = text.find("[SAS] device has been unauthorized.");
    size_t dp = text.find("[SAS] CPE is communicating with SAS using DP.\n");
    size_t cleared = text.find("[SAS] clear cbsd state.\n");
    ASSERT_NE(enable, std::string::npos) << text;
    EXPECT_LT(enable, unauthorized);
    EXPECT_LT(unauthorized, dp);
    EXPECT_LT(dp, cleared);
    EXPECT_EQ(text.find("create standalone thread"), std::string::npos);
    EXPECT_TRUE(all_gates_closed()) << describe_gates();
    EXPECT_EQ(get_option("operation", "status"), "Unregistered");

    EXPECT_EQ(settle(), 1);
    EXPECT_TRUE(all_gates_closed()) << describe_gates();
}

TEST_F(SupervisionTest, RadioEnableInDpModeOpensGatesAndPublishesAuthorized) {
    start_with("1", "1", "0");
    settle();
    ASSERT_TRUE(all_gates_closed()) << describe_gates();
    clear_log();

    set_option("sasConfig", "RadioEnable", "1");
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kChanged);
    std::string text = log();
    EXPECT_NE(text.find("[SAS] radioEnable change: 0 -> 1\n"), std::string::npos) << text;
    EXPECT_NE(text.find("[SAS] sas radio enable.\n"), std::string::npos);
    EXPECT_NE(text.find("[SAS] device has been authorized."), std::string::npos);
    EXPECT_TRUE(all_gates_open()) << describe_gates();
    EXPECT_EQ(get_option("operation", "status"), "Authorized");
    EXPECT_EQ(settle(), 1);
    EXPECT_TRUE(all_gates_open()) << describe_gates();

    clear_log();
    set_option("sasConfig", "RadioEnable", "0");
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kChanged);
    EXPECT_NE(log().find("[SAS] sas radio disable.\n"), std::string::npos) << log();
    EXPECT_NE(log().find("[SAS] device has been unauthorized."), std::string::npos);
    EXPECT_TRUE(all_gates_closed()) << describe_gates();
    EXPECT_EQ(get_option("operation", "status"), "Unregistered");
}

TEST_F(SupervisionTest, FirstPassWithRadioEnabledUnauthorisesThenAuthorises) {
    start_with("1", "1", "1");
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kChanged);
    std::string text = log();
    size_t unauthorized = text.find("[SAS] device has been unauthorized.");
    size_t authorized = text.find("[SAS] device has been authorized.");
    ASSERT_NE(unauthorized, std::string::npos) << text;
    ASSERT_NE(authorized, std::string::npos) << text;
    EXPECT_LT(unauthorized, authorized);
    EXPECT_EQ(get_option("operation", "status"), "Authorized");
    // The state reset of the SAS enable wrote RadioEnable 0, which the next
    // pass follows until the proxy writes it again.
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kChanged);
    EXPECT_NE(log().find("[SAS] sas radio disable.\n"), std::string::npos);
    EXPECT_TRUE(all_gates_closed()) << describe_gates();
}

TEST_F(SupervisionTest, RadioChangesWhileSasIsOffChangeOnlyTheSnapshot) {
    start_with("0", "1", "0");
    settle();
    clear_log();
    set_option("sasConfig", "RadioEnable", "1");
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kChanged);
    EXPECT_NE(log().find("[SAS] radioEnable change: 0 -> 1\n"), std::string::npos) << log();
    EXPECT_EQ(log().find("[SAS] sas radio enable."), std::string::npos);
    EXPECT_EQ(log().find("authorized"), std::string::npos);
    EXPECT_EQ(state.previous.radioEnable, 1);
    EXPECT_EQ(get_option("operation", "status"), "Unregistered");
    EXPECT_TRUE(all_gates_open()) << describe_gates();
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kUnchanged);
}

TEST_F(SupervisionTest, CallSignChangeInDpModeIsReportedButRestartsNothing) {
    start_with("1", "1", "0");
    settle();
    clear_log();
    set_option("config", "callSign", "CALL2");
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kChanged);
    std::string text = log();
    EXPECT_NE(text.find("[SAS] callSign change: CALL1 -> CALL2\n"), std::string::npos) << text;
    EXPECT_NE(text.find("[SAS] sas will run with lasted configuration.\n"), std::string::npos);
    EXPECT_EQ(text.find("sas configuration is changed"), std::string::npos);
    EXPECT_EQ(text.find("clear cbsd state"), std::string::npos);
    EXPECT_EQ(text.find("thread"), std::string::npos);
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kUnchanged);
}

TEST_F(SupervisionTest, PowerChangeWithRadioDisabledIsRecordedSilently) {
    start_with("1", "1", "0");
    settle();
    clear_log();
    set_option("sasConfig", "powerSpectralDensity", "20");
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kChanged);
    EXPECT_NE(log().find("[SAS] powerSptDensity change: 0 -> 20\n"), std::string::npos) << log();
    EXPECT_EQ(log().find("powerSptDensity is changed"), std::string::npos);
    EXPECT_EQ(state.previous.powerSptDensity, 20);
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kUnchanged);
}

TEST_F(SupervisionTest, PowerChangeWithRadioEnabledAppliesTheNewPower) {
    start_with("1", "1", "0");
    settle();
    set_option("sasConfig", "RadioEnable", "1");
    settle();
    clear_log();
    set_option("sasConfig", "powerSpectralDensity", "20");
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kChanged);
    EXPECT_NE(log().find("[SAS] powerSptDensity is changed(SAS_CONFIG_POWER=20).\n"), std::string::npos)
        << log();
}

TEST_F(SupervisionTest, RadioSwitchTogetherWithPowerChangeStaysQuietAboutPower) {
    start_with("1", "1", "0");
    settle();
    clear_log();
    // Both written before the next pass: the radio branch takes the power along.
    set_option("sasConfig", "RadioEnable", "1");
    set_option("sasConfig", "powerSpectralDensity", "15");
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kChanged);
    EXPECT_NE(log().find("[SAS] sas radio enable.\n"), std::string::npos) << log();
    EXPECT_EQ(log().find("powerSptDensity is changed"), std::string::npos);
}

TEST_F(SupervisionTest, RulesRemovedBehindTheDaemonsBackAreRestoredBySteadyPass) {
    start_with("1", "1", "0");
    settle();
    ASSERT_TRUE(all_gates_closed()) << describe_gates();
    shell("iptables -F OUTPUT; /usr/sbin/ebtables -F BRIDGE_FORWARD; echo 1 > /proc/sys/net/ipv4/ip_forward");
    ASSERT_FALSE(icmp_drop_rule_present());
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kUnchanged);
    EXPECT_TRUE(all_gates_closed()) << describe_gates();
}

TEST_F(SupervisionTest, RulesAddedBehindTheBackOfAnOpenDeviceAreRemoved) {
    start_with("0", "0", "0");
    settle();
    shell("iptables -I OUTPUT -p icmp --icmp-type 8 -j DROP; echo 0 > /proc/sys/net/ipv4/ip_forward");
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kUnchanged);
    EXPECT_TRUE(all_gates_open()) << describe_gates();
}


TEST_F(SupervisionTest, DisablingSasOpensTrafficAndResetsTheState) {
    start_with("1", "1", "0");
    settle();
    ASSERT_TRUE(all_gates_closed()) << describe_gates();
    clear_log();
    set_option("config", "enableMode", "0");
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kChanged);
    EXPECT_NE(log().find("[SAS] sasEnable change: 1 -> 0\n"), std::string::npos) << log();
    EXPECT_NE(log().find("[SAS] sas disable.\n"), std::string::npos);
    EXPECT_TRUE(all_gates_open()) << describe_gates();
    EXPECT_EQ(settle(), 1);
}

TEST_F(SupervisionTest, StandAloneModeStartsOneWorkerAndRestartsItOnConfigurationChange) {
    start_with("1", "0", "0");
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kChanged);
    EXPECT_NE(log().find("[SAS] CPE is communicating with SAS using StandAlone.\n"), std::string::npos)
        << log();
    EXPECT_EQ(count(log(), "create standalone thread["), 1u);
    EXPECT_EQ(log().find("sas configuration is changed"), std::string::npos);
    start_standalone_worker();  // a second start while one exists is ignored
    EXPECT_EQ(count(log(), "create standalone thread["), 1u);

    settle();
    clear_log();
    set_option("config", "callSign", "CALL9");
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kChanged);
    std::string text = log();
    size_t changed = text.find("[SAS] sas configuration is changed.\n");
    size_t stopped = text.find("] is stopped");
    size_t started = text.find("create standalone thread[");
    ASSERT_NE(changed, std::string::npos) << text;
    ASSERT_NE(stopped, std::string::npos) << text;
    ASSERT_NE(started, std::string::npos) << text;
    EXPECT_LT(changed, stopped);
    EXPECT_LT(stopped, started);

    clear_log();
    set_option("config", "usedp", "1");
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kChanged);
    text = log();
    EXPECT_NE(text.find("[SAS] CPE is communicating with SAS using DP.\n"), std::string::npos) << text;
    EXPECT_NE(text.find("] is stopped"), std::string::npos);
    EXPECT_EQ(worker_running.load(), 0);
    EXPECT_TRUE(all_gates_closed()) << describe_gates();
}

TEST_F(SupervisionTest, ReportListsEveryChangedFieldInItsOrder) {
    SupervisionSnapshot a{}, b{};
    std::memset(&b, 0, sizeof b);
    b.sasEnable = 1;
    b.dpEnable = 1;
    std::strcpy(b.regMethod, "1");
    std::strcpy(b.sasServerURL, "u");
    std::strcpy(b.userId, "i");
    std::strcpy(b.callSign, "c");
    std::strcpy(b.longitude, "lo");
    std::strcpy(b.latitude, "la");
    std::strcpy(b.indoorDeployment, "1");
    std::strcpy(b.height, "5");
    std::strcpy(b.heightUnit, "1");
    std::strcpy(b.cpiId, "id");
    std::strcpy(b.cpiName, "n");
    std::strcpy(b.cpiInstallTime, "t");
    std::strcpy(b.antennaAzimuth, "9");
    std::strcpy(b.antennaDowntilt, "8");
    std::strcpy(b.antennaBeamwidth, "7");
    b.radioEnable = 1;
    b.lteConnected = 1;
    b.powerSptDensity = -3;
    std::strcpy(b.frequency, "36250");
    std::strcpy(b.bandwidth, "20");
    report_snapshot_changes(&a, &b);
    const std::vector<std::string> expected = {
        "[SAS] sasEnable change: 0 -> 1\n",      "[SAS] dpEnable change: 0 -> 1\n",
        "[SAS] regMethod change:  -> 1\n",       "[SAS] sasServerURL change:  -> u\n",
        "[SAS] userId change:  -> i\n",          "[SAS] callSign change:  -> c\n",
        "[SAS] longitude change:  -> lo\n",      "[SAS] latitude change:  -> la\n",
        "[SAS] indoorDeployment change:  -> 1\n", "[SAS] height change:  -> 5\n",
        "[SAS] heightUnit change:  -> 1\n",      "[SAS] cpiId change:  -> id\n",
        "[SAS] cpiName change:  -> n\n",         "[SAS] cpiInstallTime change:  -> t\n",
        "[SAS] antennaAzimuth change:  -> 9\n",  "[SAS] antennaDowntilt change:  -> 8\n",
        "[SAS] antennaBeamwidth change:  -> 7\n", "[SAS] radioEnable change: 0 -> 1\n",
        "[SAS] lteConnected change: 0 -> 1\n",   "[SAS] powerSptDensity change: 0 -> -3\n",
        "[SAS] frequency change:  -> 36250\n",   "[SAS] bandwidth change:  -> 20\n",
    };
    std::string text = log();
    size_t at = 0;
    for (const std::string& line : expected) {
        size_t found = text.find(line, at);
        ASSERT_NE(found, std::string::npos) << "missing or out of order: " << line << text;
        at = found + line.size();
    }
    EXPECT_EQ(count(text, " change: "), expected.size());

    clear_log();
    report_snapshot_changes(&b, &b);
    report_snapshot_changes(nullptr, &b);
    report_snapshot_changes(&a, nullptr);
    EXPECT_EQ(log(), "");
}

}  // namespace
}  // namespace supervision_test
}  // namespace cbsd::daemon
