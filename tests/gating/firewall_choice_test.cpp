// The choice of the firewall backend, the decision alone.
#include "gating/firewall_choice.h"

#include <gtest/gtest.h>

using cbsd::gating::BackendKind;
using cbsd::gating::choose_backend;

namespace {

bool available() { return true; }
bool unavailable() { return false; }
int g_asked = 0;
bool counted() { return ++g_asked, true; }

}  // namespace

TEST(FirewallChoice, AutoKeepsIptablesWhileBothToolsAreThere) {
    g_asked = 0;
    EXPECT_EQ(choose_backend("auto", true, counted), BackendKind::kIptables);
    EXPECT_EQ(choose_backend("", true, counted), BackendKind::kIptables);
    EXPECT_EQ(g_asked, 0);  // the library is not even asked
}

TEST(FirewallChoice, AutoTakesNftablesWhenAToolIsMissing) {
    EXPECT_EQ(choose_backend("auto", false, available), BackendKind::kNftables);
    EXPECT_EQ(choose_backend("", false, available), BackendKind::kNftables);
    EXPECT_EQ(choose_backend("auto", false, unavailable), BackendKind::kIptables);
}

TEST(FirewallChoice, ForcedChoices) {
    EXPECT_EQ(choose_backend("iptables", false, available), BackendKind::kIptables);
    EXPECT_EQ(choose_backend("nftables", true, available), BackendKind::kNftables);
    EXPECT_EQ(choose_backend("nftables", true, unavailable), BackendKind::kIptables);
}

TEST(FirewallChoice, AnUnknownValueIsAuto) {
    EXPECT_EQ(choose_backend("nft", true, available), BackendKind::kIptables);
    EXPECT_EQ(choose_backend("IPTABLES", false, available), BackendKind::kNftables);
}

// The status names the backend without making the choice (which runs tools).
TEST(FirewallChoice, TheChosenBackendIsNamedOnceChosen) {
    using namespace cbsd::gating;
    use_firewall_backend(BackendKind::kIptables);
    EXPECT_STREQ(chosen_backend_name(), "iptables");
#ifdef CBSD_HAVE_NFTABLES
    use_firewall_backend(BackendKind::kNftables);
    EXPECT_STREQ(chosen_backend_name(), "nftables");
#endif
}
