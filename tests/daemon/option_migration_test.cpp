// The first run's move of usedp and sasServerAddress to section config.
#include "daemon/option_migration.h"

#include "daemon/profile_defaults.h"
#include "daemon/profile_fixture.h"

#include <gtest/gtest.h>

#include <string>

namespace cbsd::daemon {
using namespace ::cbsd::test;
namespace {

class OptionMigration : public ProfileFixture {};

TEST_F(OptionMigration, FirstRunMovesUsedpAndTheUsedpValueFallsIntoAddress) {
    set("operation", "usedp", "1");
    set("config", "address", "https://keep.example");
    apply_profile_defaults();
    EXPECT_EQ(get("config", "usedp"), "1");
    // No operation.sasServerAddress: the shared buffer still holds "1".
    EXPECT_EQ(get("config", "address"), "1");
    EXPECT_TRUE(absent("operation", "usedp"));
    EXPECT_TRUE(absent("operation", "sasServerAddress"));
}

TEST_F(OptionMigration, FirstRunWithoutOldOptionsEmptiesAddress) {
    set("config", "address", "https://sas.example/v1.2");
    apply_profile_defaults();
    EXPECT_TRUE(absent("config", "address")) << test::read_file(config::kSasConfigPath);
    EXPECT_EQ(get("config", "usedp"), "");
    EXPECT_TRUE(absent("operation", "sasServerAddress"));
}

TEST_F(OptionMigration, FirstRunMovesBothOldOptions) {
    set("operation", "usedp", "0");
    set("operation", "sasServerAddress", "https://old.example/v1.2");
    apply_profile_defaults();
    EXPECT_EQ(get("config", "usedp"), "0");
    EXPECT_EQ(get("config", "address"), "https://old.example/v1.2");
    EXPECT_TRUE(absent("operation", "usedp"));
    EXPECT_TRUE(absent("operation", "sasServerAddress"));
}

TEST_F(OptionMigration, FirstRunWithUsedpSetMovesNothing) {
    set("config", "usedp", "0");
    set("config", "address", "https://sas.example");
    set("operation", "usedp", "1");
    set("operation", "sasServerAddress", "https://old.example");
    apply_profile_defaults();
    EXPECT_EQ(get("config", "usedp"), "0");
    EXPECT_EQ(get("config", "address"), "https://sas.example");
    EXPECT_EQ(get("operation", "usedp"), "1");
    EXPECT_EQ(get("operation", "sasServerAddress"), "https://old.example");
    // Still a first run: the beamwidth was written before the check.
    EXPECT_EQ(get("config", "antennaBeamwidth"), "60");
}

}  // namespace
}  // namespace cbsd::daemon
