// Command line: options are handled strictly in order; the one-shot options
// (-n, -p, -c, -h, and an unknown option) act when reached and end the process.
// -D keeps the daemon in the foreground for a supervisor such as procd and
// changes nothing else; it is not in the usage text, which is kept as it was.
#pragma once

#include "base/settings.h"

namespace cbsd::daemon {

inline constexpr const char* kOptionString = "dDS:F:M:C:v:f:s:npch";

enum class CliOutcome { kRun, kExit };

// Fills settings; on Exit, exit_status holds the status to leave with.
CliOutcome parse_command_line(int argc, char** argv, base::ProcessSettings& settings, int& exit_status);

void print_usage();

}  // namespace cbsd::daemon
