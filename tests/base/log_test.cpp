#include "base/log.h"
#include "base/clock.h"
#include "base/settings.h"

#include "support/test_util.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>
#include <string>
#include <sys/stat.h>
#include <vector>

using namespace cbsd;
using cbsd::test::file_exists;
using cbsd::test::read_file;
using cbsd::test::write_file;

namespace {

constexpr const char* kLog = "/tmp/logtest/sas.log";
constexpr const char* kSyslogRecord = "/tmp/logtest/logger.args";

// A stand-in logger first on PATH: records each argument (program name
// excluded) NUL-terminated, so the exact argument vector can be checked.
void install_logger_stand_in() {
    mkdir("/tmp/bin", 0755);
    write_file("/tmp/bin/logger",
               "#!/bin/sh\nfor a in \"$@\"; do printf '%s\\0' \"$a\"; done >> /tmp/logtest/logger.args\n"
               "printf '\\n' >> /tmp/logtest/logger.args\n");
    chmod("/tmp/bin/logger", 0755);
    std::string path = std::string("/tmp/bin:") + std::getenv("PATH");
    setenv("PATH", path.c_str(), 1);
}

std::vector<std::string> logger_arguments() {
    std::string raw = read_file(kSyslogRecord);
    std::vector<std::string> args;
    size_t start = 0;
    for (size_t i = 0; i < raw.size(); ++i) {
        if (raw[i] == '\0') {
            args.push_back(raw.substr(start, i - start));
            start = i + 1;
        } else if (raw[i] == '\n' && i == start) {
            start = i + 1;  // end of one call
        }
    }
    return args;
}

class Log : public ::testing::Test {
protected:
    void SetUp() override {
        mkdir("/tmp/logtest", 0755);
        base::settings() = base::ProcessSettings{};
        std::snprintf(base::settings().logFile, sizeof base::settings().logFile, "%s", kLog);
        install_logger_stand_in();
    }
};

// True when text starts with "[<seconds>, YYYY-MM-DD HH:MM:SS]".
bool has_line_prefix(const std::string& text) {
    size_t comma = text.find(", ");
    if (text.empty() || text[0] != '[' || comma == std::string::npos || comma < 2) return false;
    for (size_t i = 1; i < comma; ++i)
        if (!std::isdigit(static_cast<unsigned char>(text[i]))) return false;
    const std::string shape = "dddd-dd-dd dd:dd:dd]";
    if (text.size() < comma + 2 + shape.size()) return false;
    for (size_t i = 0; i < shape.size(); ++i) {
        char c = text[comma + 2 + i];
        bool ok = shape[i] == 'd' ? std::isdigit(static_cast<unsigned char>(c)) != 0 : c == shape[i];
        if (!ok) return false;
    }
    return true;
}

}  // namespace

TEST_F(Log, LineCarriesUptimeAndLocalTime) {
    base::log(5, 0, "[SAS] sas enable.\n");
    std::string text = read_file(kLog);
    EXPECT_TRUE(has_line_prefix(text)) << text;
    EXPECT_EQ(text.substr(text.find(']') + 1), "[SAS] sas enable.\n");
}

TEST_F(Log, LevelAboveTheConfiguredLevelIsNotWritten) {
    base::settings().logLevel = 4;
    base::log(5, 1, "[SAS] five\n");
    base::log(3, 0, "[SAS] three\n");
    std::string text = read_file(kLog);
    EXPECT_EQ(text.find("five"), std::string::npos);
    EXPECT_NE(text.find("three"), std::string::npos);
    EXPECT_FALSE(file_exists(kSyslogRecord));
}

TEST_F(Log, LevelTwoSilencesEverything) {
    base::settings().logLevel = 2;
    base::settings().debug = 1;
    testing::internal::CaptureStdout();
    base::log(3, 1, "[SAS] failure\n");
    base::log(5, 1, "[SAS] info\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_FALSE(file_exists(kLog));
    EXPECT_FALSE(file_exists(kSyslogRecord));
}

TEST_F(Log, LeadingNewlineBecomesABlankLineBeforeThePrefix) {
    base::settings().debug = 1;
    testing::internal::CaptureStdout();
    base::log(5, 1, "\n[SAS] SAS Version 3.1\n");
    std::string console = testing::internal::GetCapturedStdout();
    std::string text = read_file(kLog);
    ASSERT_EQ(text[0], '\n');
    EXPECT_TRUE(has_line_prefix(text.substr(1)));
    EXPECT_EQ(text.substr(text.find(']') + 1), "[SAS] SAS Version 3.1\n");
    EXPECT_EQ(console, text);
    std::vector<std::string> args = logger_arguments();
    ASSERT_EQ(args.size(), 5u);
    EXPECT_EQ(args[4], "[SAS] SAS Version 3.1\n");
}

TEST_F(Log, ASingleNewlineIsWrittenAfterThePrefix) {
    base::log(5, 0, "\n");
    std::string text = read_file(kLog);
    EXPECT_TRUE(has_line_prefix(text));
    EXPECT_EQ(text.substr(text.find(']') + 1), "\n");
}

TEST_F(Log, NoConsoleEchoOutsideDebugMode) {
    testing::internal::CaptureStdout();
    base::log(5, 0, "[SAS] quiet\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST_F(Log, FileOfExactlyTheLimitIsNotRotated) {
    base::settings().logFileSize = 100;
    write_file(kLog, std::string(100, 'x'));
    base::log(5, 0, "[SAS] next\n");
    EXPECT_FALSE(file_exists(std::string(kLog) + "0"));
    EXPECT_EQ(read_file(kLog).substr(0, 100), std::string(100, 'x'));
}

TEST_F(Log, OneByteOverTheLimitRotatesAndTheBackupRepeatsTheLastByte) {
    base::settings().logFileSize = 100;
    std::string old = std::string(100, 'x') + "y";
    write_file(kLog, old);
    base::log(5, 0, "[SAS] after rotation\n");
    std::string backup = read_file(std::string(kLog) + "0");
    EXPECT_EQ(backup.size(), old.size() + 1);
    EXPECT_EQ(backup, old + "y");
    std::string text = read_file(kLog);
    EXPECT_EQ(text.substr(text.find(']') + 1), "[SAS] after rotation\n");
    EXPECT_EQ(text.find('x'), std::string::npos);
}

TEST_F(Log, UnwritableBackupStillTruncatesTheLog) {
    base::settings().logFileSize = 10;
    write_file(kLog, std::string(50, 'x'));
    mkdir((std::string(kLog) + "0").c_str(), 0755);  // a directory cannot be opened for writing
    base::log(5, 0, "[SAS] fresh\n");
    std::string text = read_file(kLog);
    EXPECT_EQ(text.find('x'), std::string::npos);
    EXPECT_NE(text.find("[SAS] fresh\n"), std::string::npos);
}

TEST_F(Log, LongMessagesAreCutTo8191Characters) {
    base::settings().logFileSize = 1 << 20;
    std::string message(9000, 'm');
    base::log(5, 1, "%s", message.c_str());
    std::string text = read_file(kLog);
    EXPECT_EQ(text.substr(text.find(']') + 1), std::string(8191, 'm'));
    std::vector<std::string> args = logger_arguments();
    ASSERT_EQ(args.size(), 5u);
    // Cut where the command line "logger -p 5 -t cbsd "TEXT"" would reach 511 characters.
    EXPECT_EQ(args[4], std::string(511 - std::string("logger -p 5 -t cbsd \"").size(), 'm'));
}

TEST_F(Log, SyslogCopyUsesLevelAndTag) {
    base::log(3, 1, "[SAS] SAS_CERTNAME is invalid!\n\n");
    std::vector<std::string> args = logger_arguments();
    std::vector<std::string> expected = {"-p", "3", "-t", "cbsd",
                                         "[SAS] SAS_CERTNAME is invalid!\n\n"};
    EXPECT_EQ(args, expected);
}

TEST_F(Log, OnlyTheLowByteOfTheSyslogFlagCounts) {
    base::log(5, static_cast<uint8_t>(256), "[SAS] not copied\n");
    EXPECT_FALSE(file_exists(kSyslogRecord));
}

TEST_F(Log, ShellTextInAMessageReachesLoggerAsOneArgument) {
    const char* hostile = "[SAS] \"; touch /tmp/pwned; \" $(touch /tmp/pwned2) `touch /tmp/pwned3`\n";
    base::log(5, 1, "%s", hostile);
    std::vector<std::string> args = logger_arguments();
    ASSERT_EQ(args.size(), 5u);
    EXPECT_EQ(args[4], hostile);
    EXPECT_FALSE(file_exists("/tmp/pwned"));
    EXPECT_FALSE(file_exists("/tmp/pwned2"));
    EXPECT_FALSE(file_exists("/tmp/pwned3"));
}

TEST_F(Log, MissingLogDirectoryReportsOnStandardError) {
    std::snprintf(base::settings().logFile, sizeof base::settings().logFile, "%s",
                  "/tmp/no-such-dir/sas.log");
    base::settings().debug = 1;
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    base::log(5, 0, "[SAS] still on console\n");
    std::string console = testing::internal::GetCapturedStdout();
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[SAS] fail to open log file(/tmp/no-such-dir/sas.log)!\n");
    EXPECT_NE(console.find("[SAS] still on console\n"), std::string::npos);
}

// The seconds are the 64-bit clock's, cut to 32 bits: they wrap at 2^32 s,
// not when the 32-bit milliseconds do (after 49.7 days).
TEST(MonotonicClock, SecondsAreTheSixtyFourBitClockCutToThirtyTwoBits) {
    int64_t ms64 = base::monotonic_ms64();
    uint32_t ms = base::monotonic_ms();
    uint32_t s = base::monotonic_seconds();
    EXPECT_LE(static_cast<uint32_t>(ms64 / 1000), s);
    EXPECT_LE(s - static_cast<uint32_t>(ms64 / 1000), 1u);
    EXPECT_LE(ms - static_cast<uint32_t>(ms64), 1000u);
}

// Rounded up, the seconds are never behind the clock: a wait counted from
// them lasts at least its seconds.
TEST(MonotonicClock, RoundedUpSecondsAreNotBehindTheClock) {
    for (int i = 0; i < 50; ++i) {
        int64_t before = base::monotonic_ms64();
        int64_t up = base::monotonic_seconds_rounded_up();
        int64_t after = base::monotonic_ms64();
        EXPECT_GE(up * 1000, before);
        EXPECT_LE(up * 1000, after + 1000);
        base::sleep_ms(3);
    }
}
