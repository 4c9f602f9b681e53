// The supervision loop, one pass at a time, against a real /etc/config/sas,
// real iptables/ebtables/forwarding switches of the test's own network
// namespace and a stand-in modem manager (a `ubus` script first on PATH).
#include "daemon/supervision.h"

#include "daemon/snapshot.h"
#include "config/uci_store.h"
#include "standalone/worker_control.h"
#include "gating/gates.h"
#include "support/modem_standin.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace cbsd::daemon {
using standalone::start_standalone_worker;
using standalone::stop_standalone_worker;
using standalone::worker_running;
namespace {

using config::kSasConfigPath;
using test::read_file;
using test::shell;
using test::write_file;

const char* const kLogPath = "/root/sas/sas.log";

using test::install_modem_standin;
using test::modem_info_reply;
using test::modem_status_reply;
using test::put_test_bin_first_on_path;
using test::set_modem;
using test::set_modem_garbage;

// The virtual router's ebtables stand-in: it lists rules the way the
// router's ebtables does (one trailing blank) and serialises its commands.
void install_standins() {
    install_modem_standin();
    unlink("/tmp/bin/ebtables");
    const std::string standin = std::string(CBSD_SOURCE_DIR) + "/tests/lab/bin/ebtables";
    if (symlink(standin.c_str(), "/tmp/bin/ebtables") != 0)
        ADD_FAILURE() << "cannot link the ebtables stand-in " << standin;
}

void create_router_links() {
    shell("ip link show eth1.112 >/dev/null 2>&1 || ip link add eth1.112 type veth peer name usb0.112;"
          "ip link set eth1.112 up; ip link set usb0.112 up;"
          "/usr/sbin/ebtables -N BRIDGE_FORWARD >/dev/null 2>&1");
}

void open_all_gates_by_hand() {
    shell("iptables -F OUTPUT; /usr/sbin/ebtables -F BRIDGE_FORWARD;"
          "echo 1 > /proc/sys/net/ipv4/ip_forward; echo 1 > /proc/sys/net/ipv6/conf/all/forwarding");
}

std::string config_text(const std::string& enable_mode, const std::string& usedp,
                        const std::string& radio_enable) {
    return "config config 'config'\n"
           "\toption enableMode '" + enable_mode + "'\n"
           "\toption usedp '" + usedp + "'\n"
           "\toption callSign 'CALL1'\n"
           "\toption address 'https://127.0.0.1:1/v1.2'\n"
           "\toption antennaGain '6'\n"
           "\n"
           "config cpi 'cpi'\n"
           "\toption height '10'\n"
           "\n"
           "config sasConfig 'sasConfig'\n"
           "\toption RadioEnable '" + radio_enable + "'\n"
           "\toption powerSpectralDensity ''\n"
           "\n"
           "config operation 'operation'\n"
           "\toption status 'Unregistered'\n"
           "\n"
           "config cellInfo 'cellInfo'\n";
}

std::string get_option(const char* section, const char* option) {
    char value[256] = {};
    config::config_get(kSasConfigPath, section, option, value, sizeof value);
    return value;
}

void set_option(const char* section, const char* option, const char* value) {
    config::config_set(kSasConfigPath, section, option, value);
}

size_t count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

bool ip_forward_on() { return read_file("/proc/sys/net/ipv4/ip_forward").rfind("1", 0) == 0; }
bool icmp_drop_rule_present() {
    return shell("iptables -S OUTPUT").find("-A OUTPUT -p icmp -m icmp --icmp-type 8 -j DROP") !=
           std::string::npos;
}
bool bridge_drop_rules_present() {
    std::string rules = shell("/usr/sbin/ebtables -L BRIDGE_FORWARD");
    return rules.find("-o eth1.112+ -j DROP") != std::string::npos &&
           rules.find("-o usb0.112+ -j DROP") != std::string::npos;
}
bool all_gates_closed() { return !ip_forward_on() && icmp_drop_rule_present() && bridge_drop_rules_present(); }
bool all_gates_open() {
    return ip_forward_on() && !icmp_drop_rule_present() &&
           shell("/usr/sbin/ebtables -L BRIDGE_FORWARD").find("DROP") == std::string::npos;
}

std::string describe_gates() {
    return "ip_forward=" + read_file("/proc/sys/net/ipv4/ip_forward") + shell("iptables -S OUTPUT") +
           shell("/usr/sbin/ebtables -L BRIDGE_FORWARD") + shell("ifconfig | grep 112");
}

const char* const kUnreadableLine =
    "[SAS] /etc/config/sas cannot be read, the last readable configuration stays in force.\n";

class SupervisionTest : public ::testing::Test {
protected:
    void SetUp() override {
        install_standins();
        set_modem("4", "3625000", "20");
        // Without a working modem stand-in the first pass would wait forever.
        ASSERT_NE(shell("ubus call ubus_lte getlteinfo | grep dlfreq").find("3625000"), std::string::npos);
        create_router_links();
        open_all_gates_by_hand();
        gating::reset_runtime_cache();  // as at start-up: the forwarding check mirrors into it
        mkdir("/root/sas", 0755);
        mkdir("/etc/config", 0755);
        write_file(kLogPath, "");
        init_supervision_state(state);
    }
    void TearDown() override { stop_standalone_worker(); }

    void start_with(const std::string& enable_mode, const std::string& usedp,
                    const std::string& radio_enable) {
        write_file(kSasConfigPath, config_text(enable_mode, usedp, radio_enable));
    }

    // Runs passes until one finds the steady state; returns how many ran.
    int settle() {
        for (int n = 1; n <= 10; ++n)
            if (run_supervision_pass(state) == PassOutcome::Unchanged) return n;
        ADD_FAILURE() << "the loop did not settle\n" << log();
        return -1;
    }
    std::string log() const { return read_file(kLogPath); }
    void clear_log() { write_file(kLogPath, ""); }

    SupervisionState state{};
};

TEST_F(SupervisionTest, PreviousStartsAsAllOnesSoTheFirstPassSeesEveryFlagChange) {
    const auto* raw = reinterpret_cast<const unsigned char*>(&state.previous);
    for (size_t i = 0; i < sizeof state.previous; ++i) ASSERT_EQ(raw[i], 0xFF) << "byte " << i;
    EXPECT_EQ(state.pass, 0u);
}

TEST_F(SupervisionTest, StartingWithSasDisabledOpensTrafficOnceThenOnlySleeps) {
    start_with("0", "0", "0");
    shell("echo 0 > /proc/sys/net/ipv4/ip_forward; iptables -I OUTPUT -p icmp --icmp-type 8 -j DROP");

    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Changed);
    EXPECT_EQ(count(log(), "[SAS] sas disable.\n"), 1u);
    EXPECT_NE(log().find("[SAS] device network has been recovered."), std::string::npos);
    EXPECT_TRUE(all_gates_open()) << describe_gates();
    EXPECT_EQ(get_option("operation", "status"), "Unregistered");
    // Pass 1 skips the change report.
    EXPECT_EQ(log().find("lasted configuration"), std::string::npos);

    for (int i = 0; i < 3; ++i) EXPECT_EQ(run_supervision_pass(state), PassOutcome::Unchanged);
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
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Changed);
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
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Changed);
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
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Changed);
    EXPECT_NE(log().find("[SAS] sas radio disable.\n"), std::string::npos) << log();
    EXPECT_NE(log().find("[SAS] device has been unauthorized."), std::string::npos);
    EXPECT_TRUE(all_gates_closed()) << describe_gates();
    EXPECT_EQ(get_option("operation", "status"), "Unregistered");
}

TEST_F(SupervisionTest, FirstPassWithRadioEnabledUnauthorisesThenAuthorises) {
    start_with("1", "1", "1");
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Changed);
    std::string text = log();
    size_t unauthorized = text.find("[SAS] device has been unauthorized.");
    size_t authorized = text.find("[SAS] device has been authorized.");
    ASSERT_NE(unauthorized, std::string::npos) << text;
    ASSERT_NE(authorized, std::string::npos) << text;
    EXPECT_LT(unauthorized, authorized);
    EXPECT_EQ(get_option("operation", "status"), "Authorized");
    // The state reset of the SAS enable wrote RadioEnable 0, which the next
    // pass follows until the proxy writes it again.
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Changed);
    EXPECT_NE(log().find("[SAS] sas radio disable.\n"), std::string::npos);
    EXPECT_TRUE(all_gates_closed()) << describe_gates();
}

TEST_F(SupervisionTest, RadioChangesWhileSasIsOffChangeOnlyTheSnapshot) {
    start_with("0", "1", "0");
    settle();
    clear_log();
    set_option("sasConfig", "RadioEnable", "1");
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Changed);
    EXPECT_NE(log().find("[SAS] radioEnable change: 0 -> 1\n"), std::string::npos) << log();
    EXPECT_EQ(log().find("[SAS] sas radio enable."), std::string::npos);
    EXPECT_EQ(log().find("authorized"), std::string::npos);
    EXPECT_EQ(state.previous.radioEnable, 1);
    EXPECT_EQ(get_option("operation", "status"), "Unregistered");
    EXPECT_TRUE(all_gates_open()) << describe_gates();
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Unchanged);
}

TEST_F(SupervisionTest, CallSignChangeInDpModeIsReportedButRestartsNothing) {
    start_with("1", "1", "0");
    settle();
    clear_log();
    set_option("config", "callSign", "CALL2");
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Changed);
    std::string text = log();
    EXPECT_NE(text.find("[SAS] callSign change: CALL1 -> CALL2\n"), std::string::npos) << text;
    EXPECT_NE(text.find("[SAS] sas will run with lasted configuration.\n"), std::string::npos);
    EXPECT_EQ(text.find("sas configuration is changed"), std::string::npos);
    EXPECT_EQ(text.find("clear cbsd state"), std::string::npos);
    EXPECT_EQ(text.find("thread"), std::string::npos);
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Unchanged);
}

TEST_F(SupervisionTest, PowerChangeWithRadioDisabledIsRecordedSilently) {
    start_with("1", "1", "0");
    settle();
    clear_log();
    set_option("sasConfig", "powerSpectralDensity", "20");
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Changed);
    EXPECT_NE(log().find("[SAS] powerSptDensity change: 0 -> 20\n"), std::string::npos) << log();
    EXPECT_EQ(log().find("powerSptDensity is changed"), std::string::npos);
    EXPECT_EQ(state.previous.powerSptDensity, 20);
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Unchanged);
}

TEST_F(SupervisionTest, PowerChangeWithRadioEnabledAppliesTheNewPower) {
    start_with("1", "1", "0");
    settle();
    set_option("sasConfig", "RadioEnable", "1");
    settle();
    clear_log();
    set_option("sasConfig", "powerSpectralDensity", "20");
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Changed);
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
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Changed);
    EXPECT_NE(log().find("[SAS] sas radio enable.\n"), std::string::npos) << log();
    EXPECT_EQ(log().find("powerSptDensity is changed"), std::string::npos);
}

TEST_F(SupervisionTest, RulesRemovedBehindTheDaemonsBackAreRestoredBySteadyPass) {
    start_with("1", "1", "0");
    settle();
    ASSERT_TRUE(all_gates_closed()) << describe_gates();
    shell("iptables -F OUTPUT; /usr/sbin/ebtables -F BRIDGE_FORWARD; echo 1 > /proc/sys/net/ipv4/ip_forward");
    ASSERT_FALSE(icmp_drop_rule_present());
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Unchanged);
    EXPECT_TRUE(all_gates_closed()) << describe_gates();
}

TEST_F(SupervisionTest, RulesAddedBehindTheBackOfAnOpenDeviceAreRemoved) {
    start_with("0", "0", "0");
    settle();
    shell("iptables -I OUTPUT -p icmp --icmp-type 8 -j DROP; echo 0 > /proc/sys/net/ipv4/ip_forward");
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Unchanged);
    EXPECT_TRUE(all_gates_open()) << describe_gates();
}

TEST_F(SupervisionTest, LteLinkDownIsLoggedAndUpStoresTheCellRange) {
    start_with("1", "1", "0");
    settle();
    clear_log();
    set_modem("1", "3625000", "20");
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Changed);
    EXPECT_NE(log().find("[SAS] lteConnected change: 1 -> 0\n"), std::string::npos) << log();
    EXPECT_NE(log().find("[SAS] LTE is not in connection.\n"), std::string::npos);
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Unchanged);

    set_option("cellInfo", "lowFrequency", "");
    clear_log();
    set_modem("4", "3625000", "20");
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Changed);
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
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Changed);
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
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Changed);
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
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Unchanged);
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Unchanged);
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
    for (int i = 0; i < 3; ++i) EXPECT_EQ(run_supervision_pass(state), PassOutcome::Unchanged);
    EXPECT_TRUE(all_gates_closed()) << describe_gates();
    EXPECT_EQ(count(log(), kUnreadableLine), 1u) << log();
    EXPECT_EQ(log().find("sas disable"), std::string::npos) << log();
    EXPECT_EQ(log().find("recovered"), std::string::npos) << log();

    write_file(kSasConfigPath, good);
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Unchanged);
    EXPECT_EQ(count(log(), "[SAS] /etc/config/sas can be read again.\n"), 1u) << log();
    EXPECT_TRUE(all_gates_closed()) << describe_gates();
}

TEST_P(UnreadableConfiguration, SasDisabledBeforeLeavesTrafficAsItIs) {
    start_with("0", "0", "0");
    ASSERT_EQ(settle(), 2);
    ASSERT_TRUE(all_gates_open()) << describe_gates();
    break_the_file();
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Unchanged);
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
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Unchanged);
    EXPECT_TRUE(all_gates_closed()) << describe_gates();
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Unchanged);
    EXPECT_EQ(count(log(), kUnreadableLine), 1u) << log();
}

INSTANTIATE_TEST_SUITE_P(Faults, UnreadableConfiguration,
                         ::testing::Values("missing", "empty", "unparsable"));

TEST_F(SupervisionTest, DisablingSasOpensTrafficAndResetsTheState) {
    start_with("1", "1", "0");
    settle();
    ASSERT_TRUE(all_gates_closed()) << describe_gates();
    clear_log();
    set_option("config", "enableMode", "0");
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Changed);
    EXPECT_NE(log().find("[SAS] sasEnable change: 1 -> 0\n"), std::string::npos) << log();
    EXPECT_NE(log().find("[SAS] sas disable.\n"), std::string::npos);
    EXPECT_TRUE(all_gates_open()) << describe_gates();
    EXPECT_EQ(settle(), 1);
}

TEST_F(SupervisionTest, StandAloneModeStartsOneWorkerAndRestartsItOnConfigurationChange) {
    start_with("1", "0", "0");
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Changed);
    EXPECT_NE(log().find("[SAS] CPE is communicating with SAS using StandAlone.\n"), std::string::npos)
        << log();
    EXPECT_EQ(count(log(), "create standalone thread["), 1u);
    EXPECT_EQ(log().find("sas configuration is changed"), std::string::npos);
    start_standalone_worker();  // a second start while one exists is ignored
    EXPECT_EQ(count(log(), "create standalone thread["), 1u);

    settle();
    clear_log();
    set_option("config", "callSign", "CALL9");
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Changed);
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
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::Changed);
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
}  // namespace cbsd::daemon
