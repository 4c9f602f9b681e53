// Start-up of the daemon after the command line: lock, daemonise, working
// directory, and the fixed order of start-up actions.
#pragma once

namespace cbsd::daemon {

inline constexpr const char* kLockPath = "/tmp/cbsd_lock";
inline constexpr const char* kWorkDir = "/root/sas";

// Runs the start-up steps and then the supervision loop; returns only with
// the exit status of a failed start (-1).
int run_daemon();

}  // namespace cbsd::daemon
