#include "standalone/grant_time.h"

#include "config/uci_store.h"
#include "core/log.h"

#include <cstdlib>
#include <cstring>

namespace cbsd::standalone {

namespace {

constexpr size_t kTimeTextCapacity = 64;

void get_time_option(const char* section, const char* option, const char* missing_line,
                     char* buffer, int size) {
    if (!buffer || size <= 0) return;
    std::memset(buffer, 0, static_cast<size_t>(size));
    char value[kTimeTextCapacity] = {};
    if (!config::config_get(config::kSasConfigPath, section, option, value, sizeof value)) {
        core::log(5, 0, "%s", missing_line);
        return;
    }
    std::strncpy(buffer, value, static_cast<size_t>(size));
    buffer[size - 1] = '\0';
}

}  // namespace

void get_transmit_expire_time(char* buffer, int size) {
    get_time_option("sasConfig", "transmitExpireTime", "[SAS] transmitExpireTime No value.\n",
                    buffer, size);
}

void get_grant_expire_time(char* buffer, int size) {
    get_time_option("sasConfig", "grantExpireTime", "[SAS] grantExpireTime No value.\n", buffer,
                    size);
}

unsigned set_transmit_expire_time(const char* text) {
    return config::config_set(config::kSasConfigPath, "sasConfig", "transmitExpireTime", text);
}

unsigned set_grant_expire_time(const char* text) {
    return config::config_set(config::kSasConfigPath, "sasConfig", "grantExpireTime", text);
}

unsigned set_grant_renew(const char* text) {
    return config::config_set(config::kSasConfigPath, "operation", "GrantRenew", text);
}

unsigned set_power_spectral_density(const char* text) {
    return config::config_set(config::kSasConfigPath, "sasConfig", "powerSpectralDensity", text);
}

int get_grant_renew() {
    char value[8] = {};
    config::config_get(config::kSasConfigPath, "operation", "GrantRenew", value, sizeof value);
    return std::atoi(value);
}

}  // namespace cbsd::standalone
