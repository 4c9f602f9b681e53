// Loads the device description and the credential paths from /etc/config/sas.
// Values stay the text found in the configuration; only the antenna height is
// converted (feet to metres) because the SAS expects metres.
#include "config/device_record.h"

#include "config/uci_store.h"
#include "base/log.h"
#include "base/text.h"

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
unsigned read_field(UciName name, char (&field)[N]) {
    return config_get(kSasConfigPath, name, field, N - 1);
}

// A height entered in feet (unit "1") becomes metres with two decimals; the
// field's width cuts very large values (32809 ft gives "10000.1").
void load_height(DeviceRecord* record) {
    read_field(schema::kCpiHeight, record->height);
    char height[8];
    char unit[4];
    std::memset(height, 0, sizeof height);
    std::memset(unit, 0, sizeof unit);
    read_field(schema::kCpiHeight, height);
    read_field(schema::kCpiHeightUnit, unit);
    if (std::strcmp(unit, "1") == 0) {
        double metres = std::atof(height) * 0.3048;
        std::snprintf(record->height, sizeof record->height, "%.2f", metres);
    } else {
        base::copy_text(record->height, sizeof record->height, height);
    }
}

void load_cert_path(UciName option, const char* directory, char* path, size_t pathSize) {
    char name[128];
    std::memset(name, 0, sizeof name);
    if (!config_get(kSasConfigPath, option, name, sizeof name - 1))
        base::notice("[SAS] %s No value.\n", option.option);
    if (name[0] == '\0') return;
    char joined[512];
    std::snprintf(joined, sizeof joined, "%s/%s", directory, name);
    base::copy_text(path, pathSize, joined);
}

void get_cert_option(UciName option, char* buffer, int size) {
    if (!buffer || size <= 0) return;
    char value[256];
    std::memset(value, 0, sizeof value);
    if (config_get(kSasConfigPath, option, value, sizeof value - 1)) {
        std::strncpy(buffer, value, static_cast<size_t>(size));
        buffer[size - 1] = '\0';
    } else {
        buffer[0] = '\0';
        base::notice("[SAS] %s No value.\n", option.option);
    }
}

}  // namespace

unsigned load_device_record(DeviceRecord* record) {
    read_field(schema::kUserId, record->userId);
    read_field(schema::kFccId, record->fccId);
    read_field(schema::kSerialNumber, record->serialNumber);
    read_field(schema::kCallSign, record->callSign);
    read_field(schema::kCbsdCategory, record->cbsdCategory);
    load_height(record);
    read_field(schema::kCpiHeightType, record->heightType);
    read_field(schema::kCpiLatitude, record->latitude);
    read_field(schema::kCpiLongitude, record->longitude);
    read_field(schema::kCpiIndoorDeployment, record->indoorDeployment);
    read_field(schema::kAntennaGain, record->antennaGain);
    read_field(schema::kAntennaModel, record->antennaModel);
    read_field(schema::kRadioTechnology, record->radioTechnology);
    read_field(schema::kCpiGroupId, record->groupId);
    read_field(schema::kCpiGroupType, record->groupType);
    read_field(schema::kCpiInstallCertificationTime, record->installCertificationTime);
    read_field(schema::kCpiId, record->cpiId);
    read_field(schema::kCpiName, record->cpiName);
    read_field(schema::kCellLowFrequency, record->lowFrequency);
    read_field(schema::kCellHighFrequency, record->highFrequency);
    read_field(schema::kSasMaxEirp, record->maxEirp);
    read_field(schema::kOpMeasCapability, record->measCapability);
    read_field(schema::kAntennaBeamwidth, record->antennaBeamwidth);
    read_field(schema::kAntennaDowntilt, record->antennaDowntilt);
    return read_field(schema::kAntennaAzimuth, record->antennaAzimuth);
}

void load_cert_paths(CertificatePaths* paths) {
    if (!paths) return;
    load_cert_path(schema::kCertClientCertFileName, kClientCertDir, paths->clientCert,
                   sizeof paths->clientCert);
    load_cert_path(schema::kCertClientKeyFileName, kClientKeyDir, paths->clientKey, sizeof paths->clientKey);
    load_cert_path(schema::kCertServerCAFileName, kServerCADir, paths->serverCA, sizeof paths->serverCA);
    char crl[512];
    std::snprintf(crl, sizeof crl, "%s/%s", kServerCADir, kCrlFileName);
    base::copy_text(paths->crlFile, sizeof paths->crlFile, crl);
}

void get_cpi_key_file(char* buffer, int size) {
    get_cert_option(schema::kCertCpiKeyFileName, buffer, size);
}

void get_cpi_key_password(char* buffer, int size) {
    get_cert_option(schema::kCertCpiKeyFilePassword, buffer, size);
}

}  // namespace cbsd::config
