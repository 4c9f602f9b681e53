#include "config/config_dump.h"

#include "config/uci_store.h"

#include <cstdio>
#include <cstring>

namespace cbsd::config {

namespace {

struct DumpRow {
    const char* label;
    const char* path;
    const char* section;
    const char* option;
};

// The order is the technician's reading order and is kept stable for scripts
// that parse the dump.  The CPI key password is shown in clear on purpose;
// the bridge-forward flag of the runtime cache is not shown.
constexpr DumpRow kRows[] = {
    {"enableMode", kSasConfigPath, "config", "enableMode"},
    {"usedp", kSasConfigPath, "config", "usedp"},
    {"address", kSasConfigPath, "config", "address"},
    {"sasStepChoice", kSasConfigPath, "config", "sasStepChoice"},
    {"userId", kSasConfigPath, "config", "userId"},
    {"fccId", kSasConfigPath, "config", "fccId"},
    {"serialNumber", kSasConfigPath, "config", "serialNumber"},
    {"callSign", kSasConfigPath, "config", "callSign"},
    {"cbsdCategory", kSasConfigPath, "config", "cbsdCategory"},
    {"radioTechnology", kSasConfigPath, "config", "radioTechnology"},
    {"longitude", kSasConfigPath, "cpi", "longitude"},
    {"latitude", kSasConfigPath, "cpi", "latitude"},
    {"height", kSasConfigPath, "cpi", "height"},
    {"heightType", kSasConfigPath, "cpi", "heightType"},
    {"indoorDeployment", kSasConfigPath, "cpi", "indoorDeployment"},
    {"antennaGain", kSasConfigPath, "config", "antennaGain"},
    {"antennaModel", kSasConfigPath, "config", "antennaModel"},
    {"antennaBeamwidth", kSasConfigPath, "config", "antennaBeamwidth"},
    {"antennaDowntilt", kSasConfigPath, "config", "antennaDowntilt"},
    {"antennaAzimuth", kSasConfigPath, "config", "antennaAzimuth"},
    {"cpiId", kSasConfigPath, "cpi", "cpiId"},
    {"cpiName", kSasConfigPath, "cpi", "cpiName"},
    {"cpiInstallTime", kSasConfigPath, "cpi", "installCertificationTime"},
    {"measCapability", kSasConfigPath, "operation", "measCapability"},
    {"groupType", kSasConfigPath, "cpi", "groupType"},
    {"groupId", kSasConfigPath, "cpi", "groupId"},
    {"bandwidth", kSasConfigPath, "cellInfo", "bandwidth"},
    {"cellLowFrequency", kSasConfigPath, "cellInfo", "lowFrequency"},
    {"cellHighFrequency", kSasConfigPath, "cellInfo", "highFrequency"},
    {"RadioEnable", kSasConfigPath, "sasConfig", "RadioEnable"},
    {"maxEirp", kSasConfigPath, "sasConfig", "maxEirp"},
    {"lowFrequency", kSasConfigPath, "sasConfig", "lowFrequency"},
    {"highFrequency", kSasConfigPath, "sasConfig", "highFrequency"},
    {"powerSpectralDensity", kSasConfigPath, "sasConfig", "powerSpectralDensity"},
    {"status", kSasConfigPath, "operation", "status"},
    {"trigger", kRuntimeCachePath, "cache", "SAS_OPERATION_TRIGGER"},
    {"GrantRenew", kSasConfigPath, "operation", "GrantRenew"},
    {"clientCertFileName", kSasConfigPath, "cert", "clientCertFileName"},
    {"clientKeyFileName", kSasConfigPath, "cert", "clientKeyFileName"},
    {"serverCAFileName", kSasConfigPath, "cert", "serverCAFileName"},
    {"cpiKeyFileName", kSasConfigPath, "cert", "cpiKeyFileName"},
    {"cpiKeyFilePassword", kSasConfigPath, "cert", "cpiKeyFilePassword"},
    {"ipforward", kRuntimeCachePath, "cache", "SAS_IP_FORWARD"},
    {"firewallICMP", kRuntimeCachePath, "cache", "SAS_FIREWALL_ICMP"},
};

}  // namespace

void print_config() {
    std::puts("current cbsd configuration:");
    char value[128];
    for (const DumpRow& row : kRows) {
        std::memset(value, 0, sizeof value);
        config_get(row.path, row.section, row.option, value, sizeof value - 1);
        std::printf("%s=%s\n", row.label, value);
    }
    std::puts("");
}

}  // namespace cbsd::config
