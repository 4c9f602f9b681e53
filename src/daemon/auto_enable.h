// The automatic enablement on LTE Band 48: while config.auto is "1", each
// supervision pass sets enableMode from the band the modem tells.
#pragma once

#include <cstdint>

namespace cbsd::daemon {

// What the enablement keeps between passes.  Each starts at 0, which is
// neither value, so the first pass always logs.
struct AutoEnableState {
    uint8_t lastAuto = 0;  // 1 On, 2 Off
    uint8_t lastBand = 0;  // 1 in Band 48, 2 not: the last band the modem told
    uint8_t bandUnknown = 0;  // 1 while band queries fail (logged once per streak)
};

void auto_enable();  // once per supervision pass, with the process's own state

// One pass of the automatic enablement against the given state.
void auto_enable(AutoEnableState& state);

}  // namespace cbsd::daemon
