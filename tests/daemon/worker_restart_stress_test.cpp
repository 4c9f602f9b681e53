// Hundreds of worker restarts at random moments of the exchange with the SAS
// simulator: every stop ends within its bound, no start is deferred, exactly
// one worker lives after each restart and none after the last stop.
#include "daemon/supervision.h"

#include "base/clock.h"
#include "base/settings.h"
#include "standalone/worker_fixture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <unistd.h>

namespace cbsd::daemon {
namespace {

using standalone::WorkerControl;
using standalone::kWorkerStopWaitSeconds;
using standalone::live_standalone_workers;
using standalone::log_text;
using standalone::start_standalone_worker;
using standalone::stop_standalone_worker;
using Clock = std::chrono::steady_clock;

// Fewer rounds where every step is slower (qemu-user, the sanitizers): the
// same moments are hit, and the suite's time limit holds.
int restarts_to_make() {
    if (std::getenv("CBSD_UNDER_EMULATOR")) return 25;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    return 80;
#else
    return 200;
#endif
}
// A worker's second lasts this many real milliseconds here: its pass sleeps,
// and the restart's 1 s pause, go by a hundred times faster, so the random
// moments fall on every step of the exchange, its waits included.
constexpr uint32_t kMsPerSecond = 10;

void fast_sleep(uint32_t ms) { usleep(ms * kMsPerSecond); }

double seconds_since(Clock::time_point begin) {
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

// The step the worker was at: the last request the SAS saw since the
// round's start ("none" when there was none yet), with "waiting" once the
// first heartbeat was answered.
std::string moment_of_round() {
    std::vector<std::string> seen = test::sim_endpoints();
    if (seen.empty()) return "none";
    const std::string& last = seen.back();
    return last == "heartbeat" ? "heartbeat or waiting" : last;
}

// The log keeps every line of the run; its system-log copies go nowhere.
class RestartStress : public WorkerControl {
protected:
    void SetUp() override {
        WorkerControl::SetUp();
        logSize_ = base::settings().logFileSize;
        base::settings().logFileSize = 64 * 1024 * 1024;
        base::set_clock({nullptr, nullptr, fast_sleep});
    }
    void TearDown() override {
        WorkerControl::TearDown();
        base::set_clock({});
        base::settings().logFileSize = logSize_;
    }

private:
    test::QuietLogger quiet_;
    int32_t logSize_ = 0;
};

TEST_F(RestartStress, HundredsOfRestartsAtRandomMomentsEachEndWithinTheBound) {
    std::mt19937 random(20261125);
    std::uniform_int_distribution<int> pause_ms(0, 100);
    std::map<std::string, int> moments;
    double longest = 0;
    auto begin = Clock::now();
    ASSERT_TRUE(start_standalone_worker());
    const int rounds = restarts_to_make();
    for (int round = 0; round < rounds; ++round) {
        test::sim_clear();  // the record of one round only: each look stays cheap
        usleep(static_cast<useconds_t>(pause_ms(random)) * 1000);
        ++moments[moment_of_round()];
        auto stop_begin = Clock::now();
        restart_standalone_worker();
        double took = seconds_since(stop_begin);
        longest = std::max(longest, took);
        ASSERT_LT(took, kWorkerStopWaitSeconds) << "round " << round;
        ASSERT_FALSE(worker_start_deferred()) << "round " << round << "\n" << log_text();
        ASSERT_EQ(live_standalone_workers(), 1u) << "round " << round;
    }
    ASSERT_TRUE(stop_standalone_worker());
    EXPECT_EQ(live_standalone_workers(), 0u);
    std::string log = log_text();
    EXPECT_EQ(standalone::occurrences(log, "] is stopped\n"), static_cast<size_t>(rounds + 1));
    EXPECT_EQ(standalone::occurrences(log, "did not stop within"), 0u);
    std::printf("MEASURE restarts %d in %.1f s, longest restart %.3f s;", rounds,
                seconds_since(begin), longest);
    for (const auto& [moment, n] : moments) std::printf(" %s %d,", moment.c_str(), n);
    std::printf("\n");
}

}  // namespace
}  // namespace cbsd::daemon
