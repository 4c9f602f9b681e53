// The first-run tag: tied to the executable's modification time.
#include "daemon/first_run.h"

#include "daemon/profile_fixture.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace cbsd::daemon {
using namespace ::cbsd::test;
namespace {

class FirstRun : public ProfileFixture {};

TEST_F(FirstRun, FirstRunIsTiedToTheExecutablesModificationTime) {
    ASSERT_FALSE(executable_tag().empty());
    EXPECT_EQ(check_first_run(), 1);
    EXPECT_EQ(get("config", "cbsdTag"), executable_tag());
    EXPECT_TRUE(logged("[SAS] cbsd is running for the first time.\n"));
    EXPECT_TRUE(sent_to_syslog("cbsd is running for the first time."));
    EXPECT_EQ(check_first_run(), 0);
}

TEST_F(FirstRun, ADifferentStoredTagMeansAFirstRun) {
    set("config", "cbsdTag", "12345");
    EXPECT_EQ(check_first_run(), 1);
    EXPECT_EQ(get("config", "cbsdTag"), executable_tag());
}

TEST_F(FirstRun, TouchingTheExecutableMakesTheNextStartAFirstRun) {
    char path[256] = {};
    ASSERT_GT(readlink("/proc/self/exe", path, sizeof path - 1), 0);
    // Touch a private copy mounted over the executable's path (this process
    // has its own mount namespace), so tests running alongside see no change.
    std::string copy = "/tmp/exe-copy";
    ASSERT_EQ(system(("cp '" + std::string(path) + "' " + copy).c_str()), 0);
    ASSERT_EQ(mount(copy.c_str(), path, nullptr, MS_BIND, nullptr), 0);
    struct stat before {};
    ASSERT_EQ(stat(path, &before), 0);
    int first = check_first_run();
    int second = check_first_run();
    timespec times[2] = {before.st_atim, before.st_mtim};
    times[1].tv_sec += 1;
    int touched = utimensat(AT_FDCWD, path, times, 0);
    int after_touch = check_first_run();
    umount(path);

    EXPECT_EQ(first, 1);
    EXPECT_EQ(second, 0);
    ASSERT_EQ(touched, 0);
    EXPECT_EQ(after_touch, 1);
    EXPECT_EQ(get("config", "cbsdTag"), std::to_string(static_cast<long>(before.st_mtime) + 1));
}

TEST_F(FirstRun, UnreadableStoreStillCountsAsFirstRunAndWritesNothing) {
    unlink(config::kSasConfigPath);
    // Nothing can be read, so the tag differs; the write creates no section.
    EXPECT_EQ(check_first_run(), 1);
    EXPECT_EQ(get("config", "cbsdTag"), "");
}

}  // namespace
}  // namespace cbsd::daemon
