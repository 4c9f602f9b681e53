// Process-wide settings, filled once from the command line before any thread
// starts and only read afterwards.
#pragma once

#include <cstdint>

namespace cbsd::base {

struct ProcessSettings {
    uint8_t debug = 0;                         // foreground, console echo, overrides active
    int32_t logLevel = 7;                      // highest level written (syslog numbering)
    char logFile[128] = "/root/sas/sas.log";
    int32_t logFileSize = 102400;              // rotate when the log grows beyond this
    char sn[128] = "";                         // debug-mode overrides of the device defaults
    char fccId[128] = "";
    char maxEIRP[8] = "";
    char category[8] = "";
    uint8_t foreground = 0;                    // -D: never detach, for a supervisor (procd)
};

ProcessSettings& settings();

}  // namespace cbsd::base
