// The one way the daemon reads the system: run a shell command line and keep
// its standard output as whole lines in a bounded, caller-owned buffer.
#pragma once

namespace cbsd::core {

// Returns buffer, or nullptr when the command could not be started.  Keeps
// only whole lines (or whole 255-character pieces of longer lines), at most
// capacity - 1 characters; the buffer is not touched when there is no output,
// so callers clear it first.  The command's exit status is ignored.
char* run_command(const char* command, char* buffer, int capacity);

}  // namespace cbsd::core
