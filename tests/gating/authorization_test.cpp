#include "gating/authorization.h"

#include "config/uci_store.h"
#include "base/cbsd_state.h"
#include "gating/gates.h"
#include "gating_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace cbsd;
using namespace cbsd::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

const char* const kSasConfig =
    "config sas 'config'\n"
    "\toption antennaGain '6'\n"
    "\n"
    "config sas 'sasConfig'\n"
    "\toption RadioEnable '1'\n"
    "\toption powerSpectralDensity '20'\n"
    "\n"
    "config sas 'operation'\n"
    "\toption status 'Authorized'\n";

class AuthorizationTest : public GatingTest {
protected:
    void SetUp() override {
        GatingTest::SetUp();
        add_interface("eth1.112", "lab0");
        add_interface("usb0.112", "lab1");
        shell("mkdir -p /etc/config");
        write_file("/etc/config/sas", kSasConfig);
        set_modem(R"({"bandwidth": 20})");
    }

    static void set_modem(const std::string& state) { write_file("/etc/lab/modem.json", state); }

    static std::string sas_option(const char* section, const char* option) {
        char value[128] = {};
        config::config_get(config::kSasConfigPath, section, option, value, sizeof value);
        return value;
    }

    static void expect_all_open() {
        EXPECT_EQ(ip_forward(), "1\n1\n");
        EXPECT_THAT(output_rules(), IsEmpty());
        EXPECT_THAT(bridge_rules(), IsEmpty());
    }

    static void expect_all_closed() {
        EXPECT_EQ(ip_forward(), "0\n0\n");
        EXPECT_THAT(output_rules(),
                    ElementsAre("-A OUTPUT -o br-lan -p icmp -m icmp --icmp-type 8/0 -j ACCEPT",
                                "-A OUTPUT -p icmp -m icmp --icmp-type 8 -j DROP"));
        EXPECT_THAT(bridge_rules(), ElementsAre("-o usb0.112+ -j DROP ", "-o eth1.112+ -j DROP "));
    }

    static void open_device_quietly() {
        set_kernel_forwarding(1, 1);
        shell("iptables -F OUTPUT; ebtables -F BRIDGE_FORWARD");
    }

    static void close_device_quietly() {
        gating::unauthorize_device(0);
        shell("rm -f /root/sas/sas.log /etc/lab/syslog.jsonl");
    }
};

// ----- switches --------------------------------------------------------------

TEST_F(AuthorizationTest, UnauthorizeClosesEveryGateInOrder) {
    open_device_quietly();
    gating::unauthorize_device(1);
    expect_all_closed();
    EXPECT_THAT(log_messages(),
                ElementsAre("[SAS] IP forward is disable.", "[SAS] firewall ICMP is disable.",
                            "[SAS] bridge forward is disable.", "[SAS] bridge forward is disable.",
                            "[SAS] device has been unauthorized.", ""));
    EXPECT_EQ(syslog_records().size(), 5u);
    EXPECT_EQ(cache_value("SAS_IP_FORWARD"), "0");
    EXPECT_EQ(cache_value("SAS_FIREWALL_ICMP"), "0");
    EXPECT_EQ(cache_value("SAS_BRIDGE_FORWARD"), "0");
}

TEST_F(AuthorizationTest, UnauthorizeOnAClosedDeviceLogsOnlyTheAnnouncement) {
    close_device_quietly();
    gating::unauthorize_device(1);
    expect_all_closed();
    EXPECT_EQ(log_messages().size(), 2u);
    EXPECT_NE(log_text().find("[SAS] device has been unauthorized.\n\n"), std::string::npos);
    EXPECT_THAT(syslog_records(),
                ElementsAre(R"({"priority": "5", "tag": "cbsd", "text": "[SAS] device has been unauthorized.\n\n"})"));
}

TEST_F(AuthorizationTest, AuthorizeOpensEveryGateInOrder) {
    close_device_quietly();
    gating::authorize_device(1);
    expect_all_open();
    EXPECT_THAT(log_messages(),
                ElementsAre("[SAS] IP forward is enable.", "[SAS] firewall ICMP is enable.",
                            "[SAS] bridge forward is enable.", "[SAS] device has been authorized.",
                            ""));
    EXPECT_EQ(cache_value("SAS_BRIDGE_FORWARD"), "1");
}

TEST_F(AuthorizationTest, AuthorizeWithoutAnnouncementOnAnOpenDeviceLogsNothing) {
    open_device_quietly();
    gating::authorize_device(0);
    expect_all_open();
    EXPECT_EQ(log_text(), "");
    EXPECT_THAT(syslog_records(), IsEmpty());
    // The inspections ran: the forwarding check left its mirror in the cache.
    EXPECT_EQ(cache_value("SAS_IP_FORWARD"), "1");
}

TEST_F(AuthorizationTest, RecoverAlwaysLogs) {
    open_device_quietly();
    gating::recover_network();
    gating::recover_network();
    expect_all_open();
    EXPECT_THAT(log_messages(), ElementsAre("[SAS] device network has been recovered.", "",
                                            "[SAS] device network has been recovered.", ""));
    EXPECT_EQ(syslog_records().size(), 2u);
}

TEST_F(AuthorizationTest, RecoverOpensAClosedDevice) {
    close_device_quietly();
    gating::recover_network();
    expect_all_open();
    EXPECT_EQ(log_messages().size(), 5u);
}

TEST_F(AuthorizationTest, UnauthorizeRepairsAPartlyOpenedDevice) {
    close_device_quietly();
    shell("ebtables -D BRIDGE_FORWARD -o eth1.112+ -j DROP; echo 1 > /proc/sys/net/ipv4/ip_forward");
    gating::unauthorize_device(0);
    EXPECT_EQ(ip_forward(), "0\n0\n");
    EXPECT_THAT(bridge_rules(), ElementsAre("-o usb0.112+ -j DROP ", "-o eth1.112+ -j DROP ",
                                            "-o usb0.112+ -j DROP "));
    EXPECT_THAT(log_messages(),
                ElementsAre("[SAS] IP forward is disable.", "[SAS] bridge forward is disable.",
                            "[SAS] bridge forward is disable."));
}

// ----- state reset -------------------------------------------------------------

TEST_F(AuthorizationTest, ClearCbsdStateResetsThePublishedState) {
    gating::clear_cbsd_state();
    EXPECT_EQ(sas_option("sasConfig", "RadioEnable"), "0");
    EXPECT_EQ(sas_option("operation", "status"), "Unregistered");
    EXPECT_EQ(sas_option("operation", "status"), base::cbsd_state_name(base::kUnregistered));
    // An empty value removes the option, as the router's UCI library does.
    EXPECT_EQ(sas_option("sasConfig", "powerSpectralDensity"), "");
    EXPECT_EQ(read_file("/etc/config/sas").find("'20'"), std::string::npos);
    EXPECT_EQ(sas_option("config", "antennaGain"), "6");
    EXPECT_THAT(log_messages(),
                ElementsAre("[SAS] clear cbsd state.", "[SAS] set RadioEnable=0",
                            "[SAS] set status=Unregistered", "[SAS] set powerSpectralDensity=\"\""));
    EXPECT_THAT(syslog_records(), IsEmpty());
}

TEST_F(AuthorizationTest, ClearCbsdStateWithoutSectionsWritesNothing) {
    write_file("/etc/config/sas", "config sas 'config'\n\toption enableMode '1'\n");
    gating::clear_cbsd_state();
    EXPECT_EQ(read_file("/etc/config/sas").find("RadioEnable"), std::string::npos);
    // The writes did not land: said once, besides the three lines of the reset.
    auto messages = log_messages();
    ASSERT_EQ(messages.size(), 5u) << log_text();
    EXPECT_NE(log_text().find("[SAS] /etc/config/sas cannot be written (sasConfig.RadioEnable), "
                              "the decision stays in memory.\n"), std::string::npos) << log_text();
}

// ----- transmit power ------------------------------------------------------------

TEST_F(AuthorizationTest, PowerIsDensityPlusBandwidthFactorMinusGain) {
    EXPECT_EQ(gating::compute_transmit_power(), 27);
    EXPECT_EQ(log_text(), "");
}

TEST_F(AuthorizationTest, BandwidthFactorTable) {
    const std::pair<const char*, int32_t> cases[] = {
        {R"({"bandwidth": 20})", 13}, {R"({"bandwidth": 15})", 11}, {R"({"bandwidth": 10})", 10},
        {R"({"bandwidth": 5})", 7},   {R"({"bandwidth": 3})", 0},   {R"({"bandwidth": 1.4})", 0},
        {R"({"bandwidth": 40})", 0},  {R"({"fail": true})", 0},     {R"({})", 0},
    };
    for (const auto& [modem, factor] : cases) {
        set_modem(modem);
        EXPECT_EQ(gating::compute_transmit_power(), 20 + factor - 6) << modem;
    }
}

TEST_F(AuthorizationTest, UnreadableStoreCountsGainAsMinusOneAndDensityAsZero) {
    shell("rm -f /etc/config/sas");
    EXPECT_EQ(gating::compute_transmit_power(), 0 + 13 + 1);
    EXPECT_THAT(log_messages(), ElementsAre("[SAS] antennaGain No value.",
                                            "[SAS] powerSpectralDensity No value."));
    EXPECT_THAT(syslog_records(), IsEmpty());
}

TEST_F(AuthorizationTest, MissingOptionsCountAsZero) {
    write_file("/etc/config/sas", "config sas 'config'\n\nconfig sas 'sasConfig'\n");
    set_modem(R"({"bandwidth": 10})");
    EXPECT_EQ(gating::compute_transmit_power(), 10);
    EXPECT_EQ(log_text(), "");
}

TEST_F(AuthorizationTest, NegativeAndClearedDensity) {
    config::config_set(config::kSasConfigPath, "sasConfig", "powerSpectralDensity", "-7");
    config::config_set(config::kSasConfigPath, "config", "antennaGain", "-2");
    EXPECT_EQ(gating::compute_transmit_power(), -7 + 13 + 2);
    gating::clear_cbsd_state();
    EXPECT_EQ(gating::compute_transmit_power(), 0 + 13 + 2);
}

TEST_F(AuthorizationTest, ApplyingThePowerChangesNothing) {
    std::string before = read_file("/etc/config/sas");
    gating::apply_transmit_power(true, 27);
    gating::apply_transmit_power(false, -1);
    EXPECT_EQ(read_file("/etc/config/sas"), before);
    EXPECT_EQ(log_text(), "");
}

}  // namespace
