#include "config/profiles.h"

#include "config/device_profiles.h"
#include "config/uci_store.h"
#include "core/log.h"
#include "core/settings.h"
#include "modem/modem.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <sys/stat.h>
#include <unistd.h>

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

constexpr uint8_t kAutoOn = 1;
constexpr uint8_t kAutoOff = 2;
constexpr uint8_t kInBand48 = 1;
constexpr uint8_t kNotInBand48 = 2;

AutoEnableState process_auto_state;

// Copies at most limit characters into a cleared buffer of size bytes
// (limit < size), as the debug overrides are taken.
void copy_at_most(char* buffer, size_t size, const char* source, size_t limit) {
    std::memset(buffer, 0, size);
    std::strncpy(buffer, source, limit < size ? limit : size - 1);
}

// A debug override applies only in debug mode and when it is not empty.
bool has_override(const char* value) {
    return core::settings().debug && value[0] != '\0';
}

void set_and_log(const char* section, const char* option, const char* value, const char* format) {
    config_set(kSasConfigPath, section, option, value);
    core::log(5, 0, format, value);
}

void write_serial_number() {
    char serial[256] = {};
    const char* override_sn = core::settings().sn;
    if (has_override(override_sn)) {
        copy_at_most(serial, sizeof serial, override_sn, 128);
    } else {
        modem::get_serial_number(serial, sizeof serial - 1);
        if (serial[0] == '\0') core::log(5, 1, "[SAS] failed to get SN.");
    }
    set_and_log("config", "serialNumber", serial, "[SAS] set default SN: %s\n");
}

void write_overridable(const char* section, const char* option, const char* override_value,
                       size_t override_limit, const char* profile_value, size_t profile_limit,
                       const char* format) {
    char value[256] = {};
    if (has_override(override_value))
        copy_at_most(value, sizeof value, override_value, override_limit);
    else
        copy_at_most(value, sizeof value, profile_value, profile_limit);
    set_and_log(section, option, value, format);
}

// The options' older home in section operation moves to section config.
// The one buffer is deliberately not cleared between the reads, so a missing
// operation.sasServerAddress hands the usedp value on to config.address.
void migrate_operation_options() {
    char value[256] = {};
    config_get(kSasConfigPath, "config", "usedp", value, sizeof value);
    if (value[0] != '\0') {
        core::log(5, 0, "\n");
        return;
    }
    config_get(kSasConfigPath, "operation", "usedp", value, sizeof value);
    if (value[0] != '\0') {
        config_set(kSasConfigPath, "config", "usedp", value);
        config_set(kSasConfigPath, "operation", "usedp", "");
    }
    config_get(kSasConfigPath, "operation", "sasServerAddress", value, sizeof value);
    config_set(kSasConfigPath, "config", "address", value);
    config_set(kSasConfigPath, "operation", "sasServerAddress", "");
    core::log(5, 0, "\n");
}

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

void provision_certificates() {
    // Whatever the router left behind is taken as it is; failures show later
    // when the certificates are used.
    int status = std::system("mkdir -p /root/sas; cp -rf /tmp/logger/sas/cert /root/sas/");
    status = std::system("rm -rf /tmp/logger/sas");
    (void)status;
}

int check_first_run() {
    char executable[256] = {};
    ssize_t length = readlink("/proc/self/exe", executable, sizeof executable - 1);
    if (length <= 0) return -1;
    struct stat status {};
    if (stat(executable, &status) != 0) return -1;

    char tag[32] = {};
    std::snprintf(tag, sizeof tag, "%ld", static_cast<long>(status.st_mtime));
    char stored[32] = {};
    config_get(kSasConfigPath, "config", "cbsdTag", stored, sizeof stored);
    if (std::strcmp(stored, tag) == 0) return 0;

    // A replaced executable (a firmware update) counts as a first run.
    config_set(kSasConfigPath, "config", "cbsdTag", tag);
    core::log(5, 1, "[SAS] cbsd is running for the first time.\n");
    return 1;
}

void apply_profile_defaults() {
    char model[32] = {};
    modem::get_product_model(model, sizeof model - 1);
    core::log(5, 0, "[SAS] CPE Product Model: %s\n", model);

    const DeviceProfile& row = find_device_profile(model);
    if (is_catch_all_profile(row)) core::log(5, 1, "[SAS] this product model does not support SAS.\n");

    bool first_run = check_first_run() == 1;
    const core::ProcessSettings& overrides = core::settings();

    write_serial_number();
    write_overridable("config", "fccId", overrides.fccId, 128, row.fccId, sizeof row.fccId - 1,
                      "[SAS] set default fccId: %s\n");
    write_overridable("config", "cbsdCategory", overrides.category, 4, row.cbsdCategory,
                      sizeof row.cbsdCategory - 1, "[SAS] set default cbsdCategory: %s\n");
    set_and_log("config", "radioTechnology", row.radioTechnology,
                "[SAS] set default radioTechnology: %s\n");
    set_and_log("config", "antennaModel", row.antennaModel, "[SAS] set default antennaModel: %s\n");
    set_and_log("cpi", "heightType", row.heightType, "[SAS] set default antennaHeightType: %s\n");
    if (first_run)
        set_and_log("cpi", "indoorDeployment", row.indoorDeployment,
                    "[SAS] set default indoorDeployment: %s\n");
    set_and_log("cpi", "groupType", row.groupType, "[SAS] set default groupType: %s\n");
    set_and_log("config", "antennaGain", row.antennaGain, "[SAS] set default antennaGain: %s\n");
    write_overridable("sasConfig", "maxEirp", overrides.maxEIRP, 8, row.maxEirp,
                      sizeof row.maxEirp - 1, "[SAS] set default MaxEIRP(PreferPower): %s\n");

    if (!first_run) {
        core::log(5, 0, "\n");
        return;
    }
    set_and_log("config", "antennaBeamwidth", row.antennaBeamwidth,
                "[SAS] set default antennaBeamwidth: %s\n");
    migrate_operation_options();
}

void auto_enable(AutoEnableState& state) {
    char value[8] = {};
    if (!config_get(kSasConfigPath, "config", "auto", value, sizeof value - 1))
        core::log(5, 0, "[SAS] SAS_AUTO no value");

    if (std::strcmp(value, "1") != 0) {
        if (state.lastAuto != kAutoOff) {
            core::log(5, 1, "[SAS] auto SAS is Off.\n");
            state.lastAuto = kAutoOff;
        }
        return;
    }
    if (state.lastAuto != kAutoOn) {
        core::log(5, 1, "[SAS] auto SAS is On.\n");
        state.lastAuto = kAutoOn;
    }

    char band[8] = {};
    std::snprintf(band, sizeof band, "%d", modem::get_band());
    // enableMode is written on every pass while auto is on, not only on a change.
    if (std::strcmp(band, "48") == 0) {
        if (state.lastBand != kInBand48) {
            core::log(5, 1, "[SAS] LTE is in Band 48, so turn on SAS automatically.\n");
            state.lastBand = kInBand48;
        }
        config_set(kSasConfigPath, "config", "enableMode", "1");
    } else {
        if (state.lastBand != kNotInBand48) {
            core::log(5, 1, "[SAS] LTE is not in Band 48, so turn off SAS automatically.\n");
            state.lastBand = kNotInBand48;
        }
        config_set(kSasConfigPath, "config", "enableMode", "0");
    }
}

void auto_enable() {
    auto_enable(process_auto_state);
}

}  // namespace cbsd::config
