#include "daemon/profile_defaults.h"

#include "base/log.h"
#include "base/settings.h"
#include "config/device_profiles.h"
#include "config/uci_store.h"
#include "daemon/first_run.h"
#include "daemon/modem_wait.h"
#include "daemon/option_migration.h"
#include "daemon/signals.h"

#include <cstring>

namespace cbsd::daemon {

using config::DeviceProfile;
using config::find_device_profile;
using config::is_catch_all_profile;

namespace {

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

}  // namespace

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

}  // namespace cbsd::daemon
