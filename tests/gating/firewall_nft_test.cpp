// The nftables backend against the kernel's nf_tables, inside the unit-test
// sandbox's own network namespace; the gates driven through it keep their
// log lines and cache marks.
#ifdef CBSD_HAVE_NFTABLES

#include "gating/firewall_nft.h"
#include "gating/firewall_choice.h"

#include "gating_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace cbsd;
using namespace cbsd::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

const char* const kLanAccept = "oifname \"br-lan\" icmp type echo-request icmp code net-unreachable accept";
const char* const kIcmpDrop = "icmp type echo-request drop";
const char* const kEthDrop = "oifname \"eth1.112*\" drop";
const char* const kUsbDrop = "oifname \"usb0.112*\" drop";
// A firewall of someone else's, as fw4 keeps it.
const char* const kForeignTable =
    "table inet fw4 {\n"
    "\tchain output { type filter hook output priority 0; policy accept; tcp dport 22 accept; }\n"
    "}\n";

// The rule lines of one of our chains as `nft` lists them; none when absent.
std::vector<std::string> chain_rules(const std::string& family, const std::string& chain) {
    std::vector<std::string> rules;
    for (std::string line : lines_of(shell("nft list chain " + family + " cbsd " + chain +
                                           " 2>/dev/null"))) {
        line.erase(0, line.find_first_not_of('\t'));
        if (line.empty() || line.find('{') != std::string::npos || line == "}" ||
            line.rfind("type ", 0) == 0)
            continue;
        rules.push_back(line);
    }
    return rules;
}

bool table_exists(const std::string& family, const std::string& name) {
    return shell("nft list table " + family + " " + name + " >/dev/null 2>&1 && echo yes") ==
           "yes\n";
}

class NftablesGate : public GatingTest {
protected:
    void SetUp() override {
        // qemu-user (the cross builds' unit runs) does not pass nf_tables'
        // netlink protocol through; the backend then does nothing at all.
        if (!gating::nftables_usable()) GTEST_SKIP() << "no nf_tables netlink here";
        GatingTest::SetUp();
        shell("nft flush ruleset");  // the sandbox's own namespace: nothing else lives here
        write_file("/tmp/fw4.nft", kForeignTable);
        shell("nft -f /tmp/fw4.nft");
        gating::use_firewall_backend(gating::BackendKind::kNftables);
    }
    void TearDown() override { gating::use_firewall_backend(gating::BackendKind::kIptables); }
    static gating::FirewallBackend& nft() { return gating::nftables_backend(); }
    static bool foreign_rule_kept() {
        return shell("nft list chain inet fw4 output").find("tcp dport 22 accept") !=
               std::string::npos;
    }
};

}  // namespace

TEST(NftablesProbe, TheLibraryAnswersInTheSandboxUnlessEmulated) {
    // Under qemu-user the probe must say no instead of ending the process.
    EXPECT_EQ(gating::nftables_usable(), std::getenv("CBSD_UNDER_EMULATOR") == nullptr);
}

TEST_F(NftablesGate, IcmpCloseCreatesOurTableWithTheLanAcceptFirst) {
    EXPECT_FALSE(nft().icmp_drop_listed());
    nft().close_icmp();
    EXPECT_TRUE(nft().icmp_drop_listed());
    EXPECT_THAT(chain_rules("inet", "output"), ElementsAre(kLanAccept, kIcmpDrop));
    EXPECT_THAT(shell("nft list chain inet cbsd output"),
                ::testing::HasSubstr("type filter hook output priority filter; policy accept;"));
    EXPECT_TRUE(foreign_rule_kept());
}

TEST_F(NftablesGate, IcmpOpenEmptiesOurChainOnly) {
    nft().close_icmp();
    nft().open_icmp();
    EXPECT_FALSE(nft().icmp_drop_listed());
    EXPECT_THAT(chain_rules("inet", "output"), IsEmpty());
    EXPECT_TRUE(foreign_rule_kept());
}

TEST_F(NftablesGate, ClearDeletesOurTablesAndNothingElse) {
    nft().close_icmp();
    nft().close_bridge(gating::Vlan::kEthernet);
    nft().clear_icmp();
    nft().clear_bridge();
    EXPECT_FALSE(table_exists("inet", "cbsd"));
    EXPECT_FALSE(table_exists("bridge", "cbsd"));
    EXPECT_TRUE(foreign_rule_kept());
    // Clearing what is not there is quiet and harmless.
    nft().clear_icmp();
    nft().clear_bridge();
    EXPECT_TRUE(foreign_rule_kept());
}

TEST_F(NftablesGate, ATableDeletedBehindOurBackListsAsNoRuleAndComesBack) {
    nft().close_icmp();
    shell("nft delete table inet cbsd");
    EXPECT_FALSE(nft().icmp_drop_listed());
    nft().close_icmp();
    EXPECT_THAT(chain_rules("inet", "output"), ElementsAre(kLanAccept, kIcmpDrop));
}

TEST_F(NftablesGate, AReplacedForeignTableLeavesOursAlone) {
    nft().close_icmp();
    nft().close_bridge(gating::Vlan::kUsb);
    write_file("/tmp/fw4-reload.nft", std::string("delete table inet fw4\n") + kForeignTable);
    ASSERT_EQ(shell("nft -f /tmp/fw4-reload.nft && echo ok"), "ok\n");
    EXPECT_TRUE(nft().icmp_drop_listed());
    EXPECT_TRUE(nft().bridge_drop_listed(gating::Vlan::kUsb));
}

TEST_F(NftablesGate, BridgeDropsPerVlanPort) {
    EXPECT_FALSE(nft().bridge_drop_listed(gating::Vlan::kEthernet));
    nft().close_bridge(gating::Vlan::kEthernet);
    EXPECT_TRUE(nft().bridge_drop_listed(gating::Vlan::kEthernet));
    EXPECT_FALSE(nft().bridge_drop_listed(gating::Vlan::kUsb));
    nft().close_bridge(gating::Vlan::kUsb);
    EXPECT_THAT(chain_rules("bridge", "forward"), ElementsAre(kUsbDrop, kEthDrop));
    EXPECT_THAT(shell("nft list chain bridge cbsd forward"),
                ::testing::HasSubstr("type filter hook forward priority 0; policy accept;"));
    nft().open_bridge();
    EXPECT_FALSE(nft().bridge_drop_listed(gating::Vlan::kEthernet));
    EXPECT_FALSE(nft().bridge_drop_listed(gating::Vlan::kUsb));
}

TEST_F(NftablesGate, GatesKeepTheirLogLinesAndCacheMarks) {
    add_interface("eth1.112", "lab0");
    gating::set_firewall_icmp(false);
    gating::set_firewall_icmp(false);
    gating::set_bridge_forward(false);
    EXPECT_FALSE(gating::is_firewall_icmp_open());
    EXPECT_FALSE(gating::is_bridge_forward_open());
    EXPECT_EQ(cache_value("SAS_FIREWALL_ICMP"), "0");
    EXPECT_EQ(cache_value("SAS_BRIDGE_FORWARD"), "0");
    gating::set_firewall_icmp(true);
    gating::set_bridge_forward(true);
    EXPECT_TRUE(gating::is_firewall_icmp_open());
    EXPECT_TRUE(gating::is_bridge_forward_open());
    EXPECT_THAT(log_messages(),
                ElementsAre("[SAS] firewall ICMP is disable.", "[SAS] bridge forward is disable.",
                            "[SAS] firewall ICMP is enable.", "[SAS] bridge forward is enable."));
    EXPECT_TRUE(foreign_rule_kept());
}

TEST_F(NftablesGate, ClearsRemoveTheRulesOfBothBackends) {
    add_interface("eth1.112", "lab0");
    gating::set_firewall_icmp(false);
    gating::set_bridge_forward(false);
    shell("iptables -A OUTPUT -p icmp --icmp-type 8 -j DROP;"
          "ebtables -A BRIDGE_FORWARD -o eth1.112+ -j DROP");
    gating::clear_firewall_icmp_rules();
    gating::clear_bridge_forward_rules();
    EXPECT_FALSE(table_exists("inet", "cbsd"));
    EXPECT_FALSE(table_exists("bridge", "cbsd"));
    EXPECT_THAT(output_rules(), IsEmpty());
    EXPECT_THAT(bridge_rules(), IsEmpty());
    EXPECT_TRUE(foreign_rule_kept());
}

TEST_F(NftablesGate, IptablesClearsRemoveOurNftablesTablesToo) {
    nft().close_icmp();
    nft().close_bridge(gating::Vlan::kEthernet);
    gating::use_firewall_backend(gating::BackendKind::kIptables);
    gating::clear_firewall_icmp_rules();
    gating::clear_bridge_forward_rules();
    EXPECT_FALSE(table_exists("inet", "cbsd"));
    EXPECT_FALSE(table_exists("bridge", "cbsd"));
    EXPECT_THAT(log_messages(), ElementsAre("[SAS] clear firewall ICMP rules.",
                                            "[SAS] clear bridge forward rules."));
}

#endif  // CBSD_HAVE_NFTABLES
