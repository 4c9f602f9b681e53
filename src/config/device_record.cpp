// Loads the device description and the credential paths from /etc/config/sas.
// Values stay the text found in the configuration; only the antenna height is
// converted (feet to metres) because the SAS expects metres.
#include "config/device_record.h"

#include "config/uci_store.h"
#include "core/log.h"
#include "core/text.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace cbsd::config {

namespace {

constexpr const char* kClientCertDir = "/root/sas/cert/clientCert";
constexpr const char* kClientKeyDir = "/root/sas/cert/clientKey";
constexpr const char* kServerCADir = "/root/sas/cert/serverCA";
constexpr const char* kCrlFileName = "server_crl.crl";

// Each field is read with its width less one as the size, so config_get keeps
// at most width - 2 characters of the option.
template <size_t N>
unsigned read_field(const char* section, const char* option, char (&field)[N]) {
    return config_get(kSasConfigPath, section, option, field, N - 1);
}

// A height entered in feet (unit "1") becomes metres with two decimals; the
// field's width cuts very large values (32809 ft gives "10000.1").
void load_height(DeviceRecord* record) {
    read_field("cpi", "height", record->height);
    char height[8];
    char unit[4];
    std::memset(height, 0, sizeof height);
    std::memset(unit, 0, sizeof unit);
    read_field("cpi", "height", height);
    read_field("cpi", "heightUnit", unit);
    if (std::strcmp(unit, "1") == 0) {
        double metres = std::atof(height) * 0.3048;
        std::snprintf(record->height, sizeof record->height, "%.2f", metres);
    } else {
        core::copy_text(record->height, sizeof record->height, height);
    }
}

void load_cert_path(const char* option, const char* directory, char* path, size_t pathSize) {
    char name[128];
    std::memset(name, 0, sizeof name);
    if (!config_get(kSasConfigPath, "cert", option, name, sizeof name - 1))
        core::log(5, 0, "[SAS] %s No value.\n", option);
    if (name[0] == '\0') return;
    char joined[512];
    std::snprintf(joined, sizeof joined, "%s/%s", directory, name);
    core::copy_text(path, pathSize, joined);
}

void get_cert_option(const char* option, char* buffer, int size) {
    if (!buffer || size <= 0) return;
    char value[256];
    std::memset(value, 0, sizeof value);
    if (config_get(kSasConfigPath, "cert", option, value, sizeof value - 1)) {
        std::strncpy(buffer, value, static_cast<size_t>(size));
        buffer[size - 1] = '\0';
    } else {
        buffer[0] = '\0';
        core::log(5, 0, "[SAS] %s No value.\n", option);
    }
}

}  // namespace

unsigned load_device_record(DeviceRecord* record) {
    read_field("config", "userId", record->userId);
    read_field("config", "fccId", record->fccId);
    read_field("config", "serialNumber", record->serialNumber);
    read_field("config", "callSign", record->callSign);
    read_field("config", "cbsdCategory", record->cbsdCategory);
    load_height(record);
    read_field("cpi", "heightType", record->heightType);
    read_field("cpi", "latitude", record->latitude);
    read_field("cpi", "longitude", record->longitude);
    read_field("cpi", "indoorDeployment", record->indoorDeployment);
    read_field("config", "antennaGain", record->antennaGain);
    read_field("config", "antennaModel", record->antennaModel);
    read_field("config", "radioTechnology", record->radioTechnology);
    read_field("cpi", "groupId", record->groupId);
    read_field("cpi", "groupType", record->groupType);
    read_field("cpi", "installCertificationTime", record->installCertificationTime);
    read_field("cpi", "cpiId", record->cpiId);
    read_field("cpi", "cpiName", record->cpiName);
    read_field("cellInfo", "lowFrequency", record->lowFrequency);
    read_field("cellInfo", "highFrequency", record->highFrequency);
    read_field("sasConfig", "maxEirp", record->maxEirp);
    read_field("operation", "measCapability", record->measCapability);
    read_field("config", "antennaBeamwidth", record->antennaBeamwidth);
    read_field("config", "antennaDowntilt", record->antennaDowntilt);
    return read_field("config", "antennaAzimuth", record->antennaAzimuth);
}

void load_cert_paths(sas::CertificatePaths* paths) {
    if (!paths) return;
    load_cert_path("clientCertFileName", kClientCertDir, paths->clientCert,
                   sizeof paths->clientCert);
    load_cert_path("clientKeyFileName", kClientKeyDir, paths->clientKey, sizeof paths->clientKey);
    load_cert_path("serverCAFileName", kServerCADir, paths->serverCA, sizeof paths->serverCA);
    char crl[512];
    std::snprintf(crl, sizeof crl, "%s/%s", kServerCADir, kCrlFileName);
    core::copy_text(paths->crlFile, sizeof paths->crlFile, crl);
}

void get_cpi_key_file(char* buffer, int size) {
    get_cert_option("cpiKeyFileName", buffer, size);
}

void get_cpi_key_password(char* buffer, int size) {
    get_cert_option("cpiKeyFilePassword", buffer, size);
}

}  // namespace cbsd::config
