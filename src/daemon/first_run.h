// The first-run tag: config.cbsdTag holds the modification time of the
// executable that ran last, so a replaced executable (a firmware update)
// counts as a first run.
#pragma once

namespace cbsd::daemon {

int check_first_run();  // 1 first run (the tag is then written), 0 not, -1 cannot tell

}  // namespace cbsd::daemon
