#include "daemon/cli.h"

#include "support/test_util.h"

#include <gtest/gtest.h>

#include <getopt.h>
#include <string>
#include <vector>

using namespace cbsd::daemon;
using cbsd::base::ProcessSettings;

namespace {

struct Parsed {
    CliOutcome outcome;
    int status;
    ProcessSettings settings;
    std::string out;
};

Parsed parse(std::vector<std::string> args) {
    args.insert(args.begin(), "cbsd");
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    optind = 0;  // full getopt reset between parses
    Parsed p{};
    testing::internal::CaptureStdout();
    p.outcome = parse_command_line(static_cast<int>(args.size()), argv.data(), p.settings, p.status);
    p.out = testing::internal::GetCapturedStdout();
    return p;
}

}  // namespace

TEST(CommandLine, DefaultsWithoutOptions) {
    Parsed p = parse({});
    EXPECT_EQ(p.outcome, CliOutcome::kRun);
    EXPECT_EQ(p.settings.debug, 0);
    EXPECT_EQ(p.settings.logLevel, 7);
    EXPECT_STREQ(p.settings.logFile, "/root/sas/sas.log");
    EXPECT_EQ(p.settings.logFileSize, 102400);
}

TEST(CommandLine, DebugAfterLevelResetsTheLevel) {
    EXPECT_EQ(parse({"-d", "-v", "3"}).settings.logLevel, 3);
    EXPECT_EQ(parse({"-v", "3", "-d"}).settings.logLevel, 7);
    EXPECT_EQ(parse({"-v", "3", "-d"}).settings.debug, 1);
}

// -D (stay in the foreground, for procd) is not debug mode: no console echo,
// no overrides, and the level stays whatever it was.
TEST(CommandLine, ForegroundOptionChangesNothingButForeground) {
    Parsed p = parse({"-v", "3", "-D", "-S", "123"});
    EXPECT_EQ(p.outcome, CliOutcome::kRun);
    EXPECT_EQ(p.settings.foreground, 1);
    EXPECT_EQ(p.settings.debug, 0);
    EXPECT_EQ(p.settings.logLevel, 3);
    EXPECT_EQ(parse({}).settings.foreground, 0);
    EXPECT_EQ(parse({"-d"}).settings.foreground, 0);
    EXPECT_EQ(parse({"-D", "-d"}).settings.debug, 1);
}

TEST(CommandLine, LevelOutOfRangeIsIgnored) {
    EXPECT_EQ(parse({"-v", "-1"}).settings.logLevel, 7);
    EXPECT_EQ(parse({"-v", "8"}).settings.logLevel, 7);
    EXPECT_EQ(parse({"-v", "0"}).settings.logLevel, 0);
    EXPECT_EQ(parse({"-v", "4", "-v", "9"}).settings.logLevel, 4);
}

TEST(CommandLine, RotationSizeBounds) {
    EXPECT_EQ(parse({"-s", "0"}).settings.logFileSize, 102400);
    EXPECT_EQ(parse({"-s", "600000"}).settings.logFileSize, 102400);
    EXPECT_EQ(parse({"-s", "524288"}).settings.logFileSize, 524288);
    EXPECT_EQ(parse({"-s", "1"}).settings.logFileSize, 1);
    EXPECT_EQ(parse({"-s", "abc"}).settings.logFileSize, 102400);
}

TEST(CommandLine, TextOptionsAreBoundedToTheirFields) {
    std::string long_text(300, 'z');
    Parsed p = parse({"-S", long_text, "-F", long_text, "-M", "123456789", "-C", "ABCDEFGHIJ",
                      "-f", long_text});
    EXPECT_EQ(std::string(p.settings.sn), std::string(127, 'z'));
    EXPECT_EQ(std::string(p.settings.fccId), std::string(127, 'z'));
    EXPECT_STREQ(p.settings.maxEIRP, "1234567");
    EXPECT_STREQ(p.settings.category, "ABCDEFG");
    EXPECT_EQ(std::string(p.settings.logFile), std::string(127, 'z'));
}

TEST(CommandLine, InertClearOptionExitsWithZero) {
    Parsed p = parse({"-c", "-d"});
    EXPECT_EQ(p.outcome, CliOutcome::kExit);
    EXPECT_EQ(p.status, 0);
    EXPECT_EQ(p.out, "");
    EXPECT_EQ(p.settings.debug, 0);  // options after a one-shot option are never reached
}

TEST(CommandLine, UsageTextByteForByte) {
    Parsed p = parse({"-h"});
    EXPECT_EQ(p.outcome, CliOutcome::kExit);
    EXPECT_EQ(p.status, 0);
    EXPECT_EQ(p.out,
              "Usage: cbsd [OPTIONS]\n"
              "\t-d - start cbsd with debug mode\n"
              "\t-S [sn] - set SN [eg:123456789], effective in debug mode \n"
              "\t-F [fccid] - set fccID [eg:7XK44RQ5510A], effective in debug mode \n"
              "\t-M [maxEIRP] - set maxEIRP, effective in debug mode \n"
              "\t-C [Category] - set Category, effective in debug mode \n"
              "\t-v - set log level\n"
              "\t-f - set log file\n"
              "\t-s - set log file size (Byte)\n"
              "\t-n - recover network and exit\n"
              "\t-p - print all cbsd config and exit\n"
              "\t-c - clear all cbsd config and exit\n"
              "\t-h - help\n");
}

TEST(CommandLine, UnknownOptionOrMissingArgument) {
    Parsed unknown = parse({"-x"});
    EXPECT_EQ(unknown.outcome, CliOutcome::kExit);
    EXPECT_EQ(unknown.status, 0);
    EXPECT_EQ(unknown.out, "[SAS] unknow option x\n");
    Parsed missing = parse({"-v"});
    EXPECT_EQ(missing.outcome, CliOutcome::kExit);
    EXPECT_EQ(missing.out, "[SAS] unknow option v\n");
}

TEST(CommandLine, OptionsBeforeAOneShotOptionHaveTakenEffect) {
    Parsed p = parse({"-v", "3", "-S", "123", "-h", "-v", "5"});
    EXPECT_EQ(p.outcome, CliOutcome::kExit);
    EXPECT_EQ(p.settings.logLevel, 3);
    EXPECT_STREQ(p.settings.sn, "123");
}
