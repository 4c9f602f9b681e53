// The certificates the router's provisioning leaves for the daemon: taken
// into /root/sas at start-up, the drop-off removed.
#pragma once

namespace cbsd::daemon {

// Copies /tmp/logger/sas/cert into /root/sas when it is there (otherwise only
// makes /root/sas), then removes /tmp/logger/sas.
void provision_certificates();

}  // namespace cbsd::daemon
