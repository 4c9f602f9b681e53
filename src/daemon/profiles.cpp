#include "daemon/profiles.h"

#include "config/accessors.h"
#include "config/device_profiles.h"
#include "config/uci_store.h"
#include "base/log.h"
#include "base/files.h"
#include "base/settings.h"
#include "base/system.h"
#include "daemon/modem_wait.h"
#include "daemon/signals.h"
#include "modem/modem.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <sys/stat.h>
#include <unistd.h>

namespace cbsd::daemon {

using config::AutoEnableState;
using config::DeviceProfile;
using config::find_device_profile;
using config::is_catch_all_profile;

namespace {


// Certificates the router's provisioning leaves for the daemon to take.
constexpr const char* kCopyProvisionedCertificates =
    "mkdir -p /root/sas; cp -rf /tmp/logger/sas/cert /root/sas/";
constexpr const char* kProvisionedDir = "/tmp/logger/sas";
constexpr const char* kProvisionedCertificates = "/tmp/logger/sas/cert";
constexpr const char* kCertificateHome = "/root/sas";

constexpr uint8_t kAutoOn = 1;
constexpr uint8_t kAutoOff = 2;
constexpr uint8_t kInBand48 = 1;
constexpr uint8_t kNotInBand48 = 2;
constexpr int kBandQueryFailed = -1;

AutoEnableState process_auto_state;

// Copies at most limit characters into a cleared buffer of size bytes
// (limit < size), as the debug overrides are taken.
void copy_at_most(char* buffer, size_t size, const char* source, size_t limit) {
    std::memset(buffer, 0, size);
    std::strncpy(buffer, source, limit < size ? limit : size - 1);
}

// A debug override applies only in debug mode and when it is not empty.
bool has_override(const char* value) {
    return base::settings().debug && value[0] != '\0';
}

void set_and_log(config::UciName name, const char* value, const char* format) {
    config::config_set(config::kSasConfigPath, name, value);
    base::notice(format, value);
}

void write_serial_number(const modem::ProductInfo& product) {
    char serial[256] = {};
    const char* override_sn = base::settings().sn;
    if (has_override(override_sn)) {
        copy_at_most(serial, sizeof serial, override_sn, 128);
    } else {
        static_assert(sizeof serial == sizeof product.serial);
        std::memcpy(serial, product.serial, sizeof serial);  // terminated by the query
        if (serial[0] == '\0') base::notice_to_syslog("[SAS] failed to get SN.");
    }
    set_and_log(config::schema::kSerialNumber, serial, "[SAS] set default SN: %s\n");
}

void write_overridable(config::UciName name, const char* override_value,
                       size_t override_limit, const char* profile_value, size_t profile_limit,
                       const char* format) {
    char value[256] = {};
    if (has_override(override_value))
        copy_at_most(value, sizeof value, override_value, override_limit);
    else
        copy_at_most(value, sizeof value, profile_value, profile_limit);
    set_and_log(name, value, format);
}

// The options' older home in section operation moves to section config.
// The one buffer is deliberately not cleared between the reads, so a missing
// operation.sasServerAddress hands the usedp value on to config.address.
void migrate_operation_options() {
    char value[256] = {};
    config::config_get(config::kSasConfigPath, config::schema::kUsedp, value, sizeof value);
    if (value[0] != '\0') {
        base::notice("\n");
        return;
    }
    config::config_get(config::kSasConfigPath, config::schema::kOpUsedp, value, sizeof value);
    if (value[0] != '\0') {
        config::config_set(config::kSasConfigPath, config::schema::kUsedp, value);
        config::config_set(config::kSasConfigPath, config::schema::kOpUsedp, "");
    }
    config::config_get(config::kSasConfigPath, config::schema::kOpSasServerAddress, value, sizeof value);
    config::config_set(config::kSasConfigPath, config::schema::kAddress, value);
    config::config_set(config::kSasConfigPath, config::schema::kOpSasServerAddress, "");
    base::notice("\n");
}

}  // namespace

void provision_certificates() {
    // Whatever the router left behind is taken as it is; failures show later
    // when the certificates are used.  With nothing left behind the copy
    // would only print "cannot stat" on every start (a system-log line under
    // procd): the home directory is made without it, the outcome the same.
    struct stat drop {};
    if (stat(kProvisionedCertificates, &drop) == 0)
        base::run_status(kCopyProvisionedCertificates);
    else
        mkdir(kCertificateHome, 0755);
    base::remove_tree(kProvisionedDir);
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
    config::config_get(config::kSasConfigPath, config::schema::kCbsdTag, stored, sizeof stored);
    if (std::strcmp(stored, tag) == 0) return 0;

    // A replaced executable (a firmware update) counts as a first run.
    config::config_set(config::kSasConfigPath, config::schema::kCbsdTag, tag);
    base::notice_to_syslog("[SAS] cbsd is running for the first time.\n");
    return 1;
}

void apply_profile_defaults(const modem::ProductInfo& product) {
    base::notice("[SAS] CPE Product Model: %s\n", product.model);

    const DeviceProfile& row = find_device_profile(product.model);
    if (is_catch_all_profile(row)) base::notice_to_syslog("[SAS] this product model does not support SAS.\n");

    bool first_run = check_first_run() == 1;
    const base::ProcessSettings& overrides = base::settings();

    write_serial_number(product);
    write_overridable(config::schema::kFccId, overrides.fccId, 128, row.fccId, sizeof row.fccId - 1,
                      "[SAS] set default fccId: %s\n");
    write_overridable(config::schema::kCbsdCategory, overrides.category, 4, row.cbsdCategory,
                      sizeof row.cbsdCategory - 1, "[SAS] set default cbsdCategory: %s\n");
    set_and_log(config::schema::kRadioTechnology, row.radioTechnology,
                "[SAS] set default radioTechnology: %s\n");
    set_and_log(config::schema::kAntennaModel, row.antennaModel, "[SAS] set default antennaModel: %s\n");
    set_and_log(config::schema::kCpiHeightType, row.heightType, "[SAS] set default antennaHeightType: %s\n");
    if (first_run)
        set_and_log(config::schema::kCpiIndoorDeployment, row.indoorDeployment,
                    "[SAS] set default indoorDeployment: %s\n");
    set_and_log(config::schema::kCpiGroupType, row.groupType, "[SAS] set default groupType: %s\n");
    set_and_log(config::schema::kAntennaGain, row.antennaGain, "[SAS] set default antennaGain: %s\n");
    write_overridable(config::schema::kSasMaxEirp, overrides.maxEIRP, 8, row.maxEirp,
                      sizeof row.maxEirp - 1, "[SAS] set default MaxEIRP(PreferPower): %s\n");

    if (!first_run) {
        base::notice("\n");
        return;
    }
    set_and_log(config::schema::kAntennaBeamwidth, row.antennaBeamwidth,
                "[SAS] set default antennaBeamwidth: %s\n");
    migrate_operation_options();
}

bool apply_profile_defaults(void (*while_waiting)()) {
    modem::ProductInfo product{};
    if (!wait_for_product_info(product, ModemWaitHooks{stop_requested, while_waiting}))
        return false;
    apply_profile_defaults(product);
    return true;
}

void auto_enable(AutoEnableState& state) {
    char value[8] = {};
    if (!config::config_get(config::kSasConfigPath, config::schema::kAuto, value, sizeof value - 1))
        base::notice("[SAS] SAS_AUTO no value");

    if (std::strcmp(value, "1") != 0) {
        if (state.lastAuto != kAutoOff) {
            base::notice_to_syslog("[SAS] auto SAS is Off.\n");
            state.lastAuto = kAutoOff;
        }
        return;
    }
    if (state.lastAuto != kAutoOn) {
        base::notice_to_syslog("[SAS] auto SAS is On.\n");
        state.lastAuto = kAutoOn;
    }

    int queried = modem::get_band();
    // A failed query says nothing about the band: enableMode keeps what the
    // last answer decided, so a modem hiccup never switches SAS off, and the
    // same band told again afterwards is no news.
    if (queried == kBandQueryFailed) {
        if (!state.bandUnknown) {
            base::notice("[SAS] LTE band unknown, SAS stays as it was.\n");
            state.bandUnknown = 1;
        }
        return;
    }
    state.bandUnknown = 0;
    char band[8] = {};
    std::snprintf(band, sizeof band, "%d", queried);
    // enableMode is written on every pass while auto is on, not only on a change.
    if (std::strcmp(band, "48") == 0) {
        if (state.lastBand != kInBand48) {
            base::notice_to_syslog("[SAS] LTE is in Band 48, so turn on SAS automatically.\n");
            state.lastBand = kInBand48;
        }
        config::write_sas_option(config::schema::kEnableMode, "1");
    } else {
        if (state.lastBand != kNotInBand48) {
            base::notice_to_syslog("[SAS] LTE is not in Band 48, so turn off SAS automatically.\n");
            state.lastBand = kNotInBand48;
        }
        config::write_sas_option(config::schema::kEnableMode, "0");
    }
}

void auto_enable() {
    auto_enable(process_auto_state);
}

}  // namespace cbsd::daemon
