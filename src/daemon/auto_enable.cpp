#include "daemon/auto_enable.h"

#include "base/log.h"
#include "config/accessors.h"
#include "config/uci_store.h"
#include "modem/modem.h"

#include <cstdio>
#include <cstring>

namespace cbsd::daemon {

namespace {

constexpr int kBandQueryFailed = -1;

AutoEnableState process_auto_state;

}  // namespace

void auto_enable(AutoEnableState& state) {
    char value[8] = {};
    if (!config::config_get(config::kSasConfigPath, config::schema::kAuto, value, sizeof value - 1))
        base::notice("[SAS] SAS_AUTO no value");

    if (std::strcmp(value, "1") != 0) {
        if (state.lastAuto != AutoSwitch::kOff) {
            base::notice_to_syslog("[SAS] auto SAS is Off.\n");
            state.lastAuto = AutoSwitch::kOff;
        }
        return;
    }
    if (state.lastAuto != AutoSwitch::kOn) {
        base::notice_to_syslog("[SAS] auto SAS is On.\n");
        state.lastAuto = AutoSwitch::kOn;
    }

    int queried = modem::get_band();
    // A failed query says nothing about the band: enableMode keeps what the
    // last answer decided, so a modem hiccup never switches SAS off, and the
    // same band told again afterwards is no news.
    if (queried == kBandQueryFailed) {
        if (!state.bandUnknown) {
            base::notice("[SAS] LTE band unknown, SAS stays as it was.\n");
            state.bandUnknown = true;
        }
        return;
    }
    state.bandUnknown = false;
    char band[8] = {};
    std::snprintf(band, sizeof band, "%d", queried);
    // enableMode is written on every pass while auto is on, not only on a change.
    if (std::strcmp(band, "48") == 0) {
        if (state.lastBand != BandSeen::kInBand48) {
            base::notice_to_syslog("[SAS] LTE is in Band 48, so turn on SAS automatically.\n");
            state.lastBand = BandSeen::kInBand48;
        }
        config::write_sas_option(config::schema::kEnableMode, "1");
    } else {
        if (state.lastBand != BandSeen::kNotInBand48) {
            base::notice_to_syslog("[SAS] LTE is not in Band 48, so turn off SAS automatically.\n");
            state.lastBand = BandSeen::kNotInBand48;
        }
        config::write_sas_option(config::schema::kEnableMode, "0");
    }
}

void auto_enable() {
    auto_enable(process_auto_state);
}

}  // namespace cbsd::daemon
