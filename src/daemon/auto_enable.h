// The automatic enablement on LTE Band 48: while config.auto is "1", each
// supervision pass sets enableMode from the band the modem tells.
#pragma once

#include <cstdint>

namespace cbsd::daemon {

// What the enablement keeps between passes.  Each starts as kNone, which is
// neither value, so the first pass always logs.
enum class AutoSwitch : uint8_t { kNone, kOn, kOff };
enum class BandSeen : uint8_t { kNone, kInBand48, kNotInBand48 };  // the last band the modem told

struct AutoEnableState {
    AutoSwitch lastAuto = AutoSwitch::kNone;
    BandSeen lastBand = BandSeen::kNone;
    bool bandUnknown = false;  // while band queries fail (logged once per streak)
};

void auto_enable();  // once per supervision pass, with the process's own state

// One pass of the automatic enablement against the given state.
void auto_enable(AutoEnableState& state);

}  // namespace cbsd::daemon
