#include "core/command.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

using cbsd::core::run_command;

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
