#include "standalone/worker_control.h"

#include "worker_fixture.h"

#include <gtest/gtest.h>

#include "standalone/transmit_deadline.h"

#include <chrono>
#include <fcntl.h>
#include <string>
#include <sys/file.h>
#include <thread>
#include <unistd.h>

namespace cbsd::standalone {
namespace {

TEST_F(WorkerControl, StartWhileAWorkerExistsIsIgnoredUntilItIsStopped) {
    config::config_set(config::kSasConfigPath, "config", "address", "");
    start_standalone_worker();
    ASSERT_TRUE(test::wait_until(
        [] { return log_text().find("[SAS] standalone_thread exit.\n") != std::string::npos; }));
    // The worker ended on its own and left the flag set: a start is refused.
    EXPECT_EQ(worker_running.load(), 1);
    start_standalone_worker();
    std::string log = log_text();
    EXPECT_EQ(occurrences(log, "[SAS] create standalone thread["), 1u);
    EXPECT_EQ(occurrences(log, "[SAS] standalone_thread is running.\n"), 1u);

    std::string id = created_thread_id(log);
    ASSERT_FALSE(id.empty());
    stop_standalone_worker();
    log = log_text();
    EXPECT_NE(log.find("[SAS] waiting StandAlone thread[" + id + "] stop...\n"), std::string::npos);
    EXPECT_NE(log.find("[SAS] StandAlone thread[" + id + "] is stopped\n"), std::string::npos);
    EXPECT_EQ(worker_running.load(), 0);

    // A stop without a worker only clears the flag.
    stop_standalone_worker();
    EXPECT_EQ(occurrences(log_text(), "[SAS] waiting StandAlone thread["), 1u);

    start_standalone_worker();
    EXPECT_EQ(occurrences(log_text(), "[SAS] create standalone thread["), 2u);
}

TEST_F(WorkerControl, StopRightAfterStartIsNotUndoneByTheStartingWorker) {
    config::config_set(config::kSasConfigPath, "config", "address", "");
    for (int i = 0; i < 20; ++i) {
        start_standalone_worker();
        stop_standalone_worker();
        ASSERT_EQ(worker_running.load(), 0) << "round " << i;
    }
}

// The bounded stop measures its limit on the monotonic clock and gives up
// when the worker is stuck in an exchange (here a SAS that answers late).
TEST_F(WorkerControl, BoundedStopGivesUpAfterItsLimitAndJoinsAStoppedWorkerAtOnce) {
    EXPECT_TRUE(stop_standalone_worker_within(1));  // no worker: nothing to wait for
    test::sim_push("registration", R"({"delay":4})");
    start_standalone_worker();
    ASSERT_TRUE(test::wait_until([] { return test::sim_endpoints().size() == 1; })) << log_text();
    auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(stop_standalone_worker_within(1));
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    EXPECT_GE(seconds, 0.9);
    EXPECT_LT(seconds, 2.0);
    // Once the late reply is in, the worker ends and the next bounded stop joins it.
    ASSERT_TRUE(test::wait_until(
        [] { return log_text().find("[SAS] standalone_thread exit.\n") != std::string::npos; }));
    begin = std::chrono::steady_clock::now();
    EXPECT_TRUE(stop_standalone_worker_within(5));
    seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    EXPECT_LT(seconds, 1.0);
}

TEST_F(WorkerControl, StopEndsAWaitingWorkerWithinAboutASecond) {
    test::sim_push("registration", R"({"responseCode":200})");
    start_standalone_worker();
    ASSERT_TRUE(test::wait_until([] { return test::sim_endpoints().size() == 1; })) << log_text();
    auto begin = std::chrono::steady_clock::now();
    stop_standalone_worker();
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    EXPECT_LT(seconds, 2.5);
    EXPECT_EQ(test::sim_endpoints(), (std::vector<std::string>{"registration"}));
    EXPECT_NE(log_text().find("[SAS] standalone_thread exit.\n"), std::string::npos);
}

TEST_F(WorkerControl, StopOfAnAuthorizedWorkerGivesTheGrantBack) {
    start_standalone_worker();
    ASSERT_TRUE(test::wait_until([] { return status() == "Authorized"; }));
    stop_standalone_worker();
    auto seen = test::sim_endpoints();
    ASSERT_GE(seen.size(), 2u);
    EXPECT_EQ(std::vector<std::string>(seen.end() - 2, seen.end()),
              (std::vector<std::string>{"relinquishment", "deregistration"}));
}

// Holds /etc/config/sas under an exclusive lock, as another process's
// commit would, so that the worker blocks on its next store access: a wait
// that no exchange time-out ends.
class StoreLockHolder {
public:
    StoreLockHolder() : fd_(open(config::kSasConfigPath, O_RDONLY | O_CLOEXEC)) {
        if (fd_ >= 0) flock(fd_, LOCK_EX);
    }
    ~StoreLockHolder() { release(); }
    void release() {
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
    }

private:
    int fd_;
};

double seconds_since(std::chrono::steady_clock::time_point begin) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// The stop gives up after its bound; the worker is fenced (a success can
// hold no deadline), no other worker starts while it lives, its exchanges
// end at once when it goes on, and a later start runs normally again.
TEST_F(WorkerControl, StopThatRunsOutOfTimeLeavesAFencedWorkerAndNoSecondOne) {
    test::sim_push("registration", R"({"delay":1})");
    ASSERT_TRUE(start_standalone_worker());
    ASSERT_TRUE(test::wait_until([] { return test::sim_endpoints().size() == 1; })) << log_text();
    StoreLockHolder lock;  // the reply's "Registered" waits for this lock
    auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(stop_standalone_worker(2));
    EXPECT_GE(seconds_since(begin), 1.9);
    EXPECT_LT(seconds_since(begin), 3.0);
    EXPECT_TRUE(stopped_worker_still_ending());
    EXPECT_EQ(live_standalone_workers(), 1u);
    EXPECT_FALSE(collect_stopped_worker());
    EXPECT_FALSE(start_standalone_worker());
    EXPECT_EQ(live_standalone_workers(), 1u);
    hold_transmit_deadline(base::monotonic_ms64() + 60000);
    EXPECT_FALSE(transmit_deadline_held(base::monotonic_ms64()));

    lock.release();
    begin = std::chrono::steady_clock::now();
    ASSERT_TRUE(test::wait_until([] { return live_standalone_workers() == 0; }, 5));
    EXPECT_LT(seconds_since(begin), 3.0);
    // Registered when it went on: its deregistration was cut short at once.
    EXPECT_EQ(status(), "Registered");
    EXPECT_NE(log_text().find("[SAS] libcurl: (42)"), std::string::npos) << log_text();
    EXPECT_NE(log_text().find("did not stop within 2 s"), std::string::npos);
    EXPECT_TRUE(collect_stopped_worker());
    EXPECT_FALSE(stopped_worker_still_ending());

    test::sim_clear();
    config::config_set(config::kSasConfigPath, "operation", "status", "Unregistered");
    ASSERT_TRUE(start_standalone_worker());
    // "Authorized" is stored a moment before the deadline is held: wait for both.
    EXPECT_TRUE(test::wait_until([] {
        return status() == "Authorized" && transmit_deadline_held(base::monotonic_ms64());
    })) << log_text();
}

TEST_F(WorkerControl, NoWorkerStartsOnceTheProcessStopBegan) {
    allow_worker_starts(false);
    EXPECT_FALSE(start_standalone_worker());
    EXPECT_EQ(live_standalone_workers(), 0u);
    EXPECT_EQ(worker_running.load(), 0);
    EXPECT_EQ(log_text().find("create standalone thread"), std::string::npos);
    allow_worker_starts(true);
    EXPECT_TRUE(start_standalone_worker());
}

// The process's stop may run on another thread while the main thread starts
// a worker: either the start is refused, or the stop sees the worker and
// ends it; a "running" stored after the stop's first clear never stands.
TEST_F(WorkerControl, TheFinalStopOnAnotherThreadWinsOverAConcurrentStart) {
    test::sim_set_default("registration", R"({"responseCode":200})");
    // The worker's pass sleeps go by a hundred times faster: only the race counts.
    base::set_clock({nullptr, nullptr, [](uint32_t ms) { usleep(ms * 10); }});
    test::QuietLogger quiet;
    for (int round = 0; round < 40; ++round) {
        allow_worker_starts(true);
        bool ended = false;
        std::thread stopper([&ended, round] {
            usleep(static_cast<useconds_t>(round % 8) * 250);
            allow_worker_starts(false);
            ended = stop_standalone_worker_within(3);
        });
        start_standalone_worker();
        stopper.join();
        ASSERT_TRUE(ended) << "round " << round << "\n" << log_text();
        ASSERT_EQ(live_standalone_workers(), 0u) << "round " << round;
        ASSERT_TRUE(stop_standalone_worker());  // joins what the final stop left
    }
    allow_worker_starts(true);
    base::set_clock({});
}

}  // namespace
}  // namespace cbsd::standalone
