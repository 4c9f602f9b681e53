// The fixture of the supervision loop's tests: one pass at a time, against a
// real /etc/config/sas, real iptables/ebtables/forwarding switches of the
// test's own network namespace and a stand-in modem manager (a `ubus` script
// first on PATH).
#pragma once
#include "daemon/supervision.h"

#include "daemon/snapshot.h"
#include "daemon/profile_fixture.h"
#include "config/uci_store.h"
#include "standalone/worker_control.h"
#include "gating/gates.h"
#include "support/modem_standin.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace cbsd::daemon {
using standalone::start_standalone_worker;
using standalone::stop_standalone_worker;
using standalone::worker_running;
namespace supervision_test {

using config::kSasConfigPath;
using test::read_file;
using test::shell;
using test::write_file;

inline const char* const kLogPath = "/root/sas/sas.log";

using test::install_modem_standin;
using test::modem_info_reply;
using test::modem_status_reply;
using test::put_test_bin_first_on_path;
using test::set_modem;
using test::set_modem_garbage;

// The virtual router's ebtables stand-in: it lists rules the way the
// router's ebtables does (one trailing blank) and serialises its commands.
inline void install_standins() {
    install_modem_standin();
    unlink("/tmp/bin/ebtables");
    const std::string standin = std::string(CBSD_SOURCE_DIR) + "/tests/lab/bin/ebtables";
    if (symlink(standin.c_str(), "/tmp/bin/ebtables") != 0)
        ADD_FAILURE() << "cannot link the ebtables stand-in " << standin;
}

inline void create_router_links() {
    shell("ip link show eth1.112 >/dev/null 2>&1 || ip link add eth1.112 type veth peer name usb0.112;"
          "ip link set eth1.112 up; ip link set usb0.112 up;"
          "/usr/sbin/ebtables -N BRIDGE_FORWARD >/dev/null 2>&1");
}

inline void open_all_gates_by_hand() {
    shell("iptables -F OUTPUT; /usr/sbin/ebtables -F BRIDGE_FORWARD;"
          "echo 1 > /proc/sys/net/ipv4/ip_forward; echo 1 > /proc/sys/net/ipv6/conf/all/forwarding");
}

inline std::string config_text(const std::string& enable_mode, const std::string& usedp,
                        const std::string& radio_enable) {
    return "config config 'config'\n"
           "\toption enableMode '" + enable_mode + "'\n"
           "\toption usedp '" + usedp + "'\n"
           "\toption callSign 'CALL1'\n"
           "\toption address 'https://127.0.0.1:1/v1.2'\n"
           "\toption antennaGain '6'\n"
           "\n"
           "config cpi 'cpi'\n"
           "\toption height '10'\n"
           "\n"
           "config sasConfig 'sasConfig'\n"
           "\toption RadioEnable '" + radio_enable + "'\n"
           "\toption powerSpectralDensity ''\n"
           "\n"
           "config operation 'operation'\n"
           "\toption status 'Unregistered'\n"
           "\n"
           "config cellInfo 'cellInfo'\n";
}

inline std::string get_option(const char* section, const char* option) {
    return test::get(section, option);
}

inline void set_option(const char* section, const char* option, const char* value) {
    config::config_set(kSasConfigPath, section, option, value);
}

inline size_t count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

inline bool ip_forward_on() { return read_file("/proc/sys/net/ipv4/ip_forward").rfind("1", 0) == 0; }
inline bool icmp_drop_rule_present() {
    return shell("iptables -S OUTPUT").find("-A OUTPUT -p icmp -m icmp --icmp-type 8 -j DROP") !=
           std::string::npos;
}
inline bool bridge_drop_rules_present() {
    std::string rules = shell("/usr/sbin/ebtables -L BRIDGE_FORWARD");
    return rules.find("-o eth1.112+ -j DROP") != std::string::npos &&
           rules.find("-o usb0.112+ -j DROP") != std::string::npos;
}
inline bool all_gates_closed() { return !ip_forward_on() && icmp_drop_rule_present() && bridge_drop_rules_present(); }
inline bool all_gates_open() {
    return ip_forward_on() && !icmp_drop_rule_present() &&
           shell("/usr/sbin/ebtables -L BRIDGE_FORWARD").find("DROP") == std::string::npos;
}

inline std::string describe_gates() {
    return "ip_forward=" + read_file("/proc/sys/net/ipv4/ip_forward") + shell("iptables -S OUTPUT") +
           shell("/usr/sbin/ebtables -L BRIDGE_FORWARD") + shell("ifconfig | grep 112");
}

inline const char* const kUnreadableLine =
    "[SAS] /etc/config/sas cannot be read, the last readable configuration stays in force.\n";

class SupervisionTest : public ::testing::Test {
protected:
    void SetUp() override {
        install_standins();
        set_modem("4", "3625000", "20");
        // Without a working modem stand-in the first pass would wait forever.
        ASSERT_NE(shell("ubus call ubus_lte getlteinfo | grep dlfreq").find("3625000"), std::string::npos);
        create_router_links();
        open_all_gates_by_hand();
        gating::reset_runtime_cache();  // as at start-up: the forwarding check mirrors into it
        mkdir("/root/sas", 0755);
        mkdir("/etc/config", 0755);
        write_file(kLogPath, "");
        init_supervision_state(state);
    }
    void TearDown() override { stop_standalone_worker(); }

    void start_with(const std::string& enable_mode, const std::string& usedp,
                    const std::string& radio_enable) {
        write_file(kSasConfigPath, config_text(enable_mode, usedp, radio_enable));
    }

    // Runs passes until one finds the steady state; returns how many ran.
    int settle() {
        for (int n = 1; n <= 10; ++n)
            if (run_supervision_pass(state) == PassOutcome::kUnchanged) return n;
        ADD_FAILURE() << "the loop did not settle\n" << log();
        return -1;
    }
    std::string log() const { return read_file(kLogPath); }
    void clear_log() { write_file(kLogPath, ""); }

    SupervisionState state{};
};

}  // namespace supervision_test
}  // namespace cbsd::daemon
