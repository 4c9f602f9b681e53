// Which firewall backend holds the gates' rules: chosen once per process, at
// the first gate operation, from UCI config.firewallBackend ("auto", the
// default, "iptables" or "nftables") and what the router has.
#pragma once

#include "gating/firewall_backend.h"

namespace cbsd::gating {

enum class BackendKind { kIptables, kNftables };

// The decision alone.  "iptables" and "nftables" force a backend (nftables
// only where it is available); anything else is "auto": nftables when
// iptables or ebtables is missing and nftables is available, else iptables.
// nftables_available is asked only when the answer depends on it.
BackendKind choose_backend(const char* setting, bool tools_on_path,
                           bool (*nftables_available)());

// The backend of this process; the first call makes the choice.
FirewallBackend& firewall_backend();

// "iptables" or "nftables" once a gate operation has chosen, "" before;
// never chooses (the choice runs tools), so any thread may ask.
const char* chosen_backend_name();

// Fixes the backend for the rest of the process (tests).
void use_firewall_backend(BackendKind kind);

// The backend that is not chosen, when its rules may be around and can be
// removed (libnftables built in; either tool on PATH), else nullptr: the
// clears remove our rules from both, since the choice may have changed.
FirewallBackend* other_backend_to_clear();

}  // namespace cbsd::gating
