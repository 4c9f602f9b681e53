#include "gating/gates.h"

#include "config/uci_store.h"
#include "base/files.h"
#include "base/log.h"
#include "base/status_report.h"
#include "base/text.h"
#include "gating/firewall_choice.h"
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

// Interface name patterns as a grep expression reads them: '.' is any character.
constexpr const char* kEthVlan = "eth1.112";
constexpr const char* kUsbVlan = "usb0.112";

void mark_gate(UciName option, bool open) {
    config::config_set(config::kRuntimeCachePath, option, open ? "1" : "0");
}

// Decimal value of a command's output; anything unparsable counts as 0.
long decimal(const char* text) {
    long value = std::strtol(text, nullptr, 10);
    return value == LONG_MIN || value == LONG_MAX ? 0 : value;
}

// Both kernel switches, each written on its own as "1\n" or "0\n".
void write_forward_switches(bool enable) {
    const char* value = enable ? "1\n" : "0\n";
    base::write_text_file(kIpv4ForwardSwitch, value);
    base::write_text_file(kIpv6ForwardSwitch, value);
}

// Clears our rules from the chosen backend and from the other one, whose
// rules a different choice at an earlier start may have left.
template <typename Clear>
void clear_everywhere(Clear clear) {
    clear(firewall_backend());
    if (FirewallBackend* other = other_backend_to_clear()) clear(*other);
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

namespace {

void switch_ip_forward(bool enable) {
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

}  // namespace

// Reported once the switch is done: the report says what the gate is now.
void set_ip_forward(bool enable) {
    switch_ip_forward(enable);
    base::report_gate(base::Gate::kForwarding, enable);
}

void force_ip_forward_off() { write_forward_switches(false); }

void reset_ip_forward() {
    base::notice_to_syslog("[SAS] reset IP forward enable.\n");
    write_forward_switches(true);
    mark_gate(kIpForwardOption, true);
    base::report_gate(base::Gate::kForwarding, true);
}

bool is_firewall_icmp_open() {
    return !firewall_backend().icmp_drop_listed();
}

namespace {

void switch_firewall_icmp(bool enable) {
    if (enable) {
        if (is_firewall_icmp_open()) return;
        firewall_backend().open_icmp();
        mark_gate(kFirewallIcmpOption, true);
        base::notice_to_syslog("[SAS] firewall ICMP is enable.\n");
    } else {
        if (!is_firewall_icmp_open()) return;
        firewall_backend().close_icmp();
        mark_gate(kFirewallIcmpOption, false);
        base::notice_to_syslog("[SAS] firewall ICMP is disable.\n");
    }
}

}  // namespace

// Reported once the switch is done: the report says what the gate is now.
void set_firewall_icmp(bool enable) {
    switch_firewall_icmp(enable);
    base::report_gate(base::Gate::kIcmp, enable);
}

void clear_firewall_icmp_rules() {
    base::notice_to_syslog("[SAS] clear firewall ICMP rules.\n");
    clear_everywhere([](FirewallBackend& backend) { backend.clear_icmp(); });
    mark_gate(kFirewallIcmpOption, true);
    base::report_gate(base::Gate::kIcmp, true);
}

bool is_bridge_forward_open() {
    // Only the Ethernet VLAN's rule counts while that interface exists.
    FirewallBackend& backend = firewall_backend();
    if (count_up_interfaces(kEthVlan) >= 1) return !backend.bridge_drop_listed(Vlan::kEthernet);
    if (count_up_interfaces(kUsbVlan) < 1) return true;  // nothing to gate
    return !backend.bridge_drop_listed(Vlan::kUsb);
}

namespace {

void switch_bridge_forward(bool enable) {
    if (enable) {
        if (is_bridge_forward_open()) return;
        firewall_backend().open_bridge();
        mark_gate(kBridgeForwardOption, true);
        base::notice_to_syslog("[SAS] bridge forward is enable.\n");
        return;
    }
    if (!is_bridge_forward_open()) return;
    if (count_up_interfaces(kEthVlan) > 0) {
        firewall_backend().close_bridge(Vlan::kEthernet);
        mark_gate(kBridgeForwardOption, false);
        base::notice_to_syslog("[SAS] bridge forward is disable.\n");
    }
    if (count_up_interfaces(kUsbVlan) >= 1) {
        firewall_backend().close_bridge(Vlan::kUsb);
        mark_gate(kBridgeForwardOption, false);
        base::notice_to_syslog("[SAS] bridge forward is disable.\n");
    }
}

}  // namespace

// Reported once the switch is done: the report says what the gate is now.
void set_bridge_forward(bool enable) {
    switch_bridge_forward(enable);
    base::report_gate(base::Gate::kBridge, enable);
}

void clear_bridge_forward_rules() {
    base::notice_to_syslog("[SAS] clear bridge forward rules.\n");
    clear_everywhere([](FirewallBackend& backend) { backend.clear_bridge(); });
    mark_gate(kBridgeForwardOption, true);
    base::report_gate(base::Gate::kBridge, true);
}

}  // namespace cbsd::gating
