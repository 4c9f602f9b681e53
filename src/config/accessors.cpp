#include "config/accessors.h"

#include "config/uci_store.h"
#include "base/log.h"
#include "base/status_report.h"

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>

namespace cbsd::config {

namespace {

// Reads one option of /etc/config/sas into a cleared buffer.  The result is
// the store's: 1 when the file was readable, even if the option is absent.
template <size_t N>
unsigned read_sas_option(UciName name, char (&buffer)[N]) {
    std::memset(buffer, 0, N);
    return config_get(kSasConfigPath, name, buffer, N);
}

// A flag option is set when its text converts to the integer 1.
template <size_t N>
bool flag_is_set(UciName name, const char* failure_message) {
    char value[N];
    if (!read_sas_option(name, value) && failure_message) {
        base::notice("%s", failure_message);
    }
    return std::atoi(value) == 1;
}

void read_into_caller_buffer(UciName name, char* buffer, size_t size) {
    if (!buffer || size == 0) return;
    std::memset(buffer, 0, size);
    config_get(kSasConfigPath, name, buffer, size - 1);
    buffer[size - 1] = '\0';
}

// Both threads write; the latch makes a failing store one line when the
// failures start and one when they end, not one per write.
std::atomic<bool> g_storeFailing{false};

void note_write(bool landed, UciName name) {
    if (!landed && !g_storeFailing.exchange(true)) {
        base::report_failure(base::Failure::kStoreWrite, true);
        base::error("[SAS] /etc/config/sas cannot be written (%s.%s), the decision stays in memory.\n",
                    name.section, name.option);
    }
    if (landed && g_storeFailing.exchange(false)) {
        base::report_failure(base::Failure::kStoreWrite, false);
        base::notice("[SAS] /etc/config/sas can be written again.\n");
    }
}

// True when the file can be read and the option reads as value (an absent
// option reads as "").
bool holds(UciName name, const char* value) {
    char stored[256] = {};
    return config_get(kSasConfigPath, name, stored, sizeof stored - 1) != 0 &&
           std::strncmp(stored, value, sizeof stored - 1) == 0;
}

}  // namespace

// The store reports no failed commit, so the value is read back: only what
// the file now holds counts as written.
unsigned write_sas_option(UciName name, const char* value) {
    if (!value) return 0;
    bool held_before = holds(name, value);
    config_set(kSasConfigPath, name, value);
    bool landed = holds(name, value);
    // A value the file held already reads back the same whether or not the
    // commit happened: it proves nothing about the store either way.
    if (!landed || !held_before) note_write(landed, name);
    return landed ? 1 : 0;
}

bool store_failing() { return g_storeFailing.load(); }

// An empty file is what a commit cut short by a full store used to leave
// behind; it parses, but it is no configuration.
bool sas_config_readable() {
    struct stat info{};
    if (stat(kSasConfigPath, &info) != 0 || info.st_size == 0) return false;
    char value[8];
    return read_sas_option(schema::kEnableMode, value) != 0;
}

bool is_sas_enabled() {
    return flag_is_set<128>(schema::kEnableMode, "[SAS] enableMode no value");
}

bool is_dp_enabled() {
    return flag_is_set<128>(schema::kUsedp, "[SAS] usedp no value");
}

bool is_single_step_registration() {
    return flag_is_set<8>(schema::kSasStepChoice, nullptr);
}

bool is_radio_enabled() {
    return flag_is_set<256>(schema::kSasRadioEnable, "[SAS] RadioEnable no value");
}

// Operators' hardening options: absent is the usual case, so no message.
bool is_sas_host_verified() {
    return flag_is_set<8>(schema::kVerifySasHost, nullptr);
}

bool is_sas_ca_required() {
    return flag_is_set<8>(schema::kRequireSasCa, nullptr);
}

unsigned set_radio_enable(const char* value) {
    return write_sas_option(schema::kSasRadioEnable, value);
}

int get_antenna_gain() {
    char value[128];
    if (!read_sas_option(schema::kAntennaGain, value)) {
        base::notice("[SAS] antennaGain No value.\n");
        return -1;
    }
    return std::atoi(value);
}

int get_power_spectral_density() {
    char value[128];
    if (!read_sas_option(schema::kSasPowerSpectralDensity, value)) {
        base::notice("[SAS] powerSpectralDensity No value.\n");
    }
    return std::atoi(value);
}

void get_status(char* buffer, size_t size) {
    read_into_caller_buffer(schema::kOpStatus, buffer, size);
}

// The state the daemon means is reported even when the store refuses it: the
// worker then keeps it in memory and acts on it.
unsigned set_status(const char* value) {
    base::report_state(value);
    return write_sas_option(schema::kOpStatus, value);
}

void get_server_address(char* buffer, size_t size) {
    read_into_caller_buffer(schema::kAddress, buffer, size);
}

void set_cell_range(const char* low_frequency, const char* high_frequency, const char* bandwidth) {
    config_set(kSasConfigPath, schema::kCellLowFrequency, low_frequency);
    config_set(kSasConfigPath, schema::kCellHighFrequency, high_frequency);
    config_set(kSasConfigPath, schema::kCellBandwidth, bandwidth);
    base::notice("[SAS] lowFreq = %s\n", low_frequency);
    base::notice("[SAS] higFreq = %s\n", high_frequency);
    base::notice("[SAS] bandWidth = %s\n", bandwidth);
}

}  // namespace cbsd::config
