#include "gating/authorization.h"

#include "config/accessors.h"
#include "config/uci_store.h"
#include "core/cbsd_state.h"
#include "core/log.h"
#include "gating/gates.h"
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

// The state published after a reset: the first row below Registered.
const char* reset_state_name() {
    for (const core::CbsdState* row = core::CbsdStateTable; row->id != 0; ++row)
        if (row->id < core::kRegistered) return core::cbsd_state_name(row->id);
    return "";
}

void open_all_gates() {
    set_ip_forward(true);
    set_firewall_icmp(true);
    set_bridge_forward(true);
}

}  // namespace

void authorize_device(uint8_t announce) {
    // The power goes nowhere in this product; computing it keeps the modem
    // and configuration reads of a real radio driver in place.
    compute_transmit_power();
    open_all_gates();
    if (announce) core::log(5, 1, "[SAS] device has been authorized.\n\n");
}

void unauthorize_device(uint8_t announce) {
    set_ip_forward(false);
    set_firewall_icmp(false);
    set_bridge_forward(false);
    if (announce) core::log(5, 1, "[SAS] device has been unauthorized.\n\n");
}

void recover_network() {
    open_all_gates();
    core::log(5, 1, "[SAS] device network has been recovered.\n\n");
}

void clear_cbsd_state() {
    core::log(5, 0, "[SAS] clear cbsd state.\n");
    const char* status = reset_state_name();
    config::set_radio_enable("0");
    config::set_status(status);
    config::config_set(config::kSasConfigPath, "sasConfig", "powerSpectralDensity", "");
    core::log(5, 0, "[SAS] set RadioEnable=0\n");
    core::log(5, 0, "[SAS] set status=%s\n", status);
    core::log(5, 0, "[SAS] set powerSpectralDensity=\"\"\n");
}

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
