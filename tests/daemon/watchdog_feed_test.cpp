// procd's watchdog is fed only while the supervision loop and the transmit
// guard both make progress: each thread's mark is renewed by its own steps
// (a pass or check, a command it ran, a bus call it made), the feed pings
// while neither mark is older than its bound, and says once when it stops
// and once when it starts again.  The daemon's clock is a fake one here.
#include "daemon/watchdog_feed.h"

#include "base/clock.h"
#include "base/progress.h"
#include "base/system.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace cbsd::daemon {
namespace {

constexpr int64_t kStart = 5'000'000;
constexpr const char* kLoopStalled = "[SAS] the supervision loop made no progress for 46 s";
constexpr const char* kGuardStalled = "[SAS] the transmit guard made no progress for 16 s";
constexpr const char* kFedAgain =
    "[SAS] the supervision loop and the transmit guard make progress again, procd's watchdog "
    "is fed again.\n";

struct FakeClock {
    static inline int64_t now_ms = 0;
    static int64_t ms64() { return now_ms; }
};

int pings = 0;
bool procd_takes_pings = true;
bool count_ping(const WatchedInstance& watched) {
    EXPECT_EQ(watched.service, "cbsd");
    EXPECT_EQ(watched.instance, "instance1");
    ++pings;
    return procd_takes_pings;
}

int count(const std::string& text, const std::string& what) {
    int n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

class WatchdogFeed : public ::testing::Test {
protected:
    void SetUp() override {
        base::set_clock({nullptr, nullptr, nullptr, FakeClock::ms64});
        FakeClock::now_ms = kStart;
        pings = 0;
        procd_takes_pings = true;
        reset_watchdog_feed();
        loop_mark().renew(0);
        guard_mark().renew(0);
        mkdir("/root/sas", 0755);
        test::write_file("/root/sas/sas.log", "");
        // This test's thread plays the loop; the guard renews through its mark.
        base::watch_this_thread(&loop_mark());
    }
    void TearDown() override {
        base::watch_this_thread(nullptr);
        base::set_clock({});
    }
    static void feed() { feed_watchdog(base::monotonic_ms64(), {"cbsd", "instance1", 30}, count_ping); }
    static void pass(int64_t ms) { FakeClock::now_ms += ms; }
    static std::string log_text() { return test::read_file("/root/sas/sas.log"); }
};

TEST_F(WatchdogFeed, BoundsKeepTheirDerivedValues) {
    EXPECT_EQ(kWatchdogPingMs, 5000);
    EXPECT_EQ(kLoopStallMs, 45000);
    EXPECT_EQ(kGuardStallMs, 15000);
}

TEST_F(WatchdogFeed, FreshMarksPingEveryTurnWithoutALogLine) {
    guard_mark().renew(kStart);
    for (int turn = 0; turn < 4; ++turn) {
        pass(kWatchdogPingMs);
        base::note_step_done();
        guard_mark().renew(base::monotonic_ms64());
        feed();
    }
    EXPECT_EQ(pings, 4);
    EXPECT_EQ(log_text(), "");
}

TEST_F(WatchdogFeed, ALoopMarkOlderThanItsBoundStopsThePingsAndSaysSoOnce) {
    pass(kLoopStallMs);
    guard_mark().renew(base::monotonic_ms64());
    feed();  // exactly the bound: still fresh
    EXPECT_EQ(pings, 1);
    pass(1000);
    guard_mark().renew(base::monotonic_ms64());
    feed();
    pass(kWatchdogPingMs);
    guard_mark().renew(base::monotonic_ms64());
    feed();
    EXPECT_EQ(pings, 1);
    EXPECT_EQ(count(log_text(), kLoopStalled), 1) << log_text();
    EXPECT_EQ(stalled_thread(base::monotonic_ms64(), loop_mark().last_ms(), guard_mark().last_ms()),
              Stall::kLoop);
}

TEST_F(WatchdogFeed, AGuardMarkOlderThanItsBoundStopsThePings) {
    guard_mark().renew(kStart);
    pass(kGuardStallMs);
    base::note_step_done();
    feed();  // exactly the bound: still fresh
    pass(1000);
    base::note_step_done();
    feed();
    EXPECT_EQ(pings, 1);
    EXPECT_EQ(count(log_text(), kGuardStalled), 1) << log_text();
}

TEST_F(WatchdogFeed, AGuardThatHasNotStartedYetLeavesTheLoopAlone) {
    ASSERT_EQ(guard_mark().last_ms(), 0);
    pass(10 * kGuardStallMs);
    base::note_step_done();
    feed();
    EXPECT_EQ(pings, 1);
    EXPECT_EQ(stalled_thread(base::monotonic_ms64(), loop_mark().last_ms(), 0), Stall::kNone);
}

TEST_F(WatchdogFeed, PingsStartAgainWhenTheLoopMovesAgainWithOneLine) {
    guard_mark().renew(kStart);
    pass(kLoopStallMs + 1);
    guard_mark().renew(base::monotonic_ms64());
    feed();
    EXPECT_EQ(pings, 0);
    base::note_step_done();  // the loop's next step
    feed();
    feed();
    EXPECT_EQ(pings, 2);
    EXPECT_EQ(count(log_text(), kFedAgain), 1) << log_text();
}

TEST_F(WatchdogFeed, ACommandTheLoopRanRenewsItsMarkAtTheTimeItEnded) {
    pass(30000);
    ASSERT_EQ(base::run_status("true"), 0);
    EXPECT_EQ(loop_mark().last_ms(), kStart + 30000);
    // A command cut at its time limit is progress too: the step has ended.
    pass(10000);
    EXPECT_EQ(base::run_status("sleep 5", 1), -1);
    EXPECT_EQ(loop_mark().last_ms(), kStart + 40000);
}

TEST_F(WatchdogFeed, StepsOfAThreadThatIsNotWatchedRenewNoMark) {
    pass(30000);
    std::thread other([] {
        base::note_step_done();
        base::run_status("true");
    });
    other.join();
    EXPECT_EQ(loop_mark().last_ms(), kStart);
    EXPECT_EQ(guard_mark().last_ms(), 0);
}

TEST_F(WatchdogFeed, PingsProcdDoesNotTakeAreLoggedOncePerStreak) {
    procd_takes_pings = false;
    feed();
    feed();
    feed();
    procd_takes_pings = true;
    feed();
    EXPECT_EQ(pings, 4);
    std::string log = log_text();
    EXPECT_EQ(count(log, "[SAS] procd's watchdog did not take a ping.\n"), 1) << log;
    EXPECT_EQ(count(log, "[SAS] procd's watchdog takes the pings again.\n"), 1) << log;
}

// procd's `service list`, as the bus hands it over (two services, the
// daemon's instance watched, another one not).
std::string service_list(long pid, const char* watchdog) {
    return std::string(R"({
	"dnsmasq": {
		"instances": {
			"cfg01411c": { "running": true, "pid": 812, "command": [ "/usr/sbin/dnsmasq" ],
				"term_timeout": 5 }
		}
	},
	"cbsd": {
		"instances": {
			"instance1": { "running": true, "pid": )") +
           std::to_string(pid) + R"(, "command": [ "/usr/sbin/cbsd", "-D" ],
				"term_timeout": 15)" + watchdog + R"( }
		}
	}
}
)";
}

constexpr const char* kWatchdogOn = R"(, "watchdog": { "mode": 1, "timeout": 30 })";

TEST_F(WatchdogFeed, ProcdsListNamesTheInstanceWithThisPidAndItsTimeout) {
    WatchedInstance found;
    EXPECT_EQ(find_watched_instance(service_list(4242, kWatchdogOn), 4242, found), Lookup::kWatched);
    EXPECT_EQ(found.service, "cbsd");
    EXPECT_EQ(found.instance, "instance1");
    EXPECT_EQ(found.timeout_s, 30);
}

TEST_F(WatchdogFeed, AnInstanceWithoutWatchdogOrAnotherPidIsNotWatched) {
    WatchedInstance found;
    EXPECT_EQ(find_watched_instance(service_list(4242, ""), 4242, found), Lookup::kNotWatched);
    EXPECT_EQ(find_watched_instance(service_list(4242, kWatchdogOn), 812, found),
              Lookup::kNotWatched);
    EXPECT_EQ(find_watched_instance(service_list(4242, kWatchdogOn), 4243, found),
              Lookup::kNotWatched);
    EXPECT_EQ(find_watched_instance(service_list(4242, R"(, "watchdog": { "mode": 0, "timeout": 30 })"),
                                    4242, found),
              Lookup::kNotWatched);
    EXPECT_EQ(find_watched_instance("{}", 4242, found), Lookup::kNotWatched);
}

TEST_F(WatchdogFeed, AReplyThatIsNoServiceListIsUnreadable) {
    WatchedInstance found;
    EXPECT_EQ(find_watched_instance("", 4242, found), Lookup::kUnreadable);
    EXPECT_EQ(find_watched_instance("[1, 2]", 4242, found), Lookup::kUnreadable);
    EXPECT_EQ(find_watched_instance("{\"cbsd\": ", 4242, found), Lookup::kUnreadable);
}

}  // namespace
}  // namespace cbsd::daemon
