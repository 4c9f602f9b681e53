#include "standalone/grant_time.h"

#include "config/accessors.h"
#include "config/uci_store.h"
#include "base/log.h"
#include "base/status_report.h"

#include <cstdlib>
#include <cstring>

namespace cbsd::standalone {

namespace {

constexpr size_t kTimeTextCapacity = 64;

void get_time_option(config::UciName name, const char* missing_line,
                     char* buffer, int size) {
    if (!buffer || size <= 0) return;
    std::memset(buffer, 0, static_cast<size_t>(size));
    char value[kTimeTextCapacity] = {};
    if (!config::config_get(config::kSasConfigPath, name, value, sizeof value)) {
        base::notice("%s", missing_line);
        return;
    }
    std::strncpy(buffer, value, static_cast<size_t>(size));
    buffer[size - 1] = '\0';
}

}  // namespace

void get_transmit_expire_time(char* buffer, int size) {
    get_time_option(config::schema::kSasTransmitExpireTime, "[SAS] transmitExpireTime No value.\n",
                    buffer, size);
}

void get_grant_expire_time(char* buffer, int size) {
    get_time_option(config::schema::kSasGrantExpireTime, "[SAS] grantExpireTime No value.\n", buffer,
                    size);
}

unsigned set_transmit_expire_time(const char* text) {
    base::report_transmit_expire_time(text);
    return config::write_sas_option(config::schema::kSasTransmitExpireTime, text);
}

unsigned set_grant_expire_time(const char* text) {
    base::report_grant_expire_time(text);
    return config::write_sas_option(config::schema::kSasGrantExpireTime, text);
}

unsigned set_grant_renew(const char* text) {
    return config::write_sas_option(config::schema::kOpGrantRenew, text);
}

unsigned set_power_spectral_density(const char* text) {
    return config::write_sas_option(config::schema::kSasPowerSpectralDensity, text);
}

int get_grant_renew() {
    char value[8] = {};
    config::config_get(config::kSasConfigPath, config::schema::kOpGrantRenew, value, sizeof value);
    return std::atoi(value);
}

}  // namespace cbsd::standalone
