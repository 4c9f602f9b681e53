// The transmit power the radio would get: the SAS's power spectral density,
// the channel bandwidth's factor and the antenna gain.
#pragma once

#include <cstdint>

namespace cbsd::gating {

// powerSpectralDensity + the bandwidth factor - antennaGain, read now from the
// store and the modem.
int32_t compute_transmit_power();
// The point where a radio driver would take the new power.
void apply_transmit_power(bool enable, int32_t power);

}  // namespace cbsd::gating
