// Command line: options are handled strictly in order; the one-shot options
// (-n, -p, -c, -h, and an unknown option) act when reached and end the process.
#pragma once

#include "core/settings.h"

namespace cbsd::core {

inline constexpr const char* kOptionString = "dS:F:M:C:v:f:s:npch";

enum class CliOutcome { Run, Exit };

// Fills settings; on Exit, exit_status holds the status to leave with.
CliOutcome parse_command_line(int argc, char** argv, ProcessSettings& settings, int& exit_status);

void print_usage();

}  // namespace cbsd::core
