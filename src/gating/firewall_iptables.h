// The gates' rules through the iptables and ebtables tools: iptables OUTPUT
// and ebtables BRIDGE_FORWARD.
#pragma once

#include "gating/firewall_backend.h"

namespace cbsd::gating {

FirewallBackend& iptables_backend();

}  // namespace cbsd::gating
