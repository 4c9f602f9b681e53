// The seam between the gate decisions (gates.cpp: what to inspect, when to
// log, the cache marks) and the firewall that holds the ICMP and bridge
// rules.  Two implementations: the iptables/ebtables commands
// (firewall_iptables.h) and, where the build has libnftables, native nftables
// tables of our own (firewall_nft.h).  Forwarding is
// the kernel switch in both and never goes through here.
#pragma once

namespace cbsd::gating {

// The VLAN ports the bridge gate drops traffic to.
enum class Vlan { kEthernet, kUsb };

class FirewallBackend {
public:
    virtual ~FirewallBackend() = default;
    // Whether the outbound ICMP echo drop is in place; a listing that fails
    // lists nothing, so the gate then counts as open.
    virtual bool icmp_drop_listed() = 0;
    // The drop, with the br-lan accept ahead of it: echo requests toward the
    // LAN still leave.
    virtual void close_icmp() = 0;
    virtual void open_icmp() = 0;
    // Every copy of the ICMP rules, whatever their number.
    virtual void clear_icmp() = 0;
    virtual bool bridge_drop_listed(Vlan vlan) = 0;
    virtual void close_bridge(Vlan vlan) = 0;
    virtual void open_bridge() = 0;
    virtual void clear_bridge() = 0;
};

}  // namespace cbsd::gating
