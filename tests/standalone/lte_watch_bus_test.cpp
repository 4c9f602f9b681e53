// The worker's LTE watch over libubus: a query costs no process, so the
// worker asks the modem on every call and sees a link change at once, where
// through the CLI it rides on the pass's answer for up to 7 s
// (lte_watch_test.cpp).
#include "base/clock.h"
#include "bus/bus.h"
#include "modem/modem.h"
#include "standalone/lte_watch.h"
#include "support/real_ubus.h"

#include <gtest/gtest.h>

#include <memory>

namespace cbsd::standalone {
namespace {

int64_t fake_now_ms = 0;

class LteWatchOverTheBus : public ::testing::Test {
protected:
    void SetUp() override {
        CBSD_SKIP_WITHOUT_REAL_UBUS();
        ubus_ = std::make_unique<test::RealUbus>();
        test::RealUbus::set_modem_state(R"({"netstat": 4})");
        ASSERT_TRUE(ubus_->start_ubusd());
        ASSERT_TRUE(ubus_->start_modem_manager());
        ASSERT_TRUE(bus::start());
        ASSERT_TRUE(test::RealUbus::wait_until([] { return bus::connected(); }, 5000));
        base::set_clock({nullptr, nullptr, nullptr, [] { return fake_now_ms; }});
        fake_now_ms = 5000000;
    }
    void TearDown() override {
        base::set_clock({});
        bus::stop();
        ubus_.reset();
    }

    std::unique_ptr<test::RealUbus> ubus_;
};

TEST_F(LteWatchOverTheBus, ALinkChangeIsSeenOnTheNextCallWhateverTheWait) {
    EXPECT_FALSE(modem::queries_start_processes());
    for (uint32_t type : {HEART_BEAT_SUCCESS, NETWORK_ERROR, HEART_BEAT_ERROR}) {
        test::RealUbus::set_modem_state(R"({"netstat": 4})");
        ASSERT_TRUE(modem::is_lte_connected());  // the pass sees the link up
        test::RealUbus::set_modem_state(R"({"netstat": 1})");
        fake_now_ms += 1;  // a millisecond later, the link is down
        bool last_connected = true;
        OperTimer timer{1, 1, 0, type};
        EXPECT_TRUE(lte_link_changed(timer, last_connected)) << type;
        EXPECT_FALSE(last_connected) << type;
    }
}

}  // namespace
}  // namespace cbsd::standalone
