// The built-in device profiles by product model.
#pragma once

namespace cbsd::config {

struct DeviceProfile {
    char model[32];
    char fccId[32];
    char cbsdCategory[4];
    char radioTechnology[32];
    char antennaModel[32];
    char heightType[8];
    char indoorDeployment[8];
    char groupType[32];
    char antennaGain[4];
    char antennaBeamwidth[4];
    char maxEirp[4];
};

// The first row whose model equals the given one; the catch-all row
// ("unknow_model") for an unknown, empty or null model.
const DeviceProfile& find_device_profile(const char* model);
bool is_catch_all_profile(const DeviceProfile& profile);

}  // namespace cbsd::config
