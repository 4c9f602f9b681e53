#include "config/snapshot.h"

#include "config/accessors.h"
#include "config/uci_store.h"
#include "modem/modem.h"

#include <cstdio>
#include <cstring>

namespace cbsd::config {

namespace {

const unsigned char* bytes(const SupervisionSnapshot& s) {
    return reinterpret_cast<const unsigned char*>(&s);
}

// One option of /etc/config/sas read with `read_size`, which keeps at most
// read_size - 1 characters: each text field therefore holds two characters
// less than its width.
template <size_t Width>
void read_text(char (&field)[Width], const char* section, const char* option) {
    static_assert(Width >= 2);
    config_get(kSasConfigPath, section, option, field, Width - 1);
}

}  // namespace

void load_snapshot(SupervisionSnapshot* record) {
    if (!record) return;
    SupervisionSnapshot& s = *record;

    s.sasEnable = is_sas_enabled() ? 1 : 0;
    s.dpEnable = is_dp_enabled() ? 1 : 0;
    s.radioEnable = is_radio_enabled() ? 1 : 0;
    s.lteConnected = modem::is_lte_connected() ? 1 : 0;
    s.powerSptDensity = get_power_spectral_density();

    read_text(s.regMethod, "config", "sasStepChoice");
    read_text(s.sasServerURL, "config", "address");
    read_text(s.userId, "config", "userId");
    read_text(s.callSign, "config", "callSign");
    read_text(s.longitude, "cpi", "longitude");
    read_text(s.latitude, "cpi", "latitude");
    read_text(s.indoorDeployment, "cpi", "indoorDeployment");
    read_text(s.height, "cpi", "height");
    read_text(s.heightUnit, "cpi", "heightUnit");
    read_text(s.cpiId, "cpi", "cpiId");
    read_text(s.cpiName, "cpi", "cpiName");
    read_text(s.cpiInstallTime, "cpi", "installCertificationTime");
    read_text(s.antennaAzimuth, "config", "antennaAzimuth");
    read_text(s.antennaDowntilt, "config", "antennaDowntilt");
    read_text(s.antennaBeamwidth, "config", "antennaBeamwidth");

    std::snprintf(s.frequency, sizeof s.frequency, "%d", modem::get_dl_frequency());
    std::snprintf(s.bandwidth, sizeof s.bandwidth, "%d", modem::get_bandwidth());
}

bool snapshots_equal(const SupervisionSnapshot& a, const SupervisionSnapshot& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
}

bool configuration_block_equal(const SupervisionSnapshot& a, const SupervisionSnapshot& b) {
    return std::memcmp(bytes(a) + kConfigurationBlockOffset, bytes(b) + kConfigurationBlockOffset,
                       kConfigurationBlockSize) == 0;
}

void copy_configuration_block(SupervisionSnapshot& destination, const SupervisionSnapshot& source) {
    std::memcpy(reinterpret_cast<unsigned char*>(&destination) + kConfigurationBlockOffset,
                bytes(source) + kConfigurationBlockOffset, kConfigurationBlockSize);
}

}  // namespace cbsd::config
