// cbsd: keeps the router's LTE transmission and LAN traffic within what the
// Spectrum Access System allows.
#include "core/cli.h"
#include "core/settings.h"
#include "core/startup.h"

int main(int argc, char** argv) {
    int exit_status = 0;
    if (cbsd::core::parse_command_line(argc, argv, cbsd::core::settings(), exit_status) ==
        cbsd::core::CliOutcome::Exit)
        return exit_status;
    return cbsd::core::run_daemon();
}
