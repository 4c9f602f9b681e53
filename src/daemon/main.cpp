// cbsd: keeps the router's LTE transmission and LAN traffic within what the
// Spectrum Access System allows.
#include "daemon/cli.h"
#include "base/settings.h"
#include "daemon/startup.h"

int main(int argc, char** argv) {
    int exit_status = 0;
    if (cbsd::daemon::parse_command_line(argc, argv, cbsd::base::settings(), exit_status) ==
        cbsd::daemon::CliOutcome::kExit)
        return exit_status;
    return cbsd::daemon::run_daemon();
}
