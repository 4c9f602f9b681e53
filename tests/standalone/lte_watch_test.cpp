// The worker's LTE watch: how old the supervision pass's answer may be before
// the worker asks the modem itself, waiting for a heartbeat or backing off.
#include "base/clock.h"
#include "modem/lab_modem.h"
#include "modem/modem.h"
#include "standalone/lte_watch.h"

#include <gtest/gtest.h>

namespace cbsd::standalone {
namespace {

int64_t fake_now_ms = 0;

class LteWatch : public ::testing::Test {
protected:
    void SetUp() override {
        base::set_clock({nullptr, nullptr, nullptr, [] { return fake_now_ms; }});
        fake_now_ms = 5000000;
        // The pass sees the link up; the link then drops without a pass.
        test::set_lab_modem(R"({"netstat": 4})");
        ASSERT_TRUE(modem::is_lte_connected());
        test::set_lab_modem(R"({"netstat": 1})");
    }
    void TearDown() override { base::set_clock({}); }

    static OperTimer timer(uint32_t type) { return OperTimer{1, 1, 0, type}; }
};

TEST_F(LteWatch, WaitingForTheHeartbeatTakesThePassAnswerForAPassAndAMargin) {
    bool last_connected = true;
    fake_now_ms += 7000;
    EXPECT_FALSE(lte_link_changed(timer(HEART_BEAT_SUCCESS), last_connected));  // not asked
    EXPECT_TRUE(last_connected);
    fake_now_ms += 1;
    EXPECT_TRUE(lte_link_changed(timer(HEART_BEAT_SUCCESS), last_connected));  // asked
    EXPECT_FALSE(last_connected);
}

TEST_F(LteWatch, BackingOffTakesOnlyAnAnswerAtMostOneSecondOld) {
    for (uint32_t type : {NETWORK_ERROR, RECV_TIMEOUT, RESPONSE_ERROR, HEART_BEAT_ERROR,
                          SUSPENDED_GRANT, OTHER}) {
        SetUp();
        bool last_connected = true;
        fake_now_ms += 1000;
        EXPECT_FALSE(lte_link_changed(timer(type), last_connected)) << type;
        fake_now_ms += 1;
        EXPECT_TRUE(lte_link_changed(timer(type), last_connected)) << type;
        EXPECT_FALSE(last_connected);
    }
}

}  // namespace
}  // namespace cbsd::standalone
