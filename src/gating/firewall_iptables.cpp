// The gates' rules through the iptables and ebtables tools: each listing is
// one tool run read in-process, each change a fixed command line.
#include "gating/firewall_iptables.h"

#include "base/log.h"
#include "base/system.h"
#include "gating/rule_listing.h"

namespace cbsd::gating {

namespace {

constexpr const char* kIcmpDropRule = "-A OUTPUT -p icmp -m icmp --icmp-type 8 -j DROP";
// One tool run lists the chain; its lines are read in-process.
constexpr const char* const kListOutputChain[] = {"iptables", "-S", "OUTPUT", nullptr};
constexpr const char* kInsertIcmpDrop = "iptables -I OUTPUT -p icmp --icmp-type 8 -j DROP";
constexpr const char* kInsertLanAccept =
    "iptables -I OUTPUT -o br-lan -p icmp --icmp-type 8/0 -j ACCEPT";
constexpr const char* kDeleteIcmpDrop =
    "iptables -D OUTPUT -p icmp --icmp-type 8 -j DROP >/dev/null 2>&1";
constexpr const char* kDeleteLanAccept =
    "iptables -D OUTPUT -o br-lan -p icmp --icmp-type 8/0 -j ACCEPT >/dev/null 2>&1";

constexpr const char* kEthDropRule = "-o eth1.112+ -j DROP";
constexpr const char* kUsbDropRule = "-o usb0.112+ -j DROP";
constexpr const char* const kListBridgeChain[] = {"ebtables", "-L", "BRIDGE_FORWARD", nullptr};
// Big enough for any chain the router has; lines past it are not seen.
constexpr int kListingCapacity = 8192;
constexpr const char* kInsertEthDrop = "ebtables -I BRIDGE_FORWARD -o eth1.112+ -j DROP";
constexpr const char* kInsertUsbDrop = "ebtables -I BRIDGE_FORWARD -o usb0.112+ -j DROP";
constexpr const char* kDeleteEthDrop =
    "ebtables -D BRIDGE_FORWARD -o eth1.112+ -j DROP >/dev/null 2>&1";
constexpr const char* kDeleteUsbDrop =
    "ebtables -D BRIDGE_FORWARD -o usb0.112+ -j DROP >/dev/null 2>&1";

// A deletion that keeps reporting success this often is not deleting
// anything real (a broken firewall tool); stop rather than spin forever.
constexpr int kMaxDeletions = 256;

// Runs a fixed command line; its exit status as `system` reports it.
int run(const char* command) {
    return base::run_status(command);
}

// Runs the listing tool once; a missing or failing tool lists nothing.
template <typename Count>
int count_listed(const char* const argv[], const char* rule, Count count) {
    static thread_local char listing[kListingCapacity];
    listing[0] = '\0';
    base::run_capture(argv, listing, sizeof listing);
    return count(listing, rule);
}

// Deletes until the deletion fails: every duplicate of the rule goes.
void delete_all(const char* delete_command) {
    for (int round = 0; round < kMaxDeletions; ++round)
        if (run(delete_command) != 0) return;
    base::error_to_syslog("[SAS] rule deletion never failed, giving up: %s\n", delete_command);
}

class IptablesBackend final : public FirewallBackend {
public:
    bool icmp_drop_listed() override {
        return count_listed(kListOutputChain, kIcmpDropRule, count_lines_containing) > 0;
    }
    void close_icmp() override {
        // Both go to the head of the chain, so the br-lan accept ends up
        // first: echo requests toward the LAN still leave.
        run(kInsertIcmpDrop);
        run(kInsertLanAccept);
    }
    void open_icmp() override {
        run(kDeleteIcmpDrop);
        run(kDeleteLanAccept);
    }
    void clear_icmp() override {
        delete_all(kDeleteIcmpDrop);
        delete_all(kDeleteLanAccept);
    }
    bool bridge_drop_listed(Vlan vlan) override {
        const char* rule = vlan == Vlan::kEthernet ? kEthDropRule : kUsbDropRule;
        return count_listed(kListBridgeChain, rule, count_rule_lines) > 0;
    }
    void close_bridge(Vlan vlan) override {
        run(vlan == Vlan::kEthernet ? kInsertEthDrop : kInsertUsbDrop);
    }
    void open_bridge() override {
        run(kDeleteEthDrop);
        run(kDeleteUsbDrop);
    }
    void clear_bridge() override {
        delete_all(kDeleteEthDrop);
        delete_all(kDeleteUsbDrop);
    }
};

}  // namespace

FirewallBackend& iptables_backend() {
    static IptablesBackend backend;
    return backend;
}

}  // namespace cbsd::gating
