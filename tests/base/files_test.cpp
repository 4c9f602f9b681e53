// Files the daemon reads directly keep exactly what `cat` of the same file
// through the command runner kept, for every kind of content.
#include "base/files.h"

#include "base/system.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <string>
#include <sys/stat.h>
#include <vector>

namespace cbsd::base {
namespace {

constexpr const char* kPath = "/tmp/files_test.txt";

std::string through_cat(int capacity) {
    std::vector<char> buffer(2048, '\0');
    run_command("cat /tmp/files_test.txt", buffer.data(), capacity);
    return std::string(buffer.data());
}

std::string direct(int capacity) {
    std::vector<char> buffer(2048, '\0');
    read_text_file(kPath, buffer.data(), capacity);
    return std::string(buffer.data());
}

std::string binary_text() {
    std::string text;
    for (int i = 0; i < 1200; ++i) text.push_back(static_cast<char>((i * 37) % 256));
    return text;
}

class ReadTextFile : public ::testing::TestWithParam<std::string> {};

TEST_P(ReadTextFile, KeepsWhatCatThroughTheCommandRunnerKept) {
    ASSERT_TRUE(test::write_file(kPath, GetParam()));
    for (int capacity : {1, 2, 3, 8, 63, 64, 256, 1000, 2047}) {
        EXPECT_EQ(direct(capacity), through_cat(capacity)) << "capacity " << capacity;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Contents, ReadTextFile,
    ::testing::Values(std::string(""), std::string("UTC0\n"), std::string("1\n"),
                      std::string("no newline at the end"), std::string("a\nb\n\nc"),
                      std::string(300, 'a') + "\n", std::string(600, 'b'),
                      std::string("before\0after\n", 13), std::string(10000, 'x') + "\n",
                      binary_text()));

TEST(ReadTextFileMissing, LeavesTheBufferUntouched) {
    unlink("/tmp/no-such-file");
    char buffer[16] = "previous";
    EXPECT_FALSE(read_text_file("/tmp/no-such-file", buffer, sizeof buffer));
    EXPECT_STREQ(buffer, "previous");
}

TEST(WriteTextFile, ReplacesTheContent) {
    ASSERT_TRUE(test::write_file(kPath, "a much longer old content\n"));
    EXPECT_TRUE(write_text_file(kPath, "1\n"));
    EXPECT_EQ(test::read_file(kPath), "1\n");
}

TEST(WriteTextFile, FailsWhereTheFileCannotBeCreated) {
    EXPECT_FALSE(write_text_file("/tmp/no-such-dir/file", "1\n"));
}

TEST(RemoveTree, RemovesAFileADirectoryTreeAndAcceptsAMissingPath) {
    ASSERT_TRUE(test::write_file(kPath, "x"));
    EXPECT_TRUE(remove_tree(kPath));
    EXPECT_FALSE(test::file_exists(kPath));

    mkdir("/tmp/tree", 0755);
    mkdir("/tmp/tree/sub", 0755);
    test::write_file("/tmp/tree/sub/file", "x");
    symlink("/etc", "/tmp/tree/link");
    EXPECT_TRUE(remove_tree("/tmp/tree"));
    EXPECT_FALSE(test::file_exists("/tmp/tree"));
    EXPECT_TRUE(test::file_exists("/etc/hostname") || test::file_exists("/etc"));

    EXPECT_TRUE(remove_tree("/tmp/tree"));
}

}  // namespace
}  // namespace cbsd::base
