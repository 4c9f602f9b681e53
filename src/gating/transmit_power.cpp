#include "gating/transmit_power.h"

#include "config/accessors.h"
#include "modem/modem.h"

namespace cbsd::gating {

namespace {

// Whole-dB stand-in for ten times the decimal logarithm of the channel
// bandwidth; 15 MHz maps to 11 on purpose, as the radio's power tables do.
int32_t bandwidth_factor(int bandwidth_mhz) {
    switch (bandwidth_mhz) {
        case 20: return 13;
        case 15: return 11;
        case 10: return 10;
        case 5: return 7;
        default: return 0;  // unknown widths and a failed query
    }
}

}  // namespace

int32_t compute_transmit_power() {
    int32_t factor = bandwidth_factor(modem::get_bandwidth());
    // Both accessors log their own "No value" line when the store is
    // unreadable; the gain then counts as -1 and the density as 0.
    int32_t antenna_gain = config::get_antenna_gain();
    int32_t density = config::get_power_spectral_density();
    return density + factor - antenna_gain;
}

void apply_transmit_power(bool enable, int32_t power) {
    // The point where a radio driver would take the new power; this product
    // has none.
    (void)enable;
    (void)power;
}

}  // namespace cbsd::gating
