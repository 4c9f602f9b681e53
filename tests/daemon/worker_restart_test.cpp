#include "daemon/supervision.h"

#include "standalone/worker_fixture.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>

namespace cbsd::daemon {
namespace {

using standalone::WorkerControl;
using standalone::log_text;
using standalone::occurrences;
using standalone::status;
using standalone::start_standalone_worker;
using standalone::worker_running;

TEST_F(WorkerControl, RestartClearsTheStateAndStartsAFreshWorker) {
    start_standalone_worker();
    ASSERT_TRUE(test::wait_until([] { return status() == "Authorized"; }));
    test::sim_push("registration", R"({"responseCode":200})");  // hold the new worker
    auto begin = std::chrono::steady_clock::now();
    restart_standalone_worker();
    double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    EXPECT_GE(seconds, 1.0);
    EXPECT_EQ(worker_running.load(), 1);
    ASSERT_TRUE(test::wait_until(
        [] { return test::count_of(test::sim_endpoints(), "registration") == 2; }));
    EXPECT_EQ(status(), "Unregistered");
    EXPECT_EQ(occurrences(log_text(), "[SAS] create standalone thread["), 2u);
}

}  // namespace
}  // namespace cbsd::daemon
