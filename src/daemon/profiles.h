// Device profiles by product model, first-run detection, certificate
// provisioning and the automatic enablement on LTE Band 48.
#pragma once

#include "config/device_profiles.h"

namespace cbsd::daemon {

void provision_certificates();
int check_first_run();  // 1 first run, 0 not, -1 cannot tell
void apply_profile_defaults();
void auto_enable();      // once per supervision pass

// One pass of the automatic enablement against the given state; the
// argument-less auto_enable() uses the process's own state.
void auto_enable(config::AutoEnableState& state);

}  // namespace cbsd::daemon
