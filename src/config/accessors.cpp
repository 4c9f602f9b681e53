#include "config/accessors.h"

#include "config/uci_store.h"
#include "core/log.h"

#include <cstdlib>
#include <cstring>

namespace cbsd::config {

namespace {

// Reads one option of /etc/config/sas into a cleared buffer.  The result is
// the store's: 1 when the file was readable, even if the option is absent.
template <size_t N>
unsigned read_sas_option(const char* section, const char* option, char (&buffer)[N]) {
    std::memset(buffer, 0, N);
    return config_get(kSasConfigPath, section, option, buffer, N);
}

// A flag option is set when its text converts to the integer 1.
template <size_t N>
bool flag_is_set(const char* section, const char* option, const char* failure_message) {
    char value[N];
    if (!read_sas_option(section, option, value) && failure_message) {
        core::log(5, 0, "%s", failure_message);
    }
    return std::atoi(value) == 1;
}

void read_into_caller_buffer(const char* section, const char* option, char* buffer, size_t size) {
    if (!buffer || size == 0) return;
    std::memset(buffer, 0, size);
    config_get(kSasConfigPath, section, option, buffer, size - 1);
    buffer[size - 1] = '\0';
}

}  // namespace

bool is_sas_enabled() {
    return flag_is_set<128>("config", "enableMode", "[SAS] enableMode no value");
}

bool is_dp_enabled() {
    return flag_is_set<128>("config", "usedp", "[SAS] usedp no value");
}

bool is_single_step_registration() {
    return flag_is_set<8>("config", "sasStepChoice", nullptr);
}

bool is_radio_enabled() {
    return flag_is_set<256>("sasConfig", "RadioEnable", "[SAS] RadioEnable no value");
}

unsigned set_radio_enable(const char* value) {
    return config_set(kSasConfigPath, "sasConfig", "RadioEnable", value);
}

int get_antenna_gain() {
    char value[128];
    if (!read_sas_option("config", "antennaGain", value)) {
        core::log(5, 0, "[SAS] antennaGain No value.\n");
        return -1;
    }
    return std::atoi(value);
}

int get_power_spectral_density() {
    char value[128];
    if (!read_sas_option("sasConfig", "powerSpectralDensity", value)) {
        core::log(5, 0, "[SAS] powerSpectralDensity No value.\n");
    }
    return std::atoi(value);
}

void get_status(char* buffer, size_t size) {
    read_into_caller_buffer("operation", "status", buffer, size);
}

unsigned set_status(const char* value) {
    return config_set(kSasConfigPath, "operation", "status", value);
}

void get_server_address(char* buffer, size_t size) {
    read_into_caller_buffer("config", "address", buffer, size);
}

}  // namespace cbsd::config
