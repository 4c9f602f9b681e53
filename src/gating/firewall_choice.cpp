#include "gating/firewall_choice.h"

#include "base/log.h"
#include "base/system.h"
#include "config/schema.h"
#include "config/uci_store.h"
#include "gating/firewall_iptables.h"
#include "gating/firewall_nft.h"

#include <atomic>
#include <cstring>

namespace cbsd::gating {

namespace {

constexpr const char* kForceIptables = "iptables";
constexpr const char* kForceNftables = "nftables";

// Set once by the first gate operation (or a test); the supervision loop and
// the transmit guard both read it.
std::atomic<FirewallBackend*> g_backend{nullptr};

bool nftables_available() {
#ifdef CBSD_HAVE_NFTABLES
    return nftables_usable();
#else
    return false;
#endif
}

FirewallBackend& backend_of(BackendKind kind) {
#ifdef CBSD_HAVE_NFTABLES
    if (kind == BackendKind::kNftables) return nftables_backend();
#endif
    (void)kind;
    return iptables_backend();
}

bool tools_on_path() {
    return base::program_on_path("iptables") && base::program_on_path("ebtables");
}

BackendKind configured_backend() {
    char setting[16] = {};
    config::config_get(config::kSasConfigPath, config::schema::kFirewallBackend, setting,
                       sizeof setting);
    BackendKind kind = choose_backend(setting, tools_on_path(), nftables_available);
    if (std::strcmp(setting, kForceNftables) == 0 && kind != BackendKind::kNftables)
        base::error("[SAS] nftables is not available, the gates use iptables and ebtables.\n");
    return kind;
}

}  // namespace

BackendKind choose_backend(const char* setting, bool tools_on_path,
                           bool (*nftables_available)()) {
    if (std::strcmp(setting, kForceIptables) == 0) return BackendKind::kIptables;
    bool forced = std::strcmp(setting, kForceNftables) == 0;
    if ((forced || !tools_on_path) && nftables_available()) return BackendKind::kNftables;
    return BackendKind::kIptables;
}

FirewallBackend& firewall_backend() {
    FirewallBackend* chosen = g_backend.load();
    if (chosen != nullptr) return *chosen;
    FirewallBackend* mine = &backend_of(configured_backend());
    // Two threads choosing at once choose alike; the first one's stays.
    return g_backend.compare_exchange_strong(chosen, mine) ? *mine : *chosen;
}

const char* chosen_backend_name() {
    FirewallBackend* chosen = g_backend.load();
    if (chosen == nullptr) return "";
    return chosen == &iptables_backend() ? kForceIptables : kForceNftables;
}

void use_firewall_backend(BackendKind kind) {
    g_backend.store(&backend_of(kind));
}

FirewallBackend* other_backend_to_clear() {
    FirewallBackend& chosen = firewall_backend();
#ifdef CBSD_HAVE_NFTABLES
    if (&chosen != &nftables_backend()) return &nftables_backend();
#endif
    if (&chosen == &iptables_backend()) return nullptr;
    bool tools = base::program_on_path("iptables") || base::program_on_path("ebtables");
    return tools ? &iptables_backend() : nullptr;
}

}  // namespace cbsd::gating
