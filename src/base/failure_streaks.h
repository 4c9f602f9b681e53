// Failing commands as streaks: the first failure of a command is logged with
// the tool's own message, the following ones are only counted, and the first
// success after them is logged once.  A tool that fails on every pass (a
// modem manager that is not there yet) so costs two log lines, not one per call.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace cbsd::base {

// The most commands that can be in a failing streak at once; a failure
// beyond them is logged every time (the daemon runs far fewer commands).
inline constexpr size_t kMaxFailingCommands = 16;
// The part of a tool's message that is kept: its first line, at most this long.
inline constexpr size_t kToolMessageLimit = 200;

// `name` identifies the command kind ("ubus call ubus_lte getlteinfo", a
// fixed shell command line); `message` is what the tool printed on standard
// error (only its first line is logged, unprintable bytes as '?').
void note_command_failure(const char* name, int exit_status, const char* message);
void note_command_success(const char* name);

// A streak in progress, as the daemon's status shows it.
inline constexpr size_t kStreakNameLimit = 95;
struct CommandStreak {
    char name[kStreakNameLimit + 1];  // the command kind, cut to the field
    uint32_t failures;
    int64_t since;  // wall clock of the first failure, epoch seconds
};
std::vector<CommandStreak> command_streaks();

// Forgets every streak (tests).
void reset_command_streaks();

}  // namespace cbsd::base
