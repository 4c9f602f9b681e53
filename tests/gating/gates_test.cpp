#include "gating/gates.h"

#include "gating_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>

using namespace cbsd;
using namespace cbsd::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

const char* const kLanAccept = "-A OUTPUT -o br-lan -p icmp -m icmp --icmp-type 8/0 -j ACCEPT";
const char* const kIcmpDrop = "-A OUTPUT -p icmp -m icmp --icmp-type 8 -j DROP";
const char* const kEthRule = "-o eth1.112+ -j DROP ";
const char* const kUsbRule = "-o usb0.112+ -j DROP ";

class IpForwardGate : public GatingTest {};
class IcmpGate : public GatingTest {};
class BridgeGate : public GatingTest {};
class RuntimeCache : public GatingTest {};

// ----- runtime cache -----------------------------------------------------

TEST_F(RuntimeCache, ResetRecreatesTheFileWithOnlyTheCacheSection) {
    write_file("/tmp/sas_cache", "config cache 'cache'\n\toption SAS_IP_FORWARD '0'\n");
    gating::reset_runtime_cache();
    EXPECT_EQ(read_file("/tmp/sas_cache"), "config cache \"cache\"\n");
    EXPECT_EQ(cache_value("SAS_IP_FORWARD"), "");
}

TEST_F(RuntimeCache, ResetReplacesADirectoryInTheWay) {
    shell("rm -f /tmp/sas_cache; mkdir -p /tmp/sas_cache/inner");
    gating::reset_runtime_cache();
    EXPECT_EQ(read_file("/tmp/sas_cache"), "config cache \"cache\"\n");
}

// ----- IP forwarding -------------------------------------------------------

TEST_F(IpForwardGate, CheckMirrorsTheKernelIntoTheCache) {
    set_kernel_forwarding(1, 0);
    EXPECT_TRUE(gating::is_ip_forward_enabled());
    EXPECT_EQ(cache_value("SAS_IP_FORWARD"), "1");
    set_kernel_forwarding(0, 1);
    EXPECT_FALSE(gating::is_ip_forward_enabled());
    EXPECT_EQ(cache_value("SAS_IP_FORWARD"), "0");
    EXPECT_THAT(log_messages(), IsEmpty());
}

TEST_F(IpForwardGate, CheckWorksWithoutACacheFile) {
    shell("rm -f /tmp/sas_cache");
    set_kernel_forwarding(1, 1);
    // With no cache to read back from, the check cannot confirm the value.
    EXPECT_FALSE(gating::is_ip_forward_enabled());
}

TEST_F(IpForwardGate, EnableSwitchesBothFamiliesOnceAndLogs) {
    gating::set_ip_forward(true);
    EXPECT_EQ(ip_forward(), "1\n1\n");
    EXPECT_EQ(cache_value("SAS_IP_FORWARD"), "1");
    EXPECT_THAT(log_messages(), ElementsAre("[SAS] IP forward is enable."));
    EXPECT_THAT(syslog_records(),
                ElementsAre(R"({"priority": "5", "tag": "cbsd", "text": "[SAS] IP forward is enable.\n"})"));
    gating::set_ip_forward(true);
    EXPECT_EQ(log_messages().size(), 1u);
}

TEST_F(IpForwardGate, DisableSwitchesBothFamiliesOnceAndLogs) {
    set_kernel_forwarding(1, 1);
    gating::set_ip_forward(false);
    EXPECT_EQ(ip_forward(), "0\n0\n");
    EXPECT_EQ(cache_value("SAS_IP_FORWARD"), "0");
    gating::set_ip_forward(false);
    EXPECT_THAT(log_messages(), ElementsAre("[SAS] IP forward is disable."));
}

TEST_F(IpForwardGate, OnlyTheIpv4SwitchIsInspected) {
    set_kernel_forwarding(1, 0);
    gating::set_ip_forward(true);
    EXPECT_EQ(ip_forward(), "1\n0\n");
    set_kernel_forwarding(0, 1);
    gating::set_ip_forward(false);
    EXPECT_EQ(ip_forward(), "0\n1\n");
    EXPECT_THAT(log_messages(), IsEmpty());
}

TEST_F(IpForwardGate, ResetAlwaysEnablesAndLogs) {
    gating::reset_ip_forward();
    EXPECT_EQ(ip_forward(), "1\n1\n");
    EXPECT_EQ(cache_value("SAS_IP_FORWARD"), "1");
    gating::reset_ip_forward();
    EXPECT_THAT(log_messages(), ElementsAre("[SAS] reset IP forward enable.",
                                            "[SAS] reset IP forward enable."));
    EXPECT_EQ(syslog_records().size(), 2u);
}

// ----- ICMP echo rule --------------------------------------------------------

TEST_F(IcmpGate, OpenWithoutTheDropRule) {
    EXPECT_TRUE(gating::is_firewall_icmp_open());
    shell("iptables -A OUTPUT -o br-lan -p icmp --icmp-type 8/0 -j ACCEPT");
    EXPECT_TRUE(gating::is_firewall_icmp_open());
    shell("iptables -A OUTPUT -p icmp --icmp-type 8 -j DROP");
    EXPECT_FALSE(gating::is_firewall_icmp_open());
}

TEST_F(IcmpGate, CloseInsertsTheLanAcceptAheadOfTheDrop) {
    shell("iptables -A OUTPUT -p tcp --dport 22 -j ACCEPT");
    gating::set_firewall_icmp(false);
    EXPECT_THAT(output_rules(),
                ElementsAre(kLanAccept, kIcmpDrop, "-A OUTPUT -p tcp -m tcp --dport 22 -j ACCEPT"));
    EXPECT_EQ(cache_value("SAS_FIREWALL_ICMP"), "0");
    EXPECT_THAT(log_messages(), ElementsAre("[SAS] firewall ICMP is disable."));
    EXPECT_FALSE(gating::is_firewall_icmp_open());
}

TEST_F(IcmpGate, ClosingTwiceInsertsTheRulesOnce) {
    gating::set_firewall_icmp(false);
    gating::set_firewall_icmp(false);
    EXPECT_THAT(output_rules(), ElementsAre(kLanAccept, kIcmpDrop));
    EXPECT_EQ(log_messages().size(), 1u);
    EXPECT_EQ(syslog_records().size(), 1u);
}

TEST_F(IcmpGate, OpenDeletesOneInstanceOfEachRule) {
    gating::set_firewall_icmp(false);
    shell("iptables -A OUTPUT -p icmp --icmp-type 8 -j DROP;"
          "iptables -A OUTPUT -o br-lan -p icmp --icmp-type 8/0 -j ACCEPT");
    gating::set_firewall_icmp(true);
    EXPECT_THAT(output_rules(), ElementsAre(kIcmpDrop, kLanAccept));
    EXPECT_EQ(cache_value("SAS_FIREWALL_ICMP"), "1");
    EXPECT_THAT(log_messages(),
                ElementsAre("[SAS] firewall ICMP is disable.", "[SAS] firewall ICMP is enable."));
}

TEST_F(IcmpGate, OpeningAnOpenGateDoesNothing) {
    shell("iptables -A OUTPUT -o br-lan -p icmp --icmp-type 8/0 -j ACCEPT");
    gating::set_firewall_icmp(true);
    EXPECT_THAT(output_rules(), ElementsAre(kLanAccept));
    EXPECT_THAT(log_messages(), IsEmpty());
    EXPECT_EQ(cache_value("SAS_FIREWALL_ICMP"), "");
}

TEST_F(IcmpGate, ClearRemovesEveryDuplicate) {
    gating::set_firewall_icmp(false);
    shell("iptables -A OUTPUT -p icmp --icmp-type 8 -j DROP;"
          "iptables -A OUTPUT -p icmp --icmp-type 8 -j DROP;"
          "iptables -A OUTPUT -o br-lan -p icmp --icmp-type 8/0 -j ACCEPT;"
          "iptables -A OUTPUT -p udp -j ACCEPT");
    shell("rm -f /root/sas/sas.log");
    gating::clear_firewall_icmp_rules();
    EXPECT_THAT(output_rules(), ElementsAre("-A OUTPUT -p udp -j ACCEPT"));
    EXPECT_EQ(cache_value("SAS_FIREWALL_ICMP"), "1");
    EXPECT_THAT(log_messages(), ElementsAre("[SAS] clear firewall ICMP rules."));
}

TEST_F(IcmpGate, MissingIptablesGivesAGateThatReadsOpen) {
    shell("mkdir -p /tmp/nobin && printf '#!/bin/sh\\nexit 127\\n' > /tmp/nobin/iptables &&"
          "chmod +x /tmp/nobin/iptables");
    std::string saved = std::getenv("PATH");
    setenv("PATH", ("/tmp/nobin:" + saved).c_str(), 1);
    EXPECT_TRUE(gating::is_firewall_icmp_open());
    gating::set_firewall_icmp(false);  // the insertions fail unnoticed
    gating::clear_firewall_icmp_rules();
    setenv("PATH", saved.c_str(), 1);
    EXPECT_THAT(output_rules(), IsEmpty());
    EXPECT_EQ(cache_value("SAS_FIREWALL_ICMP"), "1");
    EXPECT_THAT(log_messages(), ElementsAre("[SAS] firewall ICMP is disable.",
                                            "[SAS] clear firewall ICMP rules."));
}

TEST_F(IcmpGate, ClearGivesUpOnADeletionThatNeverFails) {
    shell("mkdir -p /tmp/okbin && printf '#!/bin/sh\\nexit 0\\n' > /tmp/okbin/iptables &&"
          "chmod +x /tmp/okbin/iptables");
    std::string saved = std::getenv("PATH");
    setenv("PATH", ("/tmp/okbin:" + saved).c_str(), 1);
    auto start = std::chrono::steady_clock::now();
    gating::clear_firewall_icmp_rules();
    auto took = std::chrono::steady_clock::now() - start;
    setenv("PATH", saved.c_str(), 1);
    EXPECT_LT(took, std::chrono::seconds(30));
    auto messages = log_messages();
    ASSERT_EQ(messages.size(), 3u);
    EXPECT_EQ(messages[1],
              "[SAS] rule deletion never failed, giving up: iptables -D OUTPUT -p icmp "
              "--icmp-type 8 -j DROP >/dev/null 2>&1");
    EXPECT_EQ(cache_value("SAS_FIREWALL_ICMP"), "1");
}

// ----- bridge forwarding -------------------------------------------------------

TEST_F(BridgeGate, WithoutVlanInterfacesTheGateIsAlwaysOpen) {
    shell("ebtables -A BRIDGE_FORWARD -o eth1.112+ -j DROP;"
          "ebtables -A BRIDGE_FORWARD -o usb0.112+ -j DROP");
    EXPECT_TRUE(gating::is_bridge_forward_open());
    shell("ebtables -F BRIDGE_FORWARD");
    gating::set_bridge_forward(false);
    EXPECT_THAT(bridge_rules(), IsEmpty());
    EXPECT_THAT(log_messages(), IsEmpty());
    EXPECT_EQ(cache_value("SAS_BRIDGE_FORWARD"), "");
}

TEST_F(BridgeGate, InterfacesThatAreDownDoNotCount) {
    shell("ip link add eth1.112 type veth peer name lab0");
    gating::set_bridge_forward(false);
    EXPECT_THAT(bridge_rules(), IsEmpty());
}

TEST_F(BridgeGate, CloseWithTheEthernetVlanOnly) {
    add_interface("eth1.112", "lab0");
    EXPECT_TRUE(gating::is_bridge_forward_open());
    gating::set_bridge_forward(false);
    EXPECT_THAT(bridge_rules(), ElementsAre(kEthRule));
    EXPECT_FALSE(gating::is_bridge_forward_open());
    EXPECT_EQ(cache_value("SAS_BRIDGE_FORWARD"), "0");
    gating::set_bridge_forward(false);
    EXPECT_THAT(bridge_rules(), ElementsAre(kEthRule));
    EXPECT_THAT(log_messages(), ElementsAre("[SAS] bridge forward is disable."));
}

TEST_F(BridgeGate, CloseWithTheUsbVlanOnly) {
    add_interface("usb0.112", "lab1");
    gating::set_bridge_forward(false);
    EXPECT_THAT(bridge_rules(), ElementsAre(kUsbRule));
    EXPECT_FALSE(gating::is_bridge_forward_open());
    EXPECT_THAT(log_messages(), ElementsAre("[SAS] bridge forward is disable."));
}

TEST_F(BridgeGate, CloseWithBothVlansLogsTwice) {
    add_interface("eth1.112", "lab0");
    add_interface("usb0.112", "lab1");
    gating::set_bridge_forward(false);
    EXPECT_THAT(bridge_rules(), ElementsAre(kUsbRule, kEthRule));
    EXPECT_THAT(log_messages(), ElementsAre("[SAS] bridge forward is disable.",
                                            "[SAS] bridge forward is disable."));
    EXPECT_EQ(syslog_records().size(), 2u);
}

TEST_F(BridgeGate, OnlyTheEthernetRuleCountsWhenBothVlansExist) {
    add_interface("eth1.112", "lab0");
    add_interface("usb0.112", "lab1");
    shell("ebtables -A BRIDGE_FORWARD -o usb0.112+ -j DROP");
    EXPECT_TRUE(gating::is_bridge_forward_open());
    gating::set_bridge_forward(false);
    EXPECT_THAT(bridge_rules(), ElementsAre(kUsbRule, kEthRule, kUsbRule));
}

TEST_F(BridgeGate, RulesAreRecognisedInBothListingForms) {
    add_interface("eth1.112", "lab0");
    shell("ebtables -A BRIDGE_FORWARD -o eth1.112+ -j DROP");
    EXPECT_FALSE(gating::is_bridge_forward_open());
    // ebtables-nft itself lists the rule without the legacy trailing blank.
    std::string saved = std::getenv("PATH");
    setenv("PATH", "/usr/sbin:/usr/bin:/sbin:/bin", 1);
    EXPECT_FALSE(gating::is_bridge_forward_open());
    gating::set_bridge_forward(true);
    EXPECT_TRUE(gating::is_bridge_forward_open());
    gating::set_bridge_forward(false);
    gating::set_bridge_forward(false);
    setenv("PATH", saved.c_str(), 1);
    EXPECT_THAT(bridge_rules(), ElementsAre(kEthRule));
}

TEST_F(BridgeGate, AMissingListingToolCountsAsNoRule) {
    add_interface("eth1.112", "lab0");
    shell("ebtables -A BRIDGE_FORWARD -o eth1.112+ -j DROP");
    std::string saved = std::getenv("PATH");
    setenv("PATH", "/nonexistent", 1);
    EXPECT_TRUE(gating::is_bridge_forward_open());
    EXPECT_TRUE(gating::is_firewall_icmp_open());
    setenv("PATH", saved.c_str(), 1);
}

TEST_F(BridgeGate, OpenDeletesOneInstanceOfEachRule) {
    add_interface("eth1.112", "lab0");
    add_interface("usb0.112", "lab1");
    shell("ebtables -A BRIDGE_FORWARD -o eth1.112+ -j DROP;"
          "ebtables -A BRIDGE_FORWARD -o eth1.112+ -j DROP;"
          "ebtables -A BRIDGE_FORWARD -o usb0.112+ -j DROP;"
          "ebtables -A BRIDGE_FORWARD -o usb0.112+ -j DROP");
    gating::set_bridge_forward(true);
    EXPECT_THAT(bridge_rules(), ElementsAre(kEthRule, kUsbRule));
    EXPECT_EQ(cache_value("SAS_BRIDGE_FORWARD"), "1");
    EXPECT_THAT(log_messages(), ElementsAre("[SAS] bridge forward is enable."));
    gating::clear_bridge_forward_rules();
    EXPECT_THAT(bridge_rules(), IsEmpty());
}

TEST_F(BridgeGate, OpeningAnOpenGateDoesNothing) {
    add_interface("eth1.112", "lab0");
    shell("ebtables -A BRIDGE_FORWARD -o usb0.112+ -j DROP");
    gating::set_bridge_forward(true);
    EXPECT_THAT(bridge_rules(), ElementsAre(kUsbRule));
    EXPECT_THAT(log_messages(), IsEmpty());
}

TEST_F(BridgeGate, ClearRemovesEveryDuplicateWhateverInterfacesExist) {
    shell("for i in 1 2 3; do ebtables -A BRIDGE_FORWARD -o eth1.112+ -j DROP;"
          "ebtables -A BRIDGE_FORWARD -o usb0.112+ -j DROP; done;"
          "ebtables -A BRIDGE_FORWARD -o eth0+ -j DROP");
    gating::clear_bridge_forward_rules();
    EXPECT_THAT(bridge_rules(), ElementsAre("-o eth0+ -j DROP "));
    EXPECT_EQ(cache_value("SAS_BRIDGE_FORWARD"), "1");
    EXPECT_THAT(log_messages(), ElementsAre("[SAS] clear bridge forward rules."));
}

TEST_F(BridgeGate, ClearEndsWhenTheChainIsMissing) {
    shell("ebtables -X BRIDGE_FORWARD");
    gating::clear_bridge_forward_rules();
    EXPECT_EQ(cache_value("SAS_BRIDGE_FORWARD"), "1");
    add_interface("eth1.112", "lab0");
    // Without the chain nothing can be listed or inserted: the gate stays open.
    gating::set_bridge_forward(false);
    EXPECT_TRUE(gating::is_bridge_forward_open());
}

}  // namespace

namespace {

// Runs body with a fake `name` first on PATH that prints output and exits
// with status, as a failing firewall tool would.
template <typename Body>
void with_failing_tool(const char* name, const std::string& output, int status, Body body) {
    shell("mkdir -p /tmp/fakebin");
    write_file(std::string("/tmp/fakebin/") + name,
               "#!/bin/sh\nprintf '%b' '" + output + "'\necho simulated failure >&2\nexit " +
                   std::to_string(status) + "\n");
    shell(std::string("chmod +x /tmp/fakebin/") + name);
    std::string saved = std::getenv("PATH");
    setenv("PATH", ("/tmp/fakebin:" + saved).c_str(), 1);
    body();
    setenv("PATH", saved.c_str(), 1);
    shell("rm -rf /tmp/fakebin");
}

}  // namespace

// The replaced pipelines ignored the tool's exit status and read what it printed.
TEST_F(BridgeGate, AFailingListingToolIsReadLikeThePipelineDid) {
    add_interface("eth1.112", "lab0");
    with_failing_tool("ebtables", "-o eth1.112+ -j DROP\\n", 1,
                      [] { EXPECT_FALSE(gating::is_bridge_forward_open()); });
    with_failing_tool("ebtables", "", 1, [] { EXPECT_TRUE(gating::is_bridge_forward_open()); });
}

TEST_F(IcmpGate, AFailingListingToolIsReadLikeThePipelineDid) {
    with_failing_tool("iptables", "-A OUTPUT -p icmp -m icmp --icmp-type 8 -j DROP\\n", 4,
                      [] { EXPECT_FALSE(gating::is_firewall_icmp_open()); });
    with_failing_tool("iptables", "", 4, [] { EXPECT_TRUE(gating::is_firewall_icmp_open()); });
}
