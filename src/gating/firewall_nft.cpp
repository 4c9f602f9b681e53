// The gates' rules as native nftables tables of our own, through
// libnftables: no process is started, not even for a listing.  Only our
// tables are ever touched (`inet cbsd`, `bridge cbsd`): no ruleset flush, so
// a firewall that replaces its own tables (fw4 reload) leaves ours alone, and
// a table of ours deleted behind our back lists as "no rule", so the next
// close creates it again.
#include "gating/firewall_nft.h"

#include "gating/rule_listing.h"

#include <linux/netlink.h>
#include <nftables/libnftables.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

namespace cbsd::gating {

namespace {

// `add` of an existing table or chain changes nothing, so every close can
// create them first.
constexpr const char* kIcmpChain =
    "add table inet cbsd\n"
    "add chain inet cbsd output { type filter hook output priority 0; policy accept; }\n";
// Inserted in this order, the br-lan accept ends up first, as with iptables.
constexpr const char* kCloseIcmp =
    "insert rule inet cbsd output icmp type echo-request drop\n"
    "insert rule inet cbsd output oifname \"br-lan\" icmp type echo-request icmp code 0 accept\n";
constexpr const char* kListIcmp = "list chain inet cbsd output";
constexpr const char* kIcmpDropRule = "icmp type echo-request drop";
constexpr const char* kOpenIcmp = "flush chain inet cbsd output";
// Created first, so the deletion never fails for a table that is not there.
constexpr const char* kClearIcmp = "add table inet cbsd\ndelete table inet cbsd\n";

constexpr const char* kBridgeChain =
    "add table bridge cbsd\n"
    "add chain bridge cbsd forward { type filter hook forward priority 0; policy accept; }\n";
constexpr const char* kCloseEth = "insert rule bridge cbsd forward oifname \"eth1.112*\" drop\n";
constexpr const char* kCloseUsb = "insert rule bridge cbsd forward oifname \"usb0.112*\" drop\n";
constexpr const char* kListBridge = "list chain bridge cbsd forward";
constexpr const char* kEthDropRule = "oifname \"eth1.112*\" drop";
constexpr const char* kUsbDropRule = "oifname \"usb0.112*\" drop";
constexpr const char* kOpenBridge = "flush chain bridge cbsd forward";
constexpr const char* kClearBridge = "add table bridge cbsd\ndelete table bridge cbsd\n";

// libnftables ends the whole process when it cannot open its netlink socket
// (a kernel without nf_tables, or qemu-user, which does not pass that
// protocol through), so the kernel is asked first; without it no context is
// made and every command fails quietly.
bool netfilter_netlink_available() {
    int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_NETFILTER);
    if (fd < 0) return false;
    close(fd);
    return true;
}

// One library context per command: the supervision loop and the transmit
// guard may both switch a gate, and a context is not shared between threads.
// Output and errors stay in the context's buffers, never on our terminal.
class NftSession {
public:
    NftSession()
        : ctx_(netfilter_netlink_available() ? nft_ctx_new(NFT_CTX_DEFAULT) : nullptr) {
        if (ctx_ == nullptr) return;
        nft_ctx_buffer_output(ctx_);
        nft_ctx_buffer_error(ctx_);
    }
    ~NftSession() {
        if (ctx_ != nullptr) nft_ctx_free(ctx_);
    }
    NftSession(const NftSession&) = delete;
    NftSession& operator=(const NftSession&) = delete;

    bool run(const char* commands) {
        return ctx_ != nullptr && nft_run_cmd_from_buffer(ctx_, commands) == 0;
    }
    // The listing of the last command; empty when it failed.
    const char* output() {
        const char* text = ctx_ != nullptr ? nft_ctx_get_output_buffer(ctx_) : nullptr;
        return text != nullptr ? text : "";
    }

private:
    nft_ctx* ctx_;
};

bool run_nft(const char* commands) {
    NftSession session;
    return session.run(commands);
}

// A chain (or table) that is not there lists nothing: no rule.
bool rule_listed(const char* list_command, const char* rule) {
    NftSession session;
    if (!session.run(list_command)) return false;
    return count_lines_containing(session.output(), rule) > 0;
}

// The chain's set-up and the rule change go in one batch: either both apply
// or neither does.
void run_in_chain(const char* chain, const char* rules) {
    NftSession session;
    std::string batch = std::string(chain) + rules;
    session.run(batch.c_str());
}

class NftablesBackend final : public FirewallBackend {
public:
    bool icmp_drop_listed() override { return rule_listed(kListIcmp, kIcmpDropRule); }
    void close_icmp() override { run_in_chain(kIcmpChain, kCloseIcmp); }
    void open_icmp() override { run_nft(kOpenIcmp); }
    void clear_icmp() override { run_nft(kClearIcmp); }
    bool bridge_drop_listed(Vlan vlan) override {
        return rule_listed(kListBridge, vlan == Vlan::kEthernet ? kEthDropRule : kUsbDropRule);
    }
    void close_bridge(Vlan vlan) override {
        run_in_chain(kBridgeChain, vlan == Vlan::kEthernet ? kCloseEth : kCloseUsb);
    }
    void open_bridge() override { run_nft(kOpenBridge); }
    void clear_bridge() override { run_nft(kClearBridge); }
};

}  // namespace

FirewallBackend& nftables_backend() {
    static NftablesBackend backend;
    return backend;
}

bool nftables_usable() {
    return run_nft("list tables");
}

}  // namespace cbsd::gating
