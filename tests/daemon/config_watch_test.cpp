// The configuration watch on a real directory with real inotify: what wakes
// it and what does not.
#include "daemon/config_watch.h"

#include "base/clock.h"
#include "config/uci_store.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <sys/stat.h>
#include <unistd.h>

namespace cbsd::daemon {
namespace {

using config::config_set;
using config::kSasConfigPath;
using test::write_file;

const char* const kConfig = "config sas 'config'\n\toption enableMode '1'\n";

class ConfigWatchTest : public ::testing::Test {
protected:
    void SetUp() override {
        mkdir("/etc/config", 0755);
        ASSERT_TRUE(write_file(kSasConfigPath, kConfig));
    }
};

TEST_F(ConfigWatchTest, NothingChangedTimesOut) {
    ConfigWatch watch(kSasConfigPath);
    ASSERT_TRUE(watch.active());
    EXPECT_FALSE(watch.wait_for_change(50));
}

TEST_F(ConfigWatchTest, AStoreCommitWakesItOnceForAllPendingEvents) {
    ConfigWatch watch(kSasConfigPath);
    config_set(kSasConfigPath, "config", "enableMode", "0");
    config_set(kSasConfigPath, "config", "enableMode", "1");
    EXPECT_TRUE(watch.wait_for_change(1000));
    EXPECT_FALSE(watch.wait_for_change(50));
}

TEST_F(ConfigWatchTest, AFileRenamedOverTheOldOneWakesIt) {
    ConfigWatch watch(kSasConfigPath);
    ASSERT_TRUE(write_file("/etc/config/.sas.new", kConfig));
    EXPECT_FALSE(watch.wait_for_change(50));  // another name: no wake
    ASSERT_EQ(std::rename("/etc/config/.sas.new", kSasConfigPath), 0);
    EXPECT_TRUE(watch.wait_for_change(1000));
}

TEST_F(ConfigWatchTest, AFileWrittenInPlaceWakesIt) {
    ConfigWatch watch(kSasConfigPath);
    ASSERT_TRUE(write_file(kSasConfigPath, kConfig));
    EXPECT_TRUE(watch.wait_for_change(1000));
}

// The daemon sets values it already holds on every pass; such a set must
// not wake the loop, or the loop would wake itself for ever.
TEST_F(ConfigWatchTest, ASetOfAnUnchangedValueDoesNotWakeIt) {
    ConfigWatch watch(kSasConfigPath);
    config_set(kSasConfigPath, "config", "enableMode", "1");
    EXPECT_FALSE(watch.wait_for_change(100));
}

TEST_F(ConfigWatchTest, OtherFilesOfTheDirectoryDoNotEndTheWaitEarly) {
    ConfigWatch watch(kSasConfigPath);
    ASSERT_TRUE(write_file("/etc/config/network", "config interface 'lan'\n"));
    ASSERT_TRUE(write_file("/etc/config/sasx", "x\n"));
    const uint32_t start = base::monotonic_ms();
    EXPECT_FALSE(watch.wait_for_change(100));
    EXPECT_GE(base::monotonic_ms() - start, 100u);
}

TEST(ConfigWatch, AMissingDirectoryGivesAnInactiveWatch) {
    ConfigWatch watch("/nonexistent-dir/sas");
    EXPECT_FALSE(watch.active());
    EXPECT_FALSE(watch.wait_for_change(10));
}

}  // namespace
}  // namespace cbsd::daemon
