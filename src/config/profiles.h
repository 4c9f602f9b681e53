// Device profiles by product model, first-run detection, certificate
// provisioning and the automatic enablement on LTE Band 48.
#pragma once

namespace cbsd::config {

void provision_certificates();
int check_first_run();  // 1 first run, 0 not, -1 cannot tell
void apply_profile_defaults();
void auto_enable();      // once per supervision pass

}  // namespace cbsd::config
