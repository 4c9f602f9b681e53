#include "daemon/snapshot.h"

#include "config/accessors.h"
#include "config/uci_store.h"
#include "modem/lte_info.h"
#include "modem/modem.h"

#include <cstdio>
#include <cstring>

namespace cbsd::daemon {

namespace {

const unsigned char* bytes(const SupervisionSnapshot& s) {
    return reinterpret_cast<const unsigned char*>(&s);
}

// One option of /etc/config/sas read with `read_size`, which keeps at most
// read_size - 1 characters: each text field therefore holds two characters
// less than its width.
template <size_t Width>
void read_text(char (&field)[Width], config::UciName name) {
    static_assert(Width >= 2);
    config::config_get(config::kSasConfigPath, name, field, Width - 1);
}

}  // namespace

void load_snapshot(SupervisionSnapshot* record) {
    if (!record) return;
    SupervisionSnapshot& s = *record;

    s.sasEnable = config::is_sas_enabled() ? 1 : 0;
    s.dpEnable = config::is_dp_enabled() ? 1 : 0;
    s.radioEnable = config::is_radio_enabled() ? 1 : 0;
    s.lteConnected = modem::is_lte_connected() ? 1 : 0;
    s.powerSptDensity = config::get_power_spectral_density();

    read_text(s.regMethod, config::schema::kSasStepChoice);
    read_text(s.sasServerURL, config::schema::kAddress);
    read_text(s.userId, config::schema::kUserId);
    read_text(s.callSign, config::schema::kCallSign);
    read_text(s.longitude, config::schema::kCpiLongitude);
    read_text(s.latitude, config::schema::kCpiLatitude);
    read_text(s.indoorDeployment, config::schema::kCpiIndoorDeployment);
    read_text(s.height, config::schema::kCpiHeight);
    read_text(s.heightUnit, config::schema::kCpiHeightUnit);
    read_text(s.cpiId, config::schema::kCpiId);
    read_text(s.cpiName, config::schema::kCpiName);
    read_text(s.cpiInstallTime, config::schema::kCpiInstallCertificationTime);
    read_text(s.antennaAzimuth, config::schema::kAntennaAzimuth);
    read_text(s.antennaDowntilt, config::schema::kAntennaDowntilt);
    read_text(s.antennaBeamwidth, config::schema::kAntennaBeamwidth);

    std::snprintf(s.frequency, sizeof s.frequency, "%d", modem::get_dl_frequency());
    std::snprintf(s.bandwidth, sizeof s.bandwidth, "%d", modem::get_bandwidth());
    // A refused query says nothing about the cell: both stay empty, and the
    // pass keeps the cell it knew (refresh_cell_frequency).
    if (modem::lte_info_refused()) {
        std::memset(s.frequency, 0, sizeof s.frequency);
        std::memset(s.bandwidth, 0, sizeof s.bandwidth);
    }
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

}  // namespace cbsd::daemon
