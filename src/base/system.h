// The one seam between the daemon and the processes it starts.  Nothing else
// in the daemon starts a process, runs a shell or detaches itself.  Every start has a
// time limit: a command still running when it runs out is killed with its
// whole process group, counts as failed and is logged once at level 3.
// A child's standard error never reaches the daemon's: it goes to a pipe, and
// a tool that fails with a message there is logged once when it starts
// failing and once when it works again (base/failure_streaks.h).
#pragma once

#include "base/output_sink.h"

namespace cbsd::base {

inline constexpr int kDefaultTimeLimitSeconds = 10;

// Runs a fixed shell command line and keeps its standard output as whole
// lines in a bounded, caller-owned buffer: at most capacity - 1 characters,
// longer lines in 255-character pieces.  The buffer is not touched when
// there is no output, so callers clear it first.  Returns buffer, or nullptr
// when the command could not be started.  The exit status is ignored; a
// command that times out keeps what it printed before.
char* run_command(const char* command, char* buffer, int capacity,
                  int time_limit_s = kDefaultTimeLimitSeconds);

// Like run_command, but runs a program found on PATH with an argument vector
// (no shell, so no argument is ever interpreted).  argv ends with nullptr.
char* run_capture(const char* const argv[], char* buffer, int capacity,
                  int time_limit_s = kDefaultTimeLimitSeconds);

// Runs a program found on PATH with an argument vector and hands its standard
// output to sink as it arrives; sink.finish() follows only when the output
// ended within the time limit.  `what` names the command in the time-out
// line.  Returns the wait status; -1 when it could not be started or timed
// out.  argv ends with nullptr.
int run_stream(const char* const argv[], OutputSink& sink, const char* what,
               int time_limit_s = kDefaultTimeLimitSeconds);

// Runs a fixed shell command line for its wait status, as system() reports
// it (0 on success); -1 when it could not be started or timed out.
int run_status(const char* command, int time_limit_s = kDefaultTimeLimitSeconds);

// Runs a program found on PATH with an argument vector (no shell, so no
// argument is ever interpreted); its wait status, -1 when it could not be
// started or timed out.  argv ends with nullptr.
int run_program(const char* const argv[], int time_limit_s = kDefaultTimeLimitSeconds);

// While one is alive, every start on the creating thread gets at most
// `seconds` (a shorter limit of the call stays): a caller that must finish
// in bounded time, such as the transmit guard closing the gates, lends this
// bound to the code it calls without passing a limit through every layer.
class TimeLimitCap {
public:
    explicit TimeLimitCap(int seconds);
    ~TimeLimitCap();
    TimeLimitCap(const TimeLimitCap&) = delete;
    TimeLimitCap& operator=(const TimeLimitCap&) = delete;

private:
    int previous_;
};

// The limit a start on this thread gets when it asks for time_limit_s: less
// while a TimeLimitCap is in force.  For work that waits without a process
// (a ubus call) and must keep the same bound.
int time_limit_for_this_thread(int time_limit_s);

// Leaves the terminal: goes on as a grandchild in a new session, umask 0, SIGHUP
// ignored, standard descriptors on /dev/null.  Only the grandchild returns.
void detach_from_terminal();

// Whether a program of that name would be found on PATH as the shell finds
// it: an executable regular file in one of PATH's directories.  Starts nothing.
bool program_on_path(const char* name);

}  // namespace cbsd::base
