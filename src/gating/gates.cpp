#include "gating/gates.h"

#include "config/uci_store.h"
#include "core/command.h"
#include "core/log.h"
#include "core/text.h"

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace cbsd::gating {

namespace {

constexpr const char* kCacheSection = "cache";
constexpr const char* kIpForwardOption = "SAS_IP_FORWARD";
constexpr const char* kFirewallIcmpOption = "SAS_FIREWALL_ICMP";
constexpr const char* kBridgeForwardOption = "SAS_BRIDGE_FORWARD";

constexpr const char* kForwardOn =
    "echo 1 > /proc/sys/net/ipv4/ip_forward;echo 1 > /proc/sys/net/ipv6/conf/all/forwarding";
constexpr const char* kForwardOff =
    "echo 0 > /proc/sys/net/ipv4/ip_forward;echo 0 > /proc/sys/net/ipv6/conf/all/forwarding";

constexpr const char* kIcmpDropRule = "-A OUTPUT -p icmp -m icmp --icmp-type 8 -j DROP";
constexpr const char* kListIcmpDrop =
    "iptables -S | grep '\\-A OUTPUT \\-p icmp \\-m icmp \\-\\-icmp-type 8 \\-j DROP'";
constexpr const char* kInsertIcmpDrop = "iptables -I OUTPUT -p icmp --icmp-type 8 -j DROP";
constexpr const char* kInsertLanAccept =
    "iptables -I OUTPUT -o br-lan -p icmp --icmp-type 8/0 -j ACCEPT";
constexpr const char* kDeleteIcmpDrop =
    "iptables -D OUTPUT -p icmp --icmp-type 8 -j DROP >/dev/null 2>&1";
constexpr const char* kDeleteLanAccept =
    "iptables -D OUTPUT -o br-lan -p icmp --icmp-type 8/0 -j ACCEPT >/dev/null 2>&1";

constexpr const char* kCountEthVlan = "ifconfig | grep eth1.112 | wc -l";
constexpr const char* kCountUsbVlan = "ifconfig | grep usb0.112 | wc -l";
constexpr const char* kEthDropRule = "-o eth1.112+ -j DROP";
constexpr const char* kUsbDropRule = "-o usb0.112+ -j DROP";
// The whole-line patterns end with the blank that ebtables -L prints after
// every rule; the substring test on their output has no such blank.
constexpr const char* kListEthDrop =
    "ebtables -L BRIDGE_FORWARD | grep -x '\\-o eth1.112+ \\-j DROP '";
constexpr const char* kListUsbDrop =
    "ebtables -L BRIDGE_FORWARD | grep -x '\\-o usb0.112+ \\-j DROP '";
constexpr const char* kInsertEthDrop = "ebtables -I BRIDGE_FORWARD -o eth1.112+ -j DROP";
constexpr const char* kInsertUsbDrop = "ebtables -I BRIDGE_FORWARD -o usb0.112+ -j DROP";
constexpr const char* kDeleteEthDrop =
    "ebtables -D BRIDGE_FORWARD -o eth1.112+ -j DROP >/dev/null 2>&1";
constexpr const char* kDeleteUsbDrop =
    "ebtables -D BRIDGE_FORWARD -o usb0.112+ -j DROP >/dev/null 2>&1";

// A deletion that keeps reporting success this often is not deleting
// anything real (a broken firewall tool); stop rather than spin forever.
constexpr int kMaxDeletions = 256;

void mark_gate(const char* option, bool open) {
    config::config_set(config::kRuntimeCachePath, kCacheSection, option, open ? "1" : "0");
}

// Decimal value of a command's output; anything unparsable counts as 0.
long decimal(const char* text) {
    long value = std::strtol(text, nullptr, 10);
    return value == LONG_MIN || value == LONG_MAX ? 0 : value;
}

// Runs a fixed command line; its exit status as `system` reports it.
int run(const char* command) {
    return std::system(command);
}

// How many lines of `ifconfig` name the interface.
long count_interfaces(const char* count_command) {
    char output[16] = {};
    core::run_command(count_command, output, sizeof output - 1);
    core::strip_newlines(output);
    return decimal(output);
}

// True when the listing command's output contains the rule.
bool listing_shows(const char* list_command, const char* rule) {
    char output[256] = {};
    core::run_command(list_command, output, sizeof output - 1);
    core::strip_newlines(output);
    return std::strstr(output, rule) != nullptr;
}

// Deletes until the deletion fails: every duplicate of the rule goes.
void delete_all(const char* delete_command) {
    for (int round = 0; round < kMaxDeletions; ++round)
        if (run(delete_command) != 0) return;
    core::log(3, 1, "[SAS] rule deletion never failed, giving up: %s\n", delete_command);
}

}  // namespace

void reset_runtime_cache() {
    char command[256] = {};
    std::snprintf(command, sizeof command, "rm -rf %s", config::kRuntimeCachePath);
    run(command);
    std::snprintf(command, sizeof command, "echo 'config cache \"cache\"'>%s",
                  config::kRuntimeCachePath);
    run(command);
}

bool is_ip_forward_enabled() {
    char output[64] = {};
    core::run_command("cat /proc/sys/net/ipv4/ip_forward", output, sizeof output - 1);
    core::trim(output);
    // The cache always mirrors the kernel after a check; the answer is read
    // back from it.
    config::config_set(config::kRuntimeCachePath, kCacheSection, kIpForwardOption, output);
    char cached[8] = {};
    config::config_get(config::kRuntimeCachePath, kCacheSection, kIpForwardOption, cached,
                       sizeof cached);
    return decimal(cached) == 1;
}

void set_ip_forward(bool enable) {
    if (enable) {
        if (is_ip_forward_enabled()) return;
        run(kForwardOn);
        mark_gate(kIpForwardOption, true);
        core::log(5, 1, "[SAS] IP forward is enable.\n");
    } else {
        if (!is_ip_forward_enabled()) return;
        run(kForwardOff);
        mark_gate(kIpForwardOption, false);
        core::log(5, 1, "[SAS] IP forward is disable.\n");
    }
}

void reset_ip_forward() {
    core::log(5, 1, "[SAS] reset IP forward enable.\n");
    run(kForwardOn);
    mark_gate(kIpForwardOption, true);
}

bool is_firewall_icmp_open() {
    return !listing_shows(kListIcmpDrop, kIcmpDropRule);
}

void set_firewall_icmp(bool enable) {
    if (enable) {
        if (is_firewall_icmp_open()) return;
        run(kDeleteIcmpDrop);
        run(kDeleteLanAccept);
        mark_gate(kFirewallIcmpOption, true);
        core::log(5, 1, "[SAS] firewall ICMP is enable.\n");
    } else {
        if (!is_firewall_icmp_open()) return;
        // Both go to the head of the chain, so the br-lan accept ends up
        // first: echo requests toward the LAN still leave.
        run(kInsertIcmpDrop);
        run(kInsertLanAccept);
        mark_gate(kFirewallIcmpOption, false);
        core::log(5, 1, "[SAS] firewall ICMP is disable.\n");
    }
}

void clear_firewall_icmp_rules() {
    core::log(5, 1, "[SAS] clear firewall ICMP rules.\n");
    delete_all(kDeleteIcmpDrop);
    delete_all(kDeleteLanAccept);
    mark_gate(kFirewallIcmpOption, true);
}

bool is_bridge_forward_open() {
    // Only the Ethernet VLAN's rule counts while that interface exists.
    if (count_interfaces(kCountEthVlan) >= 1) return !listing_shows(kListEthDrop, kEthDropRule);
    if (count_interfaces(kCountUsbVlan) < 1) return true;  // nothing to gate
    return !listing_shows(kListUsbDrop, kUsbDropRule);
}

void set_bridge_forward(bool enable) {
    if (enable) {
        if (is_bridge_forward_open()) return;
        run(kDeleteEthDrop);
        run(kDeleteUsbDrop);
        mark_gate(kBridgeForwardOption, true);
        core::log(5, 1, "[SAS] bridge forward is enable.\n");
        return;
    }
    if (!is_bridge_forward_open()) return;
    if (count_interfaces(kCountEthVlan) > 0) {
        run(kInsertEthDrop);
        mark_gate(kBridgeForwardOption, false);
        core::log(5, 1, "[SAS] bridge forward is disable.\n");
    }
    if (count_interfaces(kCountUsbVlan) >= 1) {
        run(kInsertUsbDrop);
        mark_gate(kBridgeForwardOption, false);
        core::log(5, 1, "[SAS] bridge forward is disable.\n");
    }
}

void clear_bridge_forward_rules() {
    core::log(5, 1, "[SAS] clear bridge forward rules.\n");
    delete_all(kDeleteEthDrop);
    delete_all(kDeleteUsbDrop);
    mark_gate(kBridgeForwardOption, true);
}

}  // namespace cbsd::gating
