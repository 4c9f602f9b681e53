// The first run's move of usedp and sasServerAddress to section config.
#include "daemon/option_migration.h"

#include "daemon/profile_defaults.h"
#include "daemon/profile_fixture.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace cbsd::daemon {
using namespace ::cbsd::test;
namespace {

class OptionMigration : public ProfileFixture {
protected:
    // Section config holds these values, section operation neither old option.
    static void expect_moved(const char* usedp, const char* address) {
        expect_values({{"config", "usedp", usedp}, {"config", "address", address}});
        EXPECT_TRUE(absent("operation", "usedp"));
        EXPECT_TRUE(absent("operation", "sasServerAddress"));
    }
};

TEST_F(OptionMigration, FirstRunMovesUsedpAndTheUsedpValueFallsIntoAddress) {
    set_all({{"operation", "usedp", "1"}, {"config", "address", "https://keep.example"}});
    apply_profile_defaults();
    // No operation.sasServerAddress: the shared buffer still holds "1".
    expect_moved("1", "1");
}

TEST_F(OptionMigration, FirstRunWithoutOldOptionsEmptiesAddress) {
    set("config", "address", "https://sas.example/v1.2");
    apply_profile_defaults();
    EXPECT_TRUE(absent("config", "address")) << test::read_file(config::kSasConfigPath);
    EXPECT_EQ(get("config", "usedp"), "");
    EXPECT_TRUE(absent("operation", "sasServerAddress"));
}

TEST_F(OptionMigration, FirstRunMovesBothOldOptions) {
    set_all({{"operation", "usedp", "0"},
             {"operation", "sasServerAddress", "https://old.example/v1.2"}});
    apply_profile_defaults();
    expect_moved("0", "https://old.example/v1.2");
}

TEST_F(OptionMigration, FirstRunWithUsedpSetMovesNothing) {
    const std::vector<Option> options = {
        {"config", "usedp", "0"},
        {"config", "address", "https://sas.example"},
        {"operation", "usedp", "1"},
        {"operation", "sasServerAddress", "https://old.example"},
    };
    set_all(options);
    apply_profile_defaults();
    expect_values(options);
    // Still a first run: the beamwidth was written before the check.
    EXPECT_EQ(get("config", "antennaBeamwidth"), "60");
}

}  // namespace
}  // namespace cbsd::daemon
