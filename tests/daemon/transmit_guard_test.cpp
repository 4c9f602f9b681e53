#include "daemon/transmit_guard.h"

#include "gating/authorization.h"
#include "gating/gates.h"
#include "gating/gating_fixture.h"
#include "standalone/transmit_deadline.h"

#include <gtest/gtest.h>

namespace cbsd::daemon {
namespace {

constexpr int64_t kNow = 7000000;

class TransmitGuardTest : public test::GatingTest {
protected:
    void SetUp() override {
        test::GatingTest::SetUp();
        add_interface("eth1.112", "tg0");
        standalone::drop_transmit_deadline();
        arm_transmit_guard(false);
    }
    void TearDown() override {
        arm_transmit_guard(false);
        standalone::drop_transmit_deadline();
    }
    static bool any_gate_open() {
        return gating::is_ip_forward_enabled() || gating::is_firewall_icmp_open() ||
               gating::is_bridge_forward_open();
    }
};

TEST_F(TransmitGuardTest, ArmedWithoutADeadlineClosesEveryGateOnce) {
    gating::authorize_device(0);
    ASSERT_TRUE(any_gate_open());
    arm_transmit_guard(true);
    bool closed = false;
    EXPECT_TRUE(run_guard_check(closed, kNow));
    EXPECT_FALSE(any_gate_open());
    EXPECT_NE(log_text().find("[SAS] no valid transmit authorization, traffic stopped.\n"),
              std::string::npos);
    // Once closed, later checks do not inspect again until authorised anew.
    gating::authorize_device(0);
    EXPECT_FALSE(run_guard_check(closed, kNow + 1000));
    EXPECT_TRUE(any_gate_open());
}

TEST_F(TransmitGuardTest, ClosesWhenTheDeadlinePasses) {
    gating::authorize_device(0);
    arm_transmit_guard(true);
    standalone::hold_transmit_deadline(kNow + 5000);
    bool closed = false;
    EXPECT_FALSE(run_guard_check(closed, kNow + 4999));
    EXPECT_TRUE(any_gate_open());
    EXPECT_TRUE(run_guard_check(closed, kNow + 5000));
    EXPECT_FALSE(any_gate_open());
}

TEST_F(TransmitGuardTest, UnarmedLeavesTheGatesAlone) {
    gating::authorize_device(0);
    bool closed = false;
    EXPECT_FALSE(run_guard_check(closed, kNow));
    EXPECT_TRUE(any_gate_open());
    EXPECT_TRUE(transmit_allowed(kNow));
}

TEST_F(TransmitGuardTest, AlreadyClosedGatesAreNotLogged) {
    gating::unauthorize_device(0);
    ASSERT_FALSE(any_gate_open());
    test::shell("rm -f /root/sas/sas.log");
    arm_transmit_guard(true);
    bool closed = false;
    EXPECT_FALSE(run_guard_check(closed, kNow));
    EXPECT_EQ(log_text().find("no valid transmit authorization"), std::string::npos);
}

TEST_F(TransmitGuardTest, ANewDeadlineRearmsTheCheck) {
    arm_transmit_guard(true);
    bool closed = false;
    run_guard_check(closed, kNow);
    standalone::hold_transmit_deadline(kNow + 2000);
    gating::authorize_device(0);
    EXPECT_FALSE(run_guard_check(closed, kNow + 1000));
    EXPECT_TRUE(run_guard_check(closed, kNow + 2000));
    EXPECT_FALSE(any_gate_open());
}

}  // namespace
}  // namespace cbsd::daemon
