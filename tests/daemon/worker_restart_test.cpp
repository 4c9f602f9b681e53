#include "daemon/supervision.h"

#include "gating/gates.h"
#include "standalone/worker_fixture.h"
#include "supervision_fixture.h"

#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <unistd.h>

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

double seconds_since(std::chrono::steady_clock::time_point begin) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// Passes of the loop until the device is Authorized and its gates are open.
bool run_until_authorized(SupervisionState& state) {
    return test::wait_until(
        [&state] {
            run_supervision_pass(state);
            return status() == "Authorized" && supervision_test::all_gates_open();
        },
        30);
}

// A configuration change restarts the worker while the SAS holds its
// relinquishment: the stop gives up after its bound, the gates close at once,
// and the new worker starts only on the pass that finds the old one ended.
TEST_F(WorkerControl, RestartWhoseOldWorkerOutlivesItsStopStartsTheNewOneAfterIt) {
    supervision_test::install_standins();
    test::set_modem("4", "3625000", "20");
    supervision_test::create_router_links();
    gating::reset_runtime_cache();
    SupervisionState state;
    init_supervision_state(state);
    ASSERT_TRUE(run_until_authorized(state)) << log_text();

    test::sim_set_default("relinquishment", R"({"delay":30})");
    config::config_set(config::kSasConfigPath, "config", "callSign", "CALL9");
    auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(run_supervision_pass(state), PassOutcome::kChanged);
    EXPECT_GE(seconds_since(begin), standalone::kWorkerStopWaitSeconds);
    // The pass around it, its gate closes included (slow under the sanitizers);
    // far below the 30 s the held relinquishment would take.
    EXPECT_LT(seconds_since(begin), standalone::kWorkerStopWaitSeconds + 10.0);
    EXPECT_TRUE(worker_start_deferred());
    EXPECT_TRUE(supervision_test::all_gates_closed()) << supervision_test::describe_gates();
    EXPECT_NE(log_text().find("did not stop within 8 s"), std::string::npos) << log_text();
    EXPECT_EQ(occurrences(log_text(), "[SAS] create standalone thread["), 1u);

    // Its exchanges were aborted: it ends within about a second.
    ASSERT_TRUE(test::wait_until([] { return standalone::live_standalone_workers() == 0; }, 3));
    test::sim_set_default("relinquishment", "{}");
    run_supervision_pass(state);
    EXPECT_FALSE(worker_start_deferred());
    EXPECT_EQ(occurrences(log_text(), "[SAS] create standalone thread["), 2u);
    EXPECT_TRUE(run_until_authorized(state)) << log_text();
}

}  // namespace
}  // namespace cbsd::daemon
