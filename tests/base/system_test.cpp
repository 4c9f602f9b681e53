#include "base/system.h"

#include "base/settings.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <thread>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using cbsd::base::run_command;

namespace {
std::string run(const char* command, int capacity) {
    char buffer[1024];
    std::memset(buffer, 0, sizeof buffer);
    EXPECT_EQ(run_command(command, buffer, capacity), buffer);
    return buffer;
}
}  // namespace

TEST(RunCommand, KeepsASingleLineWithItsNewline) {
    EXPECT_EQ(run("echo 1", 16), "1\n");
}

TEST(RunCommand, DropsTheLineThatWouldReachTheCapacity) {
    // "12\n" fits (3 < 4); "345\n" would bring the total to 7.
    EXPECT_EQ(run("printf '12\\n345\\n'", 4), "12\n");
}

TEST(RunCommand, LineOfExactlyCapacityLessOneDoesNotFit) {
    EXPECT_EQ(run("echo 12", 3), "");
}

TEST(RunCommand, EmptyOutputLeavesTheBufferUntouched) {
    char buffer[16] = "previous";
    EXPECT_EQ(run_command("true", buffer, sizeof buffer), buffer);
    EXPECT_STREQ(buffer, "previous");
}

TEST(RunCommand, LongLinesArriveIn255CharacterPieces) {
    // 300 characters and a newline: the first 255-character piece fits a
    // 256-byte capacity, the 46-character rest does not.
    EXPECT_EQ(run("head -c 300 /dev/zero | tr '\\0' a; echo", 256), std::string(255, 'a'));
    EXPECT_EQ(run("head -c 300 /dev/zero | tr '\\0' a; echo", 1000), std::string(300, 'a') + "\n");
}

TEST(RunCommand, KeepsOnlyWholeLinesOfLargeOutput) {
    std::string out = run("seq 1 10000", 64);
    ASSERT_FALSE(out.empty());
    EXPECT_LT(out.size(), 64u);
    EXPECT_EQ(out.back(), '\n');
    EXPECT_EQ(out.substr(0, 6), "1\n2\n3\n");
}

TEST(RunCommand, ExitStatusIsIgnored) {
    EXPECT_EQ(run("echo out; exit 3", 16), "out\n");
}

// ----- time limits ------------------------------------------------------------

namespace {

double seconds_since(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// A killed process that nobody has reaped yet counts as gone.
bool process_exists(const std::string& pid_text) {
    if (pid_text.empty()) return false;
    std::string stat = cbsd::test::read_file("/proc/" + std::to_string(std::stoi(pid_text)) + "/stat");
    size_t end_of_name = stat.rfind(')');
    return end_of_name != std::string::npos && stat.compare(end_of_name + 2, 1, "Z") != 0;
}

std::string log_text() { return cbsd::test::read_file(cbsd::base::settings().logFile); }

class TimeLimit : public ::testing::Test {
protected:
    void SetUp() override {
        mkdir("/root/sas", 0755);
        cbsd::test::write_file(cbsd::base::settings().logFile, "");
        unlink("/tmp/grandchild.pid");
    }
};

}  // namespace

TEST_F(TimeLimit, ACommandThatHangsIsKilledWithItsWholeProcessGroupAndLoggedOnce) {
    auto start = std::chrono::steady_clock::now();
    // The shell starts a grandchild that would outlive a kill of the shell alone.
    char buffer[64] = {};
    const char* command = "sleep 30 & echo $! > /tmp/grandchild.pid; echo early; wait";
    EXPECT_EQ(cbsd::base::run_command(command, buffer, sizeof buffer, 1), buffer);
    double took = seconds_since(start);
    EXPECT_GE(took, 0.9);
    EXPECT_LT(took, 5.0);
    EXPECT_STREQ(buffer, "early\n");  // what it printed in time is kept
    std::string grandchild = cbsd::test::read_file("/tmp/grandchild.pid");
    ASSERT_FALSE(grandchild.empty());
    usleep(100 * 1000);
    EXPECT_FALSE(process_exists(grandchild));
    std::string log = log_text();
    std::string line = std::string("[SAS] command still running after 1 s, killed: ") + command + "\n";
    EXPECT_EQ(log.find(line), log.rfind(line));
    EXPECT_NE(log.find(line), std::string::npos) << log;
}

TEST_F(TimeLimit, AStatusRunThatHangsCountsAsFailed) {
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(cbsd::base::run_status("sleep 30", 1), -1);
    EXPECT_LT(seconds_since(start), 5.0);
    EXPECT_NE(log_text().find("killed: sleep 30\n"), std::string::npos);
}

TEST_F(TimeLimit, AProgramThatHangsCountsAsFailed) {
    const char* const argv[] = {"sleep", "30", nullptr};
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(cbsd::base::run_program(argv, 1), -1);
    EXPECT_LT(seconds_since(start), 5.0);
    EXPECT_NE(log_text().find("killed: sleep\n"), std::string::npos);
}

TEST_F(TimeLimit, CommandsWithinTheirLimitAreNotLogged) {
    char buffer[16] = {};
    cbsd::base::run_command("echo fast", buffer, sizeof buffer, 5);
    EXPECT_STREQ(buffer, "fast\n");
    EXPECT_EQ(cbsd::base::run_status("exit 3", 5), 3 << 8);
    EXPECT_EQ(log_text(), "");
}

TEST_F(TimeLimit, ACapShortensTheLimitOfEveryStartOnItsThread) {
    auto start = std::chrono::steady_clock::now();
    {
        cbsd::base::TimeLimitCap cap(1);
        EXPECT_EQ(cbsd::base::run_status("sleep 30"), -1);  // default 10 s, capped to 1
    }
    EXPECT_LT(seconds_since(start), 5.0);
    EXPECT_NE(log_text().find("[SAS] command still running after 1 s, killed: sleep 30\n"),
              std::string::npos) << log_text();
}

TEST_F(TimeLimit, ACapNeverLengthensAShorterLimitAndEndsWithItsScope) {
    {
        cbsd::base::TimeLimitCap outer(5);
        cbsd::base::TimeLimitCap inner(1);
        EXPECT_EQ(cbsd::base::run_status("sleep 30", 3), -1);
    }
    EXPECT_NE(log_text().find("after 1 s, killed"), std::string::npos) << log_text();
    {
        cbsd::base::TimeLimitCap cap(5);
        EXPECT_EQ(cbsd::base::run_status("sleep 30", 1), -1);
    }
    // Gone with its scope: a 2 s run of a 1 s command is not cut short.
    EXPECT_EQ(cbsd::base::run_status("sleep 1", 2), 0);
    EXPECT_EQ(log_text().find("after 5 s"), std::string::npos) << log_text();
}

TEST_F(TimeLimit, ACapHoldsOnlyOnTheThreadThatMadeIt) {
    cbsd::base::TimeLimitCap cap(1);
    int status = -2;
    std::thread other([&] { status = cbsd::base::run_status("sleep 1.5", 3); });
    other.join();
    EXPECT_EQ(status, 0);
}

TEST_F(TimeLimit, TheDefaultLimitIsTenSeconds) {
    EXPECT_EQ(cbsd::base::kDefaultTimeLimitSeconds, 10);
}

// ----- status and argument vectors ---------------------------------------------

TEST(RunStatus, ReportsTheWaitStatusAsSystemDoes) {
    EXPECT_EQ(cbsd::base::run_status("true"), 0);
    EXPECT_EQ(cbsd::base::run_status("exit 1"), std::system("exit 1"));
}

TEST(RunProgram, ArgumentsReachTheProgramUninterpreted) {
    const char* const argv[] = {"sh", "-c", "test \"$1\" = '; touch /tmp/pwned; $(id)'", "sh",
                                "; touch /tmp/pwned; $(id)", nullptr};
    EXPECT_EQ(cbsd::base::run_program(argv), 0);
    EXPECT_FALSE(cbsd::test::file_exists("/tmp/pwned"));
}

TEST(RunProgram, AMissingProgramCountsAsFailed) {
    const char* const argv[] = {"no-such-program-here", nullptr};
    EXPECT_NE(cbsd::base::run_program(argv), 0);
}

TEST(RunProgram, ChildrenGetTheDefaultBrokenPipeAction) {
    // The daemon ignores SIGPIPE; the tools it starts must not inherit that.
    signal(SIGPIPE, SIG_IGN);
    char buffer[64] = {};
    cbsd::base::run_command("grep SigIgn /proc/self/status", buffer, sizeof buffer);
    signal(SIGPIPE, SIG_DFL);
    // The mask has 64 bits, wider than a long on 32-bit routers.
    unsigned long long ignored = std::strtoull(std::strchr(buffer, ':') + 1, nullptr, 16);
    EXPECT_EQ(ignored & (1ull << (SIGPIPE - 1)), 0ull) << buffer;
}

// ----- captured argument vectors ----------------------------------------------

// Runs `argv` through run_capture into a buffer of `size` bytes and gives what
// the buffer then holds; run_capture is to return the buffer when `started`,
// nullptr otherwise.
namespace {
std::string captured(std::vector<const char*> argv, int size, bool started = true) {
    argv.push_back(nullptr);
    std::vector<char> buffer(size, '\0');
    EXPECT_EQ(cbsd::base::run_capture(argv.data(), buffer.data(), size), started ? buffer.data() : nullptr);
    return buffer.data();
}
}  // namespace

TEST(RunCapture, KeepsTheOutputOfAnArgumentVectorUninterpreted) {
    EXPECT_EQ(captured({"printf", "%s\\n", "$(id); a b"}, 64), "$(id); a b\n");
}

TEST(RunCapture, AMissingProgramIsNotStarted) {
    // qemu-user runs posix_spawn's child as a plain fork, so an exec failure
    // comes back as a started child that exits 127 instead of an error.
    if (getenv("CBSD_UNDER_EMULATOR")) GTEST_SKIP() << "exec failures are not reported under qemu-user";
    EXPECT_EQ(captured({"no-such-program-here"}, 16, false), "");
}

TEST(RunCapture, AFailingProgramKeepsWhatItPrinted) {
    EXPECT_EQ(captured({"sh", "-c", "echo partial; exit 4"}, 16), "partial\n");
}

TEST_F(TimeLimit, ACapturedProgramThatHangsIsKilledAndKeepsItsEarlyOutput) {
    const char* const argv[] = {"sh", "-c", "echo early; exec sleep 30", nullptr};
    char buffer[16] = {};
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(cbsd::base::run_capture(argv, buffer, sizeof buffer, 1), buffer);
    EXPECT_LT(seconds_since(start), 5.0);
    EXPECT_STREQ(buffer, "early\n");
    EXPECT_NE(log_text().find("killed: sh\n"), std::string::npos);
}

// ----- program lookup ------------------------------------------------------

TEST(ProgramOnPath, FindsOnlyExecutableRegularFiles) {
    using cbsd::test::shell;
    shell("rm -rf /tmp/onpath && mkdir -p /tmp/onpath/a /tmp/onpath/b/tool-dir/x && "
          "printf '#!/bin/sh\\n' > /tmp/onpath/b/tool && chmod +x /tmp/onpath/b/tool && "
          "printf 'text\\n' > /tmp/onpath/a/plain && mkdir -p /tmp/onpath/a/tool-dir");
    std::string saved = std::getenv("PATH");
    setenv("PATH", "/tmp/onpath/a:/tmp/onpath/b", 1);
    EXPECT_TRUE(cbsd::base::program_on_path("tool"));
    EXPECT_FALSE(cbsd::base::program_on_path("plain"));     // not executable
    EXPECT_FALSE(cbsd::base::program_on_path("tool-dir"));  // a directory
    EXPECT_FALSE(cbsd::base::program_on_path("absent"));
    setenv("PATH", "/tmp/onpath/a", 1);
    EXPECT_FALSE(cbsd::base::program_on_path("tool"));
    setenv("PATH", saved.c_str(), 1);
    shell("rm -rf /tmp/onpath");
}

// A sink sees the output as it arrives and the end only when it came in time.
namespace {
struct RecordingSink : cbsd::base::OutputSink {
    std::string seen;
    bool finished = false;
    bool feed(const char* data, size_t size) override {
        seen.append(data, size);
        return true;
    }
    void finish() override { finished = true; }
};
}  // namespace

TEST(RunStream, HandsTheWholeOutputToTheSinkAndReportsTheStatus) {
    const char* const argv[] = {"sh", "-c", "printf 'a\\0b'; exit 3", nullptr};
    RecordingSink sink;
    int status = cbsd::base::run_stream(argv, sink, "shown");
    EXPECT_EQ(WEXITSTATUS(status), 3);
    EXPECT_EQ(sink.seen, std::string("a\0b", 3));
    EXPECT_TRUE(sink.finished);
}

TEST_F(TimeLimit, AStreamThatHangsIsKilledAndNamedAsTheCallerSays) {
    const char* const argv[] = {"sh", "-c", "echo early; exec sleep 30", nullptr};
    RecordingSink sink;
    EXPECT_EQ(cbsd::base::run_stream(argv, sink, "ubus call x | grep y", 1), -1);
    EXPECT_EQ(sink.seen, "early\n");
    EXPECT_FALSE(sink.finished);
    EXPECT_NE(log_text().find("killed: ubus call x | grep y\n"), std::string::npos);
}
