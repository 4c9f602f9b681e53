// The three traffic gates (IP forwarding, the outbound ICMP echo rule, the
// bridge-forward drop rules) and their runtime cache /tmp/sas_cache.  Every
// open/close inspects the live system first and acts only where it differs.
#pragma once

namespace cbsd::gating {

void reset_runtime_cache();
bool is_ip_forward_enabled();
void set_ip_forward(bool enable);
void reset_ip_forward();
// Both forwarding switches off with two plain writes, and nothing else (no
// cache, no log, no lock): for a process that must end now, whatever its
// other threads hold.
void force_ip_forward_off();
bool is_firewall_icmp_open();
void set_firewall_icmp(bool enable);
void clear_firewall_icmp_rules();
bool is_bridge_forward_open();
void set_bridge_forward(bool enable);
void clear_bridge_forward_rules();

}  // namespace cbsd::gating
