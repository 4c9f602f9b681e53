// The device description sent to the SAS, and the credential file paths.
#pragma once

#include "config/certificate_paths.h"

#include <cstddef>

namespace cbsd::config {

struct DeviceRecord {
    char userId[128];
    char fccId[128];
    char serialNumber[128];
    char callSign[128];
    char cbsdCategory[4];
    char radioTechnology[64];
    char height[8];  // metres
    char heightType[8];
    char longitude[32];
    char latitude[32];
    char indoorDeployment[8];
    char antennaGain[8];
    char antennaModel[32];
    char measCapability[64];
    char groupId[128];
    char groupType[64];
    char installCertificationTime[64];
    char cpiId[128];
    char cpiName[128];
    char lowFrequency[32];
    char highFrequency[32];
    char maxEirp[8];
    char antennaAzimuth[8];
    char antennaDowntilt[8];
    char antennaBeamwidth[8];
};

// Fills a cleared record; returns the flag of its last config_get.
unsigned load_device_record(DeviceRecord* record);
void load_cert_paths(CertificatePaths* paths);
void get_cpi_key_file(char* buffer, int size);
void get_cpi_key_password(char* buffer, int size);

}  // namespace cbsd::config
