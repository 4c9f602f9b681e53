// The built-in device profiles by product model.
#include "config/device_profiles.h"

#include <gtest/gtest.h>

namespace cbsd::config {
namespace {

TEST(ProfileTable, KnownModelsHaveTheirOwnRows) {
    const DeviceProfile& e = find_device_profile("RQ5518E-M11");
    EXPECT_STREQ(e.model, "RQ5518E-M11");
    EXPECT_STREQ(e.fccId, "7XK44RQ5518E96");
    EXPECT_STREQ(e.antennaGain, "19");
    EXPECT_STREQ(e.antennaBeamwidth, "25");
    EXPECT_STREQ(e.maxEirp, "33");
    for (const char* model : {"RQ5518E", "RQ5518E-M2", "RQ5518E-M11", "RQ5518L", "RQ5518L-M2",
                              "RQ5518L-M11"}) {
        const DeviceProfile& row = find_device_profile(model);
        EXPECT_STREQ(row.model, model);
        EXPECT_FALSE(is_catch_all_profile(row));
        EXPECT_STREQ(row.cbsdCategory, "B");
        EXPECT_STREQ(row.radioTechnology, "E_UTRA");
        EXPECT_STREQ(row.antennaModel, "Internal");
        EXPECT_STREQ(row.heightType, "AGL");
        EXPECT_STREQ(row.indoorDeployment, "0");
        EXPECT_STREQ(row.groupType, "INTERFERENCE_COORDINATION");
    }
    const DeviceProfile& l = find_device_profile("RQ5518L");
    EXPECT_STREQ(l.fccId, "7XK44RQ5518L96");
    EXPECT_STREQ(l.antennaGain, "14");
    EXPECT_STREQ(l.antennaBeamwidth, "60");
    EXPECT_STREQ(l.maxEirp, "27");
}

TEST(ProfileTable, UnknownEmptyAndNullModelsGetTheCatchAllRow) {
    for (const char* model : {"ZX7700-NA", "", "unknow_model", "rq5518l", "RQ5518L "}) {
        const DeviceProfile& row = find_device_profile(model);
        EXPECT_TRUE(is_catch_all_profile(row)) << model;
        EXPECT_STREQ(row.model, "unknow_model");
        EXPECT_STREQ(row.fccId, "unknow_fccid");
        EXPECT_STREQ(row.antennaGain, "0");
        EXPECT_STREQ(row.antennaBeamwidth, "0");
        EXPECT_STREQ(row.maxEirp, "0");
    }
    EXPECT_TRUE(is_catch_all_profile(find_device_profile(nullptr)));
}

}  // namespace
}  // namespace cbsd::config
