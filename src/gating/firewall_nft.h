// The gates' rules as native nftables tables of our own, through libnftables:
// no process is started.  Built only where libnftables exists
// (CBSD_HAVE_NFTABLES).
#pragma once

#include "gating/firewall_backend.h"

namespace cbsd::gating {

FirewallBackend& nftables_backend();
// Whether libnftables opens a context and the kernel answers it.
bool nftables_usable();

}  // namespace cbsd::gating
