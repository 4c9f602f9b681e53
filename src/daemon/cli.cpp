#include "daemon/cli.h"

#include "config/config_dump.h"
#include "base/text.h"
#include "gating/gates.h"

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace cbsd::daemon {

namespace {

// Opens every gate and removes every gating rule left behind (-n).
void recover_network_and_exit() {
    gating::reset_ip_forward();
    gating::clear_firewall_icmp_rules();
    gating::clear_bridge_forward_rules();
}

}  // namespace

void print_usage() {
    std::puts("Usage: cbsd [OPTIONS]");
    std::puts("\t-d - start cbsd with debug mode");
    std::puts("\t-S [sn] - set SN [eg:123456789], effective in debug mode ");
    std::puts("\t-F [fccid] - set fccID [eg:7XK44RQ5510A], effective in debug mode ");
    std::puts("\t-M [maxEIRP] - set maxEIRP, effective in debug mode ");
    std::puts("\t-C [Category] - set Category, effective in debug mode ");
    std::puts("\t-v - set log level");
    std::puts("\t-f - set log file");
    std::puts("\t-s - set log file size (Byte)");
    std::puts("\t-n - recover network and exit");
    std::puts("\t-p - print all cbsd config and exit");
    std::puts("\t-c - clear all cbsd config and exit");
    std::puts("\t-h - help");
}

CliOutcome parse_command_line(int argc, char** argv, base::ProcessSettings& s, int& exit_status) {
    exit_status = 0;
    int option;
    while ((option = getopt(argc, argv, kOptionString)) != -1) {
        switch (option) {
        case 'd':
            s.debug = 1;
            s.logLevel = 7;
            break;
        case 'D': s.foreground = 1; break;
        case 'S': base::copy_text(s.sn, sizeof s.sn, optarg); break;
        case 'F': base::copy_text(s.fccId, sizeof s.fccId, optarg); break;
        case 'M': base::copy_text(s.maxEIRP, sizeof s.maxEIRP, optarg); break;
        case 'C': base::copy_text(s.category, sizeof s.category, optarg); break;
        case 'f': base::copy_text(s.logFile, sizeof s.logFile, optarg); break;
        case 'v': {
            int level = std::atoi(optarg);
            if (static_cast<unsigned>(level) < 8) s.logLevel = level;
            break;
        }
        case 's': {
            int size = std::atoi(optarg);
            if (size >= 1 && size <= 524288) s.logFileSize = size;
            break;
        }
        case 'n':
            recover_network_and_exit();
            return CliOutcome::kExit;
        case 'p':
            config::print_config();
            return CliOutcome::kExit;
        case 'c':
            // Announced as "clear all cbsd config" but deliberately does nothing:
            // the daemon's own state reset happens at start-up.
            return CliOutcome::kExit;
        case 'h':
            print_usage();
            return CliOutcome::kExit;
        default:
            std::printf("[SAS] unknow option %c\n", optopt);
            return CliOutcome::kExit;
        }
    }
    return CliOutcome::kRun;
}

}  // namespace cbsd::daemon
