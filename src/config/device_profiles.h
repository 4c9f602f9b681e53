// The built-in device profiles by product model, and the state that the
// Band 48 automatic enablement keeps between supervision passes.
#pragma once

#include <cstdint>

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

// Both start at 0, which is neither value, so the first pass always logs.
struct AutoEnableState {
    uint8_t lastAuto = 0;  // 1 On, 2 Off
    uint8_t lastBand = 0;  // 1 in Band 48, 2 not: the last band the modem told
    uint8_t bandUnknown = 0;  // 1 while band queries fail (logged once per streak)
};

}  // namespace cbsd::config
