#include "standalone/worker_control.h"

#include "worker_fixture.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

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

}  // namespace
}  // namespace cbsd::standalone
