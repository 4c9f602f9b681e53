// A clean router network for each gating test, inside the unit-test sandbox's
// own network namespace: chosen VLAN interfaces (veth, brought up), an empty
// BRIDGE_FORWARD chain, an empty OUTPUT chain, forwarding off, a fresh cache
// and log.  The lab's stand-ins come first on PATH, so `ebtables -L` lists
// rules with the router's trailing blank and `logger` records its calls.
#pragma once

#include "config/authorized_sample.h"
#include "config/lab_log.h"
#include "config/uci_store.h"
#include "base/settings.h"
#include "gating/gates.h"
#include "support/test_util.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace cbsd::test {

inline std::string cache_value(const char* option) {
    char value[32] = {};
    config::config_get(config::kRuntimeCachePath, "cache", option, value, sizeof value);
    return value;
}

class GatingTest : public ::testing::Test {
protected:
    void SetUp() override {
        put_lab_stand_ins_on_path();
        shell("for l in eth1.112 usb0.112 br-lan; do ip link del $l 2>/dev/null; done;"
              "iptables -F OUTPUT; ebtables -N BRIDGE_FORWARD 2>/dev/null;"
              "ebtables -F BRIDGE_FORWARD;"
              "echo 0 > /proc/sys/net/ipv4/ip_forward;"
              "echo 0 > /proc/sys/net/ipv6/conf/all/forwarding;"
              "rm -rf /root/sas /etc/lab/syslog.jsonl; mkdir -p /root/sas /etc/lab");
        base::settings().logLevel = 7;
        gating::reset_runtime_cache();
    }

    // A VLAN port as the router has it: up, so plain `ifconfig` lists it.
    static void add_interface(const std::string& name, const std::string& peer) {
        ASSERT_EQ(shell("ip link add " + name + " type veth peer name " + peer + " && ip link set " +
                        name + " up && echo ok"),
                  "ok\n");
    }

    static std::string log_text() { return sas_log_text(); }
    static std::vector<std::string> log_messages() { return sas_log_messages(); }
    static std::vector<std::string> syslog_records() { return syslog_record_lines(); }

    static std::vector<std::string> output_rules() {
        return lines_of(shell("iptables -S OUTPUT | grep -v '^-P'"));
    }

    // Rule lines exactly as the router's ebtables lists them.
    static std::vector<std::string> bridge_rules() {
        return lines_of(shell("ebtables -L BRIDGE_FORWARD | grep -v '^Bridge' | grep -v '^$'"));
    }

    static std::string ip_forward() {
        return shell("cat /proc/sys/net/ipv4/ip_forward /proc/sys/net/ipv6/conf/all/forwarding");
    }

    static void set_kernel_forwarding(int ipv4, int ipv6) {
        shell("echo " + std::to_string(ipv4) + " > /proc/sys/net/ipv4/ip_forward; echo " +
              std::to_string(ipv6) + " > /proc/sys/net/ipv6/conf/all/forwarding");
    }
};

// The gates of an authorized device: its store (tests/config/authorized_sample.h)
// and a modem on a 20 MHz cell.
class AuthorizedDeviceTest : public GatingTest {
protected:
    void SetUp() override {
        GatingTest::SetUp();
        shell("mkdir -p /etc/config");
        write_file("/etc/config/sas", kAuthorizedSasConfig);
        set_modem(R"({"bandwidth": 20})");
    }

    static void set_modem(const std::string& state) { write_file("/etc/lab/modem.json", state); }
};

}  // namespace cbsd::test
