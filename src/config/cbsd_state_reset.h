// The reset of the CBSD state that the store publishes: radio off, the state
// below Registered, no power spectral density.
#pragma once

namespace cbsd::config {

// Writes RadioEnable "0", the reset state's name as operation.status and an
// empty powerSpectralDensity, and logs each.
void clear_cbsd_state();

}  // namespace cbsd::config
