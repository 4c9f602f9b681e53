// A write that cannot be completed leaves the old file whole, on whichever
// store backend is built: a full file system (ENOSPC while the new content is
// written) and a read-only one.  Each test mounts a tiny tmpfs of its own in
// the test process's private mount namespace.
#include "config/uci_store.h"
#include "sas_file_test.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <cstdio>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace cbsd::config {
namespace {

constexpr const char* kStoreDir = "/tmp/small-store";
constexpr const char* kPackage = "/tmp/small-store/sas";

const std::string kOriginal = test::typical_sas_file("Authorized");

// Fills the file system until a write fails with ENOSPC.
void fill_up(const std::string& path) {
    FILE* filler = std::fopen(path.c_str(), "w");
    ASSERT_NE(filler, nullptr);
    std::string block(512, 'x');
    while (std::fwrite(block.data(), 1, block.size(), filler) == block.size() &&
           std::fflush(filler) == 0) {
    }
    std::fclose(filler);
    // Whatever single bytes are still free go too.
    filler = std::fopen((path + "2").c_str(), "w");
    if (filler) {
        while (std::fputc('x', filler) != EOF && std::fflush(filler) == 0) {
        }
        std::fclose(filler);
    }
}

class CommitSafety : public ::testing::Test {
protected:
    void SetUp() override {
        mkdir(kStoreDir, 0755);
        ASSERT_EQ(mount("tmpfs", kStoreDir, "tmpfs", 0, "size=64k"), 0) << std::strerror(errno);
        ASSERT_TRUE(test::write_file(kPackage, kOriginal));
    }
    void TearDown() override { umount2(kStoreDir, MNT_DETACH); }

    static std::string status() {
        char value[64] = {};
        config_get(kPackage, "operation", "status", value, sizeof value);
        return value;
    }
};

TEST_F(CommitSafety, AFullFileSystemLeavesTheOldFileWhole) {
    fill_up(std::string(kStoreDir) + "/filler");
    config_set(kPackage, "operation", "status", std::string(2000, 'n').c_str());
    EXPECT_EQ(test::read_file(kPackage), kOriginal);
    EXPECT_EQ(status(), "Authorized");
}

TEST_F(CommitSafety, AFullFileSystemLeavesNoTemporaryFileBehind) {
    fill_up(std::string(kStoreDir) + "/filler");
    config_set(kPackage, "operation", "status", "Unregistered");
    std::string listing = test::shell(std::string("ls -A ") + kStoreDir);
    EXPECT_EQ(listing.find(".uci-"), std::string::npos) << listing;
}

TEST_F(CommitSafety, AReadOnlyFileSystemLeavesTheOldFileWhole) {
    ASSERT_EQ(mount(nullptr, kStoreDir, nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    config_set(kPackage, "operation", "status", "Unregistered");
    EXPECT_EQ(test::read_file(kPackage), kOriginal);
}

TEST_F(CommitSafety, WithRoomTheWriteLandsAsUsual) {
    config_set(kPackage, "operation", "status", "Unregistered");
    EXPECT_EQ(status(), "Unregistered");
}

}  // namespace
}  // namespace cbsd::config
