#include "daemon/stop_deadline.h"

#include "daemon/signals.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <chrono>
#include <csignal>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace cbsd::daemon {
namespace {

constexpr const char* kMarker = "/tmp/stop-deadline-last-act";

void leave_marker() { test::write_file(kMarker, "done"); }

// A stop that never finishes (here: the signal's thread parks for good):
// the deadline's thread still ends the process with status 0 once its time
// is up, after its last act and its one log line.
TEST(StopDeadline, EndsTheProcessInTimeWhateverItsThreadsWaitOn) {
    // "fast": the child must share this sandbox's private /tmp and /root.
    GTEST_FLAG_SET(death_test_style, "fast");
    unlink(kMarker);
    mkdir("/root/sas", 0755);
    unlink("/root/sas/sas.log");
    auto begin = std::chrono::steady_clock::now();
    EXPECT_EXIT(
        {
            install_signal_handlers();
            start_stop_deadline(400, leave_marker);
            usleep(200 * 1000);  // no stop requested: nothing happens
            if (test::file_exists(kMarker)) std::_Exit(3);
            std::raise(SIGTERM);
            for (;;) pause();
        },
        ::testing::ExitedWithCode(0), "");
    double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    EXPECT_GE(took, 0.6);
    EXPECT_LT(took, 2.0);
    EXPECT_EQ(test::read_file(kMarker), "done");
    EXPECT_NE(test::read_file("/root/sas/sas.log").find("[SAS] stop not finished in time, cbsd exit.\n"),
              std::string::npos);
}

}  // namespace
}  // namespace cbsd::daemon
