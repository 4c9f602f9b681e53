// The supervision snapshot: every setting and modem reading whose change makes
// the supervision loop react, in one flat record that is compared byte for
// byte with the previous pass's record.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace cbsd::daemon {

// Text fields are zero-terminated and zero-padded to their width.  The field
// order and widths are fixed: the loop compares records with memcmp and treats
// everything from regMethod to the end as one "configuration block".
struct SupervisionSnapshot {
    uint8_t sasEnable;        // config.enableMode is 1
    uint8_t dpEnable;         // config.usedp is 1
    uint8_t radioEnable;      // sasConfig.RadioEnable is 1
    uint8_t lteConnected;     // modem attached
    int32_t powerSptDensity;  // sasConfig.powerSpectralDensity (0 when empty)
    char regMethod[4];        // config.sasStepChoice
    char sasServerURL[128];   // config.address
    char userId[128];         // config.userId
    char callSign[128];       // config.callSign
    char longitude[32];       // cpi.longitude
    char latitude[32];        // cpi.latitude
    char indoorDeployment[4]; // cpi.indoorDeployment
    char height[8];           // cpi.height, as entered
    char heightUnit[4];       // cpi.heightUnit
    char cpiId[128];          // cpi.cpiId
    char cpiName[128];        // cpi.cpiName
    char cpiInstallTime[64];  // cpi.installCertificationTime
    char antennaAzimuth[8];   // config.antennaAzimuth
    char antennaDowntilt[8];  // config.antennaDowntilt
    char antennaBeamwidth[8]; // config.antennaBeamwidth
    char frequency[32];       // downlink frequency, tenths of a MHz, "%d"
    char bandwidth[8];        // bandwidth in MHz, "%d" (-1 when the query failed)
};

// A bytewise comparison is only meaningful without padding bytes.
static_assert(std::is_trivially_copyable_v<SupervisionSnapshot>);
static_assert(offsetof(SupervisionSnapshot, regMethod) == 8);
static_assert(sizeof(SupervisionSnapshot) == 860);

// Where the configuration block starts and how long it is.
inline constexpr size_t kConfigurationBlockOffset = offsetof(SupervisionSnapshot, regMethod);
inline constexpr size_t kConfigurationBlockSize =
    sizeof(SupervisionSnapshot) - kConfigurationBlockOffset;

// Fills a record that the caller has cleared to zero (an absent option leaves
// its field untouched); nothing happens for a null record.
void load_snapshot(SupervisionSnapshot* record);

bool snapshots_equal(const SupervisionSnapshot& a, const SupervisionSnapshot& b);
bool configuration_block_equal(const SupervisionSnapshot& a, const SupervisionSnapshot& b);
void copy_configuration_block(SupervisionSnapshot& destination, const SupervisionSnapshot& source);

}  // namespace cbsd::daemon
