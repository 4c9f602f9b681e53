#include "config/config_dump.h"

#include "config/uci_store.h"

#include <cstdio>
#include <cstring>

namespace cbsd::config {

namespace {

struct DumpRow {
    const char* label;
    const char* path;
    UciName name;
};

// The order is the technician's reading order and is kept stable for scripts
// that parse the dump.  The CPI key password is shown in clear on purpose;
// the bridge-forward flag of the runtime cache is not shown.
constexpr DumpRow kRows[] = {
    {"enableMode", kSasConfigPath, schema::kEnableMode},
    {"usedp", kSasConfigPath, schema::kUsedp},
    {"address", kSasConfigPath, schema::kAddress},
    {"sasStepChoice", kSasConfigPath, schema::kSasStepChoice},
    {"userId", kSasConfigPath, schema::kUserId},
    {"fccId", kSasConfigPath, schema::kFccId},
    {"serialNumber", kSasConfigPath, schema::kSerialNumber},
    {"callSign", kSasConfigPath, schema::kCallSign},
    {"cbsdCategory", kSasConfigPath, schema::kCbsdCategory},
    {"radioTechnology", kSasConfigPath, schema::kRadioTechnology},
    {"longitude", kSasConfigPath, schema::kCpiLongitude},
    {"latitude", kSasConfigPath, schema::kCpiLatitude},
    {"height", kSasConfigPath, schema::kCpiHeight},
    {"heightType", kSasConfigPath, schema::kCpiHeightType},
    {"indoorDeployment", kSasConfigPath, schema::kCpiIndoorDeployment},
    {"antennaGain", kSasConfigPath, schema::kAntennaGain},
    {"antennaModel", kSasConfigPath, schema::kAntennaModel},
    {"antennaBeamwidth", kSasConfigPath, schema::kAntennaBeamwidth},
    {"antennaDowntilt", kSasConfigPath, schema::kAntennaDowntilt},
    {"antennaAzimuth", kSasConfigPath, schema::kAntennaAzimuth},
    {"cpiId", kSasConfigPath, schema::kCpiId},
    {"cpiName", kSasConfigPath, schema::kCpiName},
    {"cpiInstallTime", kSasConfigPath, schema::kCpiInstallCertificationTime},
    {"measCapability", kSasConfigPath, schema::kOpMeasCapability},
    {"groupType", kSasConfigPath, schema::kCpiGroupType},
    {"groupId", kSasConfigPath, schema::kCpiGroupId},
    {"bandwidth", kSasConfigPath, schema::kCellBandwidth},
    {"cellLowFrequency", kSasConfigPath, schema::kCellLowFrequency},
    {"cellHighFrequency", kSasConfigPath, schema::kCellHighFrequency},
    {"RadioEnable", kSasConfigPath, schema::kSasRadioEnable},
    {"maxEirp", kSasConfigPath, schema::kSasMaxEirp},
    {"lowFrequency", kSasConfigPath, schema::kSasLowFrequency},
    {"highFrequency", kSasConfigPath, schema::kSasHighFrequency},
    {"powerSpectralDensity", kSasConfigPath, schema::kSasPowerSpectralDensity},
    {"status", kSasConfigPath, schema::kOpStatus},
    {"trigger", kRuntimeCachePath, schema::kCacheOperationTrigger},
    {"GrantRenew", kSasConfigPath, schema::kOpGrantRenew},
    {"clientCertFileName", kSasConfigPath, schema::kCertClientCertFileName},
    {"clientKeyFileName", kSasConfigPath, schema::kCertClientKeyFileName},
    {"serverCAFileName", kSasConfigPath, schema::kCertServerCAFileName},
    {"cpiKeyFileName", kSasConfigPath, schema::kCertCpiKeyFileName},
    {"cpiKeyFilePassword", kSasConfigPath, schema::kCertCpiKeyFilePassword},
    {"ipforward", kRuntimeCachePath, schema::kCacheIpForward},
    {"firewallICMP", kRuntimeCachePath, schema::kCacheFirewallIcmp},
};

}  // namespace

void print_config() {
    std::puts("current cbsd configuration:");
    char value[128];
    for (const DumpRow& row : kRows) {
        std::memset(value, 0, sizeof value);
        config_get(row.path, row.name, value, sizeof value - 1);
        std::printf("%s=%s\n", row.label, value);
    }
    std::puts("");
}

}  // namespace cbsd::config
