// What the daemon's children print on standard error: never on the daemon's
// own standard error (under procd each line there is a system-log line), and
// a failing tool logged once when its streak starts and once when it ends.
#include "base/failure_streaks.h"
#include "base/output_sink.h"
#include "base/settings.h"
#include "base/system.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

namespace cbsd::base {
namespace {

std::string log_text() { return test::read_file(settings().logFile); }

int count(const std::string& text, const std::string& what) {
    int n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

// A tool on PATH that fails with a message while /tmp/tool-fails exists.
constexpr const char* kTool =
    "#!/bin/sh\n"
    "if [ -f /tmp/tool-fails ]; then echo \"$(cat /tmp/tool-fails)\" >&2; exit 3; fi\n"
    "echo fine\n";

class ChildErrors : public ::testing::Test {
protected:
    void SetUp() override {
        mkdir("/root/sas", 0755);
        test::write_file(settings().logFile, "");
        reset_command_streaks();
        mkdir("/tmp/errbin", 0755);
        test::write_file("/tmp/errbin/tool", kTool);
        chmod("/tmp/errbin/tool", 0755);
        saved_path_ = std::getenv("PATH") ? std::getenv("PATH") : "/usr/bin:/bin";
        setenv("PATH", ("/tmp/errbin:" + saved_path_).c_str(), 1);
    }
    void TearDown() override {
        setenv("PATH", saved_path_.c_str(), 1);
        unlink("/tmp/tool-fails");
    }
    static void tool_fails(const std::string& message) { test::write_file("/tmp/tool-fails", message); }
    static void tool_works() { unlink("/tmp/tool-fails"); }
    static int run_tool(const char* method = "getlteinfo") {
        const char* const argv[] = {"tool", "call", "ubus_lte", method, nullptr};
        return run_program(argv);
    }

    std::string saved_path_;
};

struct Discard : OutputSink {
    bool feed(const char*, size_t) override { return true; }
    void finish() override {}
};

// Runs every kind of start with a child that writes on standard error while
// fd 2 of this process is a pipe; returns what arrived on that pipe.
std::string daemon_stderr_while_children_complain() {
    int pipe_fds[2];
    EXPECT_EQ(pipe2(pipe_fds, O_NONBLOCK), 0);
    int saved = dup(STDERR_FILENO);
    dup2(pipe_fds[1], STDERR_FILENO);

    char buffer[64] = {};
    run_command("echo out; echo 'command: complaint' >&2; exit 1", buffer, sizeof buffer);
    run_status("echo 'status: complaint' >&2");
    const char* const program[] = {"sh", "-c", "echo 'program: complaint' >&2; exit 4", nullptr};
    run_program(program);
    run_capture(program, buffer, sizeof buffer);
    Discard sink;
    run_stream(program, sink, "stream");
    const char* const missing[] = {"no-such-tool-here", nullptr};
    run_program(missing);

    dup2(saved, STDERR_FILENO);
    close(saved);
    close(pipe_fds[1]);
    char seen[4096] = {};
    ssize_t got = read(pipe_fds[0], seen, sizeof seen - 1);
    close(pipe_fds[0]);
    return got > 0 ? std::string(seen, static_cast<size_t>(got)) : "";
}

TEST_F(ChildErrors, NothingAChildPrintsOnStandardErrorReachesTheDaemons) {
    EXPECT_EQ(daemon_stderr_while_children_complain(), "");
    // The failures are in the log instead, each with the tool's own words.
    // (the argument vector's runs are one command kind: one streak).
    EXPECT_EQ(count(log_text(), "failed (exit 4): program: complaint\n"), 1) << log_text();
    EXPECT_EQ(count(log_text(), "[SAS] echo out; echo 'command: complaint' >&2; exit 1 failed (exit 1): "
                                "command: complaint\n"), 1) << log_text();
}

TEST_F(ChildErrors, AFailingToolIsLoggedOncePerStreakWithItsOwnMessage) {
    tool_fails("Command failed: Not found");
    for (int i = 0; i < 5; ++i) EXPECT_EQ(WEXITSTATUS(run_tool()), 3);
    std::string log = log_text();
    EXPECT_EQ(count(log, "[SAS] tool call ubus_lte getlteinfo failed (exit 3): Command failed: Not found\n"),
              1) << log;
    EXPECT_EQ(count(log, "\n"), 1) << log;

    tool_works();
    EXPECT_EQ(run_tool(), 0);
    EXPECT_EQ(run_tool(), 0);
    log = log_text();
    EXPECT_EQ(count(log, "[SAS] tool call ubus_lte getlteinfo works again after 5 failed runs.\n"), 1)
        << log;
    EXPECT_EQ(count(log, "\n"), 2) << log;

    // A new streak is news again.
    tool_fails("Failed to connect to ubus");
    run_tool();
    run_tool();
    EXPECT_EQ(count(log_text(), "failed (exit 3): Failed to connect to ubus\n"), 1) << log_text();
}

TEST_F(ChildErrors, StreaksAreKeptPerCommandKind) {
    tool_fails("broken");
    run_tool("getlteinfo");
    run_tool("getltestatus");
    run_tool("getlteinfo");
    std::string log = log_text();
    EXPECT_EQ(count(log, "getlteinfo failed (exit 3): broken"), 1) << log;
    EXPECT_EQ(count(log, "getltestatus failed (exit 3): broken"), 1) << log;

    tool_works();
    run_tool("getltestatus");
    log = log_text();
    EXPECT_EQ(count(log, "getltestatus works again after 1 failed runs"), 1) << log;
    EXPECT_EQ(count(log, "getlteinfo works again"), 0) << log;
    run_tool("getlteinfo");
    EXPECT_EQ(count(log_text(), "getlteinfo works again after 2 failed runs"), 1) << log_text();
}

TEST_F(ChildErrors, ASilentFailureStatusIsAnAnswerNotAFault) {
    // A deletion of a rule that is not there fails quietly: no streak.
    EXPECT_EQ(run_status("exit 1"), 1 << 8);
    EXPECT_EQ(run_status("echo noise >&2; exit 0"), 0);
    EXPECT_EQ(log_text(), "");
}

TEST_F(ChildErrors, OnlyTheFirstLineOfTheMessageIsLoggedCutAndPrintable) {
    tool_fails(std::string(300, 'x') + "\nsecond line");
    run_tool();
    std::string log = log_text();
    EXPECT_NE(log.find("failed (exit 3): " + std::string(kToolMessageLimit, 'x') + "\n"),
              std::string::npos) << log;
    EXPECT_EQ(log.find("second line"), std::string::npos);

    const char* const argv[] = {"sh", "-c", "printf 'bad\\033[31m\\001byte\\n' >&2; exit 2", nullptr};
    run_program(argv);
    EXPECT_NE(log_text().find("failed (exit 2): bad?[31m?byte\n"), std::string::npos) << log_text();
}

TEST_F(ChildErrors, AProgramThatCannotBeStartedIsAStreakToo) {
    // Natively posix_spawnp reports the failure; qemu-user reports it as a
    // child that exits 127, on most targets with the emulator's own message:
    // a streak all the same.
    const char* const argv[] = {"no-such-tool-here", "a", nullptr};
    run_program(argv);
    run_program(argv);
    if (std::getenv("CBSD_UNDER_EMULATOR") && log_text().empty())
        GTEST_SKIP() << "this qemu-user target reports the exec failure as a silent exit 127";
    EXPECT_EQ(count(log_text(), "[SAS] no-such-tool-here a failed (exit 127): "), 1) << log_text();
}

TEST_F(ChildErrors, AFloodOnStandardErrorNeitherBlocksTheChildNorTheDaemon) {
    auto start = std::chrono::steady_clock::now();
    // Far more than a pipe holds, from a command that is not read on standard output.
    EXPECT_EQ(run_status("head -c 2000000 /dev/zero >&2; echo done >&2; exit 0", 5), 0);
    char buffer[16] = {};
    run_command("head -c 2000000 /dev/zero >&2; echo out", buffer, sizeof buffer, 5);
    EXPECT_STREQ(buffer, "out\n");
    EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 4.0);
    EXPECT_EQ(log_text(), "");
}

}  // namespace
}  // namespace cbsd::base
