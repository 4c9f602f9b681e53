#include "config/device_profiles.h"

#include <cstring>
#include <iterator>

namespace cbsd::config {

namespace {

// The catch-all row ends the table; its misspellings are part of the stored values.
constexpr DeviceProfile kProfiles[] = {
    {"RQ5518E", "7XK44RQ5518E96", "B", "E_UTRA", "Internal", "AGL", "0",
     "INTERFERENCE_COORDINATION", "19", "25", "33"},
    {"RQ5518E-M2", "7XK44RQ5518E96", "B", "E_UTRA", "Internal", "AGL", "0",
     "INTERFERENCE_COORDINATION", "19", "25", "33"},
    {"RQ5518E-M11", "7XK44RQ5518E96", "B", "E_UTRA", "Internal", "AGL", "0",
     "INTERFERENCE_COORDINATION", "19", "25", "33"},
    {"RQ5518L", "7XK44RQ5518L96", "B", "E_UTRA", "Internal", "AGL", "0",
     "INTERFERENCE_COORDINATION", "14", "60", "27"},
    {"RQ5518L-M2", "7XK44RQ5518L96", "B", "E_UTRA", "Internal", "AGL", "0",
     "INTERFERENCE_COORDINATION", "14", "60", "27"},
    {"RQ5518L-M11", "7XK44RQ5518L96", "B", "E_UTRA", "Internal", "AGL", "0",
     "INTERFERENCE_COORDINATION", "14", "60", "27"},
    {"unknow_model", "unknow_fccid", "B", "E_UTRA", "Internal", "AGL", "0",
     "INTERFERENCE_COORDINATION", "0", "0", "0"},
};

}  // namespace

const DeviceProfile& find_device_profile(const char* model) {
    const DeviceProfile* row = std::begin(kProfiles);
    for (; !is_catch_all_profile(*row); ++row) {
        if (model && std::strcmp(row->model, model) == 0) break;
    }
    return *row;
}

bool is_catch_all_profile(const DeviceProfile& profile) {
    return &profile == std::end(kProfiles) - 1;
}

}  // namespace cbsd::config
