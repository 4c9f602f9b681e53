// The bus thread against a real ubusd: calls answer within their limit
// whatever ubusd does, a served object answers the real `ubus` CLI, events
// reach `ubus listen`, periodic work runs on the thread.
#include "bus/bus.h"
#include "support/real_ubus.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>

namespace cbsd::bus {
namespace {

using std::chrono::steady_clock;

int64_t elapsed_ms(steady_clock::time_point since) {
    return std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now() - since).count();
}

TEST(BusWithoutThread, CallsEndWithNoBus) {
    EXPECT_FALSE(running());
    EXPECT_EQ(call("ubus_lte", "getlteinfo", nullptr, 1000).end, CallEnd::kNoBus);
}

class BusOnRealUbusd : public ::testing::Test {
protected:
    void SetUp() override {
        CBSD_SKIP_WITHOUT_REAL_UBUS();
        ubus_ = std::make_unique<test::RealUbus>();
        test::RealUbus::set_modem_state(R"({"netstat": 4})");
        ASSERT_TRUE(ubus_->start_ubusd());
        ASSERT_TRUE(ubus_->start_modem_manager());
    }
    void TearDown() override {
        if (ubus_) ubus_->thaw_ubusd();
        stop();
        ubus_.reset();
    }
    void start_and_connect() {
        ASSERT_TRUE(start());
        ASSERT_TRUE(test::RealUbus::wait_until([] { return connected(); }, 5000));
    }

    std::unique_ptr<test::RealUbus> ubus_;
};

TEST_F(BusOnRealUbusd, ACallGetsTheReplyAsTheCliPrintsIt) {
    start_and_connect();
    CallResult result = call("ubus_lte", "getltestatus", nullptr, 2000);
    EXPECT_EQ(result.end, CallEnd::kAnswered);
    EXPECT_EQ(result.reply, test::shell("ubus call ubus_lte getltestatus"));
}

// A frozen ubusd holds the bus thread up: every caller still gets its answer
// (a time-out) within its own limit, none fails early because others gave
// up before it, and the bus works again once ubusd does.
TEST_F(BusOnRealUbusd, AFrozenUbusdCostsEachCallerItsLimitAndNoMore) {
    start_and_connect();
    ubus_->freeze_ubusd();
    for (int i = 0; i < 20; ++i) {
        auto started = steady_clock::now();
        CallResult result = call("ubus_lte", "getltestatus", nullptr, 100);
        int64_t took = elapsed_ms(started);
        EXPECT_EQ(result.end, CallEnd::kTimedOut) << i;
        EXPECT_GE(took, 100) << i;
        EXPECT_LT(took, 100 + 1000) << i;
    }
    ubus_->thaw_ubusd();
    EXPECT_TRUE(test::RealUbus::wait_until(
        [] { return call("ubus_lte", "getltestatus", nullptr, 1000).end == CallEnd::kAnswered; },
        5000));
}

TEST_F(BusOnRealUbusd, ToolsStartedMeanwhileDoNotInheritTheConnection) {
    const char* sockets_of_a_child = "ls -l /proc/self/fd | grep -c socket:";
    std::string before = test::shell(sockets_of_a_child);
    start_and_connect();
    EXPECT_EQ(test::shell(sockets_of_a_child), before);
}

TEST_F(BusOnRealUbusd, AServedObjectAnswersTheCli) {
    serve_object("cbsd_test", {Method{"hello", [] { return std::string(R"({"said": "<b>hi</b>", "n": 3})"); }}});
    start_and_connect();
    EXPECT_TRUE(test::RealUbus::wait_until(
        [] { return test::shell("ubus list cbsd_test 2>/dev/null") == "cbsd_test\n"; }, 3000));
    EXPECT_EQ(test::shell("ubus call cbsd_test hello"), "{\n\t\"said\": \"<b>hi</b>\",\n\t\"n\": 3\n}\n");
    EXPECT_EQ(test::shell("ubus call cbsd_test nothing 2>&1; echo $?"),
              "Command failed: ubus call cbsd_test nothing (Method not found)\n253\n");
}

TEST_F(BusOnRealUbusd, AnEventReachesAListener) {
    start_and_connect();
    test::shell("(timeout 3 ubus listen cbsd.test > /tmp/heard 2>&1 &)");
    // `ubus listen` registers with ubusd a moment after it starts.
    EXPECT_TRUE(test::RealUbus::wait_until(
        [] {
            send_event("cbsd.test", R"({"state": "Authorized"})");
            return test::read_file("/tmp/heard").find("Authorized") != std::string::npos;
        },
        2500));
    EXPECT_NE(test::read_file("/tmp/heard").find(R"({ "cbsd.test": {"state":"Authorized"} })"),
              std::string::npos) << test::read_file("/tmp/heard");
}

TEST_F(BusOnRealUbusd, PeriodicWorkRunsOnTheBusThread) {
    static std::atomic<int> runs{0};
    static std::atomic<bool> answered{false};
    every(50, [] {
        ++runs;
        answered = call("ubus_lte", "getltestatus", nullptr, 1000).end == CallEnd::kAnswered;
    });
    start_and_connect();
    EXPECT_TRUE(test::RealUbus::wait_until([] { return runs >= 3; }, 2000));
    EXPECT_TRUE(answered);
}

}  // namespace
}  // namespace cbsd::bus
