// The store of an authorized device: antenna gain 6, radio on with a power
// spectral density of 20, status Authorized.
#pragma once

namespace cbsd::test {

inline constexpr const char* kAuthorizedSasConfig =
    "config sas 'config'\n"
    "\toption antennaGain '6'\n"
    "\n"
    "config sas 'sasConfig'\n"
    "\toption RadioEnable '1'\n"
    "\toption powerSpectralDensity '20'\n"
    "\n"
    "config sas 'operation'\n"
    "\toption status 'Authorized'\n";

}  // namespace cbsd::test
