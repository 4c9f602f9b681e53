#include "gating/gates.h"

#include "config/uci_store.h"
#include "base/files.h"
#include "base/system.h"
#include "base/log.h"
#include "base/text.h"
#include "gating/rule_listing.h"
#include "gating/vlan_interfaces.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace cbsd::gating {

namespace {

using config::UciName;
constexpr UciName kIpForwardOption = config::schema::kCacheIpForward;
constexpr UciName kFirewallIcmpOption = config::schema::kCacheFirewallIcmp;
constexpr UciName kBridgeForwardOption = config::schema::kCacheBridgeForward;

constexpr const char* kIpv4ForwardSwitch = "/proc/sys/net/ipv4/ip_forward";
constexpr const char* kIpv6ForwardSwitch = "/proc/sys/net/ipv6/conf/all/forwarding";

constexpr const char* kIcmpDropRule = "-A OUTPUT -p icmp -m icmp --icmp-type 8 -j DROP";
// One tool run lists the chain; its lines are read in-process.
constexpr const char* const kListOutputChain[] = {"iptables", "-S", "OUTPUT", nullptr};
constexpr const char* kInsertIcmpDrop = "iptables -I OUTPUT -p icmp --icmp-type 8 -j DROP";
constexpr const char* kInsertLanAccept =
    "iptables -I OUTPUT -o br-lan -p icmp --icmp-type 8/0 -j ACCEPT";
constexpr const char* kDeleteIcmpDrop =
    "iptables -D OUTPUT -p icmp --icmp-type 8 -j DROP >/dev/null 2>&1";
constexpr const char* kDeleteLanAccept =
    "iptables -D OUTPUT -o br-lan -p icmp --icmp-type 8/0 -j ACCEPT >/dev/null 2>&1";

// Interface name patterns as a grep expression reads them: '.' is any character.
constexpr const char* kEthVlan = "eth1.112";
constexpr const char* kUsbVlan = "usb0.112";
constexpr const char* kEthDropRule = "-o eth1.112+ -j DROP";
constexpr const char* kUsbDropRule = "-o usb0.112+ -j DROP";
constexpr const char* const kListBridgeChain[] = {"ebtables", "-L", "BRIDGE_FORWARD", nullptr};
// Big enough for any chain the router has; lines past it are not seen.
constexpr int kListingCapacity = 8192;
constexpr const char* kInsertEthDrop = "ebtables -I BRIDGE_FORWARD -o eth1.112+ -j DROP";
constexpr const char* kInsertUsbDrop = "ebtables -I BRIDGE_FORWARD -o usb0.112+ -j DROP";
constexpr const char* kDeleteEthDrop =
    "ebtables -D BRIDGE_FORWARD -o eth1.112+ -j DROP >/dev/null 2>&1";
constexpr const char* kDeleteUsbDrop =
    "ebtables -D BRIDGE_FORWARD -o usb0.112+ -j DROP >/dev/null 2>&1";

// A deletion that keeps reporting success this often is not deleting
// anything real (a broken firewall tool); stop rather than spin forever.
constexpr int kMaxDeletions = 256;

void mark_gate(UciName option, bool open) {
    config::config_set(config::kRuntimeCachePath, option, open ? "1" : "0");
}

// Decimal value of a command's output; anything unparsable counts as 0.
long decimal(const char* text) {
    long value = std::strtol(text, nullptr, 10);
    return value == LONG_MIN || value == LONG_MAX ? 0 : value;
}

// Runs a fixed command line; its exit status as `system` reports it.
int run(const char* command) {
    return base::run_status(command);
}

// Both kernel switches, each written on its own as "1\n" or "0\n".
void write_forward_switches(bool enable) {
    const char* value = enable ? "1\n" : "0\n";
    base::write_text_file(kIpv4ForwardSwitch, value);
    base::write_text_file(kIpv6ForwardSwitch, value);
}

// Runs the listing tool once; a missing or failing tool lists nothing.
template <typename Count>
int count_listed(const char* const argv[], const char* rule, Count count) {
    static thread_local char listing[kListingCapacity];
    listing[0] = '\0';
    base::run_capture(argv, listing, sizeof listing);
    return count(listing, rule);
}

bool bridge_rule_listed(const char* rule) {
    return count_listed(kListBridgeChain, rule, count_rule_lines) > 0;
}

// Deletes until the deletion fails: every duplicate of the rule goes.
void delete_all(const char* delete_command) {
    for (int round = 0; round < kMaxDeletions; ++round)
        if (run(delete_command) != 0) return;
    base::error_to_syslog("[SAS] rule deletion never failed, giving up: %s\n", delete_command);
}

}  // namespace

void reset_runtime_cache() {
    base::remove_tree(config::kRuntimeCachePath);
    base::write_text_file(config::kRuntimeCachePath, "config cache \"cache\"\n");
}

bool is_ip_forward_enabled() {
    char output[64] = {};
    base::read_text_file(kIpv4ForwardSwitch, output, sizeof output - 1);
    base::trim(output);
    // The cache always mirrors the kernel after a check; the answer is read
    // back from it.
    config::config_set(config::kRuntimeCachePath, kIpForwardOption, output);
    char cached[8] = {};
    config::config_get(config::kRuntimeCachePath, kIpForwardOption, cached,
                       sizeof cached);
    return decimal(cached) == 1;
}

void set_ip_forward(bool enable) {
    if (enable) {
        if (is_ip_forward_enabled()) return;
        write_forward_switches(true);
        mark_gate(kIpForwardOption, true);
        base::notice_to_syslog("[SAS] IP forward is enable.\n");
    } else {
        if (!is_ip_forward_enabled()) return;
        write_forward_switches(false);
        mark_gate(kIpForwardOption, false);
        base::notice_to_syslog("[SAS] IP forward is disable.\n");
    }
}

void reset_ip_forward() {
    base::notice_to_syslog("[SAS] reset IP forward enable.\n");
    write_forward_switches(true);
    mark_gate(kIpForwardOption, true);
}

bool is_firewall_icmp_open() {
    return count_listed(kListOutputChain, kIcmpDropRule, count_lines_containing) == 0;
}

void set_firewall_icmp(bool enable) {
    if (enable) {
        if (is_firewall_icmp_open()) return;
        run(kDeleteIcmpDrop);
        run(kDeleteLanAccept);
        mark_gate(kFirewallIcmpOption, true);
        base::notice_to_syslog("[SAS] firewall ICMP is enable.\n");
    } else {
        if (!is_firewall_icmp_open()) return;
        // Both go to the head of the chain, so the br-lan accept ends up
        // first: echo requests toward the LAN still leave.
        run(kInsertIcmpDrop);
        run(kInsertLanAccept);
        mark_gate(kFirewallIcmpOption, false);
        base::notice_to_syslog("[SAS] firewall ICMP is disable.\n");
    }
}

void clear_firewall_icmp_rules() {
    base::notice_to_syslog("[SAS] clear firewall ICMP rules.\n");
    delete_all(kDeleteIcmpDrop);
    delete_all(kDeleteLanAccept);
    mark_gate(kFirewallIcmpOption, true);
}

bool is_bridge_forward_open() {
    // Only the Ethernet VLAN's rule counts while that interface exists.
    if (count_up_interfaces(kEthVlan) >= 1) return !bridge_rule_listed(kEthDropRule);
    if (count_up_interfaces(kUsbVlan) < 1) return true;  // nothing to gate
    return !bridge_rule_listed(kUsbDropRule);
}

void set_bridge_forward(bool enable) {
    if (enable) {
        if (is_bridge_forward_open()) return;
        run(kDeleteEthDrop);
        run(kDeleteUsbDrop);
        mark_gate(kBridgeForwardOption, true);
        base::notice_to_syslog("[SAS] bridge forward is enable.\n");
        return;
    }
    if (!is_bridge_forward_open()) return;
    if (count_up_interfaces(kEthVlan) > 0) {
        run(kInsertEthDrop);
        mark_gate(kBridgeForwardOption, false);
        base::notice_to_syslog("[SAS] bridge forward is disable.\n");
    }
    if (count_up_interfaces(kUsbVlan) >= 1) {
        run(kInsertUsbDrop);
        mark_gate(kBridgeForwardOption, false);
        base::notice_to_syslog("[SAS] bridge forward is disable.\n");
    }
}

void clear_bridge_forward_rules() {
    base::notice_to_syslog("[SAS] clear bridge forward rules.\n");
    delete_all(kDeleteEthDrop);
    delete_all(kDeleteUsbDrop);
    mark_gate(kBridgeForwardOption, true);
}

}  // namespace cbsd::gating
