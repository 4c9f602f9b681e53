// Counting the router's VLAN interfaces without running `ifconfig | grep`.
#pragma once

namespace cbsd::gating {

// How many interfaces that are up (the ones plain `ifconfig` lists) have a
// name containing the pattern, where '.' stands for any character as in a
// grep expression: "eth1.112" matches eth1.112, eth1.1120 and veth1.112.
int count_up_interfaces(const char* pattern);

// The name test alone, for the unit tests.
bool name_matches(const char* name, const char* pattern);

}  // namespace cbsd::gating
