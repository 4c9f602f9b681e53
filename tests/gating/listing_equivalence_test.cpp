// The in-process readings of rule listings and interfaces give the same answer
// as the shell pipelines they replace, over the edge cases of both.
#include "gating/rule_listing.h"
#include "gating/vlan_interfaces.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

using namespace cbsd;
using cbsd::test::shell;
using cbsd::test::write_file;

namespace {

constexpr const char* kIcmpRule = "-A OUTPUT -p icmp -m icmp --icmp-type 8 -j DROP";
constexpr const char* kEthRule = "-o eth1.112+ -j DROP";

// What the replaced pipelines answered for a listing: grep's output, newlines
// stripped, searched for the rule.
bool pipeline_shows(const std::string& listing, const std::string& grep, const char* rule) {
    write_file("/tmp/listing", listing);
    return shell(grep + " < /tmp/listing").find(rule) != std::string::npos;
}

bool old_icmp_shows(const std::string& listing) {
    return pipeline_shows(listing, "grep '\\-A OUTPUT \\-p icmp \\-m icmp \\-\\-icmp-type 8 \\-j DROP'",
                          kIcmpRule);
}

bool old_bridge_shows(const std::string& listing) {
    return pipeline_shows(listing, "grep -x '\\-o eth1.112+ \\-j DROP '", kEthRule);
}

const char* const kLegacyIptables =
    "-P OUTPUT ACCEPT\n"
    "-A OUTPUT -o br-lan -p icmp -m icmp --icmp-type 8/0 -j ACCEPT\n"
    "-A OUTPUT -p icmp -m icmp --icmp-type 8 -j DROP\n";
// iptables-nft lists the same rules and, when legacy tables exist too, a
// warning comment first.
const char* const kNftIptables =
    "# Warning: iptables-legacy tables present, use iptables-legacy to see them\n"
    "-P OUTPUT ACCEPT\n"
    "-A OUTPUT -o br-lan -p icmp -m icmp --icmp-type 8/0 -j ACCEPT\n"
    "-A OUTPUT -p icmp -m icmp --icmp-type 8 -j DROP\n"
    "-A OUTPUT -p icmp -m icmp --icmp-type 8 -j DROP\n";

const char* const kBridgeHeader = "Bridge table: filter\n\nBridge chain: BRIDGE_FORWARD, entries: 2, policy: RETURN\n";

}  // namespace

TEST(IcmpListing, AgreesWithThePipelineOnBothIptables) {
    for (const char* listing : {kLegacyIptables, kNftIptables, "", "-P OUTPUT ACCEPT\n",
                                "-A OUTPUT -p icmp -m icmp --icmp-type 8/0 -j ACCEPT\n",
                                "-A OUTPUT -p icmp -m icmp --icmp-type 8 -j DROP"}) {
        EXPECT_EQ(gating::count_lines_containing(listing, kIcmpRule) > 0, old_icmp_shows(listing))
            << listing;
    }
}

TEST(IcmpListing, CountsDuplicates) {
    EXPECT_EQ(gating::count_lines_containing(kLegacyIptables, kIcmpRule), 1);
    EXPECT_EQ(gating::count_lines_containing(kNftIptables, kIcmpRule), 2);
    EXPECT_EQ(gating::count_lines_containing("", kIcmpRule), 0);
    EXPECT_EQ(gating::count_lines_containing(nullptr, kIcmpRule), 0);
}

TEST(BridgeListing, AgreesWithThePipelineOnTheLegacyForm) {
    std::string legacy = std::string(kBridgeHeader) + "-o eth1.112+ -j DROP \n-o usb0.112+ -j DROP \n";
    for (const std::string& listing :
         {legacy, std::string(kBridgeHeader), std::string(""), std::string("-o eth1.112+ -j DROP  \n"),
          std::string("-o eth1x112+ -j DROP \n"), std::string(" -o eth1.112+ -j DROP \n"),
          std::string("-o eth1.112+ -j DROP -j ACCEPT \n")}) {
        EXPECT_EQ(gating::count_rule_lines(listing.c_str(), kEthRule) > 0, old_bridge_shows(listing))
            << listing;
    }
}

TEST(BridgeListing, RecognisesTheNftFormThePipelineMissed) {
    std::string nft = std::string(kBridgeHeader) + "-o eth1.112+ -j DROP\n-o eth1.112+ -j DROP\n";
    EXPECT_FALSE(old_bridge_shows(nft));
    EXPECT_EQ(gating::count_rule_lines(nft.c_str(), kEthRule), 2);
    EXPECT_EQ(gating::count_rule_lines("-o eth1.112+ -j DROP", kEthRule), 1);  // no final newline
}

TEST(BridgeListing, CountsDuplicatesInBothForms) {
    const char* mixed = "-o eth1.112+ -j DROP \n-o eth1.112+ -j DROP\n-o usb0.112+ -j DROP\n";
    EXPECT_EQ(gating::count_rule_lines(mixed, kEthRule), 2);
    EXPECT_EQ(gating::count_rule_lines(mixed, "-o usb0.112+ -j DROP"), 1);
    EXPECT_EQ(gating::count_rule_lines("", kEthRule), 0);
    EXPECT_EQ(gating::count_rule_lines("-o eth1.112+ -j DROPX\n", kEthRule), 0);
}

TEST(VlanNames, DotIsAnyCharacterAndTheMatchIsASubstring) {
    EXPECT_TRUE(gating::name_matches("eth1.112", "eth1.112"));
    EXPECT_TRUE(gating::name_matches("eth1x112", "eth1.112"));
    EXPECT_TRUE(gating::name_matches("veth1.1120", "eth1.112"));
    EXPECT_FALSE(gating::name_matches("eth1.11", "eth1.112"));
    EXPECT_FALSE(gating::name_matches("eth2.112", "eth1.112"));
    EXPECT_FALSE(gating::name_matches("", "eth1.112"));
}

// Runs in the test's own network namespace, with real interfaces.
TEST(VlanInterfaces, AgreeWithIfconfigGrepWc) {
    auto old_count = [] { return std::stoi(shell("ifconfig | grep eth1.112 | wc -l")); };
    auto agree = [&](const char* when) {
        EXPECT_EQ(gating::count_up_interfaces("eth1.112") >= 1, old_count() >= 1) << when;
    };
    shell("for l in eth1.112 eth1x112 veth1.1120 eth1.11; do ip link del $l 2>/dev/null; done");
    agree("none");
    shell("ip link add eth1.11 type veth peer name p0 && ip link set eth1.11 up");
    agree("only a shorter name");
    EXPECT_EQ(gating::count_up_interfaces("eth1.112"), 0);
    shell("ip link add eth1.112 type veth peer name p1");
    agree("down");
    EXPECT_EQ(gating::count_up_interfaces("eth1.112"), 0);
    shell("ip link set eth1.112 up");
    agree("up");
    EXPECT_EQ(gating::count_up_interfaces("eth1.112"), 1);
    shell("ip link add eth1x112 type veth peer name p2 && ip link set eth1x112 up;"
          "ip link add veth1.1120 type veth peer name p3 && ip link set veth1.1120 up");
    agree("three");
    EXPECT_EQ(gating::count_up_interfaces("eth1.112"), old_count());
    shell("ip link del eth1.112; ip link del eth1x112; ip link del veth1.1120; ip link del eth1.11");
    agree("removed");
}
