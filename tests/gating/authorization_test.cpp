#include "gating/authorization.h"

#include "gating/gates.h"
#include "gating_fixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace cbsd;
using namespace cbsd::test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

class AuthorizationTest : public AuthorizedDeviceTest {
protected:
    void SetUp() override {
        AuthorizedDeviceTest::SetUp();
        add_interface("eth1.112", "lab0");
        add_interface("usb0.112", "lab1");
    }

    static void expect_all_open() {
        EXPECT_EQ(ip_forward(), "1\n1\n");
        EXPECT_THAT(output_rules(), IsEmpty());
        EXPECT_THAT(bridge_rules(), IsEmpty());
    }

    static void expect_all_closed() {
        EXPECT_EQ(ip_forward(), "0\n0\n");
        EXPECT_THAT(output_rules(),
                    ElementsAre("-A OUTPUT -o br-lan -p icmp -m icmp --icmp-type 8/0 -j ACCEPT",
                                "-A OUTPUT -p icmp -m icmp --icmp-type 8 -j DROP"));
        EXPECT_THAT(bridge_rules(), ElementsAre("-o usb0.112+ -j DROP ", "-o eth1.112+ -j DROP "));
    }

    static void open_device_quietly() {
        set_kernel_forwarding(1, 1);
        shell("iptables -F OUTPUT; ebtables -F BRIDGE_FORWARD");
    }

    static void close_device_quietly() {
        gating::unauthorize_device(0);
        shell("rm -f /root/sas/sas.log /etc/lab/syslog.jsonl");
    }
};

// ----- switches --------------------------------------------------------------

TEST_F(AuthorizationTest, UnauthorizeClosesEveryGateInOrder) {
    open_device_quietly();
    gating::unauthorize_device(1);
    expect_all_closed();
    EXPECT_THAT(log_messages(),
                ElementsAre("[SAS] IP forward is disable.", "[SAS] firewall ICMP is disable.",
                            "[SAS] bridge forward is disable.", "[SAS] bridge forward is disable.",
                            "[SAS] device has been unauthorized.", ""));
    EXPECT_EQ(syslog_records().size(), 5u);
    EXPECT_EQ(cache_value("SAS_IP_FORWARD"), "0");
    EXPECT_EQ(cache_value("SAS_FIREWALL_ICMP"), "0");
    EXPECT_EQ(cache_value("SAS_BRIDGE_FORWARD"), "0");
}

TEST_F(AuthorizationTest, UnauthorizeOnAClosedDeviceLogsOnlyTheAnnouncement) {
    close_device_quietly();
    gating::unauthorize_device(1);
    expect_all_closed();
    EXPECT_EQ(log_messages().size(), 2u);
    EXPECT_NE(log_text().find("[SAS] device has been unauthorized.\n\n"), std::string::npos);
    EXPECT_THAT(syslog_records(),
                ElementsAre(R"({"priority": "5", "tag": "cbsd", "text": "[SAS] device has been unauthorized.\n\n"})"));
}

TEST_F(AuthorizationTest, AuthorizeOpensEveryGateInOrder) {
    close_device_quietly();
    gating::authorize_device(1);
    expect_all_open();
    EXPECT_THAT(log_messages(),
                ElementsAre("[SAS] IP forward is enable.", "[SAS] firewall ICMP is enable.",
                            "[SAS] bridge forward is enable.", "[SAS] device has been authorized.",
                            ""));
    EXPECT_EQ(cache_value("SAS_BRIDGE_FORWARD"), "1");
}

TEST_F(AuthorizationTest, AuthorizeWithoutAnnouncementOnAnOpenDeviceLogsNothing) {
    open_device_quietly();
    gating::authorize_device(0);
    expect_all_open();
    EXPECT_EQ(log_text(), "");
    EXPECT_THAT(syslog_records(), IsEmpty());
    // The inspections ran: the forwarding check left its mirror in the cache.
    EXPECT_EQ(cache_value("SAS_IP_FORWARD"), "1");
}

TEST_F(AuthorizationTest, RecoverAlwaysLogs) {
    open_device_quietly();
    gating::recover_network();
    gating::recover_network();
    expect_all_open();
    EXPECT_THAT(log_messages(), ElementsAre("[SAS] device network has been recovered.", "",
                                            "[SAS] device network has been recovered.", ""));
    EXPECT_EQ(syslog_records().size(), 2u);
}

TEST_F(AuthorizationTest, RecoverOpensAClosedDevice) {
    close_device_quietly();
    gating::recover_network();
    expect_all_open();
    EXPECT_EQ(log_messages().size(), 5u);
}

TEST_F(AuthorizationTest, UnauthorizeRepairsAPartlyOpenedDevice) {
    close_device_quietly();
    shell("ebtables -D BRIDGE_FORWARD -o eth1.112+ -j DROP; echo 1 > /proc/sys/net/ipv4/ip_forward");
    gating::unauthorize_device(0);
    EXPECT_EQ(ip_forward(), "0\n0\n");
    EXPECT_THAT(bridge_rules(), ElementsAre("-o usb0.112+ -j DROP ", "-o eth1.112+ -j DROP ",
                                            "-o usb0.112+ -j DROP "));
    EXPECT_THAT(log_messages(),
                ElementsAre("[SAS] IP forward is disable.", "[SAS] bridge forward is disable.",
                            "[SAS] bridge forward is disable."));
}

}  // namespace
