#include "base/system.h"

#include "base/clock.h"
#include "base/failure_streaks.h"
#include "base/line_collector.h"
#include "base/log.h"
#include "base/progress.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace cbsd::base {

namespace {

constexpr int kWaitPollCapMs = 20;

// What a child printed on standard error: never the daemon's own standard
// error (under procd each line would become a system-log line), kept up to
// the first kToolMessageLimit bytes for the failure line, the rest drained.
struct ErrorText {
    int fd = -1;  // read end (non-blocking), -1 once at end of file
    size_t kept = 0;
    char text[kToolMessageLimit + 1] = {};
};

struct Child {
    pid_t pid = -1;
    int output = -1;  // read end of the child's standard output, or -1
    ErrorText errors;
};

// Reads what is there without blocking; closes the pipe at end of file.
void drain(ErrorText& errors) {
    char chunk[512];
    while (errors.fd >= 0) {
        ssize_t got = read(errors.fd, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return;  // nothing more for now
        if (got == 0) {
            close(errors.fd);
            errors.fd = -1;
            return;
        }
        size_t room = kToolMessageLimit - errors.kept;
        size_t take = static_cast<size_t>(got) < room ? static_cast<size_t>(got) : room;
        std::memcpy(errors.text + errors.kept, chunk, take);
        errors.kept += take;
    }
}

void close_errors(ErrorText& errors) {
    if (errors.fd >= 0) close(errors.fd);
    errors.fd = -1;
}

// Standard error always goes to a pipe of its own; with capture, standard
// output goes to another.
bool make_pipes(bool capture, int (&out)[2], int (&err)[2]) {
    if (pipe2(err, O_CLOEXEC) != 0) return false;
    if (capture && pipe2(out, O_CLOEXEC) != 0) {
        close(err[0]);
        close(err[1]);
        return false;
    }
    // Only the daemon's end waits for nothing: the child writes as to any pipe.
    fcntl(err[0], F_SETFL, fcntl(err[0], F_GETFL) | O_NONBLOCK);
    return true;
}

// Starts argv[0] in a process group of its own (so a time-out can kill the
// whole pipeline) with the default action for every signal the daemon
// changes.  *spawn_error is posix_spawnp's result.
bool start(const char* const argv[], bool capture, Child& child, int* spawn_error) {
    int pipe_fds[2] = {-1, -1};
    int error_fds[2] = {-1, -1};
    *spawn_error = errno = 0;
    if (!make_pipes(capture, pipe_fds, error_fds)) {
        *spawn_error = errno;
        return false;
    }

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (capture) posix_spawn_file_actions_adddup2(&actions, pipe_fds[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, error_fds[1], STDERR_FILENO);

    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t defaults;
    sigemptyset(&defaults);
    sigaddset(&defaults, SIGPIPE);
    sigaddset(&defaults, SIGHUP);
    sigaddset(&defaults, SIGTERM);
    sigaddset(&defaults, SIGINT);
    sigset_t no_mask;
    sigemptyset(&no_mask);
    posix_spawnattr_setsigdefault(&attributes, &defaults);
    posix_spawnattr_setsigmask(&attributes, &no_mask);
    posix_spawnattr_setpgroup(&attributes, 0);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF |
                                              POSIX_SPAWN_SETSIGMASK);

    int result = posix_spawnp(&child.pid, argv[0], &actions, &attributes,
                              const_cast<char* const*>(argv), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    if (capture) close(pipe_fds[1]);
    close(error_fds[1]);
    if (result != 0) {
        if (capture) close(pipe_fds[0]);
        close(error_fds[0]);
        *spawn_error = result;
        return false;
    }
    child.output = capture ? pipe_fds[0] : -1;
    child.errors.fd = error_fds[0];
    return true;
}

int remaining_ms(uint32_t started_ms, int time_limit_s) {
    uint32_t elapsed = monotonic_ms() - started_ms;  // wrap-safe
    uint32_t limit = static_cast<uint32_t>(time_limit_s) * 1000u;
    return elapsed >= limit ? 0 : static_cast<int>(limit - elapsed);
}

// Reads the child's output into the collector until end of file, a full
// buffer or the time limit; false only when the time limit ran out.  Its
// standard error is drained alongside, so that neither pipe fills up.
bool collect_output(int fd, ErrorText& errors, OutputSink& collector, uint32_t started_ms,
                    int time_limit_s) {
    char chunk[512];
    for (;;) {
        int wait_ms = remaining_ms(started_ms, time_limit_s);
        if (wait_ms == 0) return false;
        pollfd readable[2] = {{fd, POLLIN, 0}, {errors.fd, POLLIN, 0}};
        int ready = poll(readable, 2, wait_ms);
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return ready < 0;  // an error ends the reading like end of file
        if (readable[1].revents) drain(errors);
        if (!readable[0].revents) continue;
        ssize_t got = read(fd, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return true;
        if (!collector.feed(chunk, static_cast<size_t>(got))) return true;
    }
}

// True when the wait is over: the child was reaped (*status its wait status)
// or cannot be waited for, or the limit ran out (*status -1).  Otherwise
// *left is what remains of the limit, in ms.
bool exited_or_out_of_time(pid_t pid, uint32_t started_ms, int time_limit_s, int* status,
                           int* left) {
    pid_t done = waitpid(pid, status, WNOHANG);
    if (done == pid) return true;
    *status = -1;
    if (done < 0 && errno != EINTR) return true;
    *left = remaining_ms(started_ms, time_limit_s);
    return *left == 0;
}

#ifdef SYS_pidfd_open
// Waits for the child on a process descriptor, which becomes readable the
// moment it exits; its wait status, or -1 once the limit ran out.  Standard
// error is drained meanwhile (a closed one is no longer polled).
int wait_on_descriptor(int pidfd, pid_t pid, ErrorText& errors, uint32_t started_ms,
                       int time_limit_s) {
    for (;;) {
        int status = 0;
        int left = 0;
        if (exited_or_out_of_time(pid, started_ms, time_limit_s, &status, &left)) return status;
        pollfd ready[2] = {{pidfd, POLLIN, 0}, {errors.fd, POLLIN, 0}};
        if (poll(ready, 2, left) < 0 && errno != EINTR) return -1;
        if (ready[1].revents) drain(errors);
    }
}
#endif

// Waits for the child until the time limit; its wait status, or -1 once the
// limit ran out (the child is then still running).  A process descriptor
// notices the exit at once; without one (kernels before 5.3) waitpid is
// polled with growing naps, which notice it up to a nap late.
int wait_for_exit(pid_t pid, ErrorText& errors, uint32_t started_ms, int time_limit_s) {
#ifdef SYS_pidfd_open
    int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
    if (pidfd >= 0) {
        int status = wait_on_descriptor(pidfd, pid, errors, started_ms, time_limit_s);
        close(pidfd);
        return status;
    }
#endif
    int pause_ms = 1;
    for (;;) {
        int status = 0;
        int left = 0;
        drain(errors);
        if (exited_or_out_of_time(pid, started_ms, time_limit_s, &status, &left)) return status;
        int nap = pause_ms < left ? pause_ms : left;
        timespec rest{0, static_cast<long>(nap) * 1000000L};
        nanosleep(&rest, nullptr);
        if (pause_ms < kWaitPollCapMs) pause_ms *= 2;
    }
}

void kill_after_time_limit(const Child& child, const char* what, int time_limit_s) {
    kill(-child.pid, SIGKILL);
    int status = 0;
    while (waitpid(child.pid, &status, 0) < 0 && errno == EINTR) {
    }
    error("[SAS] command still running after %d s, killed: %s\n", time_limit_s, what);
}

// The cap of the calling thread's TimeLimitCap; 0 while none is in force.
thread_local int t_limit_cap_s = 0;

int capped(int time_limit_s) {
    return t_limit_cap_s > 0 && t_limit_cap_s < time_limit_s ? t_limit_cap_s : time_limit_s;
}

// The command kind a failure streak is kept for: a shell's command line (a
// fixed text), or the program and its first three arguments
// ("ubus call ubus_lte getlteinfo").
void command_kind(const char* const argv[], char (&name)[160]) {
    if (std::strcmp(argv[0], "/bin/sh") == 0 && argv[1] && std::strcmp(argv[1], "-c") == 0) {
        std::snprintf(name, sizeof name, "%s", argv[2]);
        return;
    }
    size_t used = 0;
    for (int i = 0; i < 4 && argv[i] && used + 1 < sizeof name; ++i) {
        int wrote = std::snprintf(name + used, sizeof name - used, "%s%.40s", i ? " " : "", argv[i]);
        used += wrote > 0 ? static_cast<size_t>(wrote) : 0;
    }
}

// A tool that ends with a failure status and says why on standard error
// starts or continues a streak; one that succeeds ends it.  A silent failure
// status is an answer (a deletion of a rule that is not there), not a fault.
void note_outcome(const char* const argv[], int status, const ErrorText& errors) {
    char name[160] = {};
    command_kind(argv, name);
    if (status == 0) {
        note_command_success(name);
    } else if (errors.kept > 0) {
        int code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        note_command_failure(name, code, errors.text);
    }
}

void note_start_failure(const char* const argv[], int spawn_error) {
    char name[160] = {};
    command_kind(argv, name);
    char message[kToolMessageLimit + 1];
    std::snprintf(message, sizeof message, "cannot be started: %s", std::strerror(spawn_error));
    note_command_failure(name, 127, message);  // the shell's status for it
}

// Runs argv to completion within the limit; collector may be null.
int run(const char* const argv[], const char* what, OutputSink* collector, int time_limit_s,
        bool& started) {
    time_limit_s = capped(time_limit_s);
    Child child;
    uint32_t started_ms = monotonic_ms();
    int spawn_error = 0;
    started = start(argv, collector != nullptr, child, &spawn_error);
    if (!started) {
        note_start_failure(argv, spawn_error);
        return -1;
    }
    bool in_time = true;
    if (collector) {
        in_time = collect_output(child.output, child.errors, *collector, started_ms, time_limit_s);
        if (in_time) collector->finish();
        // A full buffer stops the reading: the child sees a closed pipe.
        close(child.output);
    }
    int status = in_time ? wait_for_exit(child.pid, child.errors, started_ms, time_limit_s) : -1;
    drain(child.errors);  // what the child wrote just before it exited
    close_errors(child.errors);
    note_step_done();  // a command that ends, in time or cut, is progress
    if (status == -1) {
        kill_after_time_limit(child, what, time_limit_s);
        return -1;
    }
    note_outcome(argv, status, child.errors);
    return status;
}

}  // namespace

char* run_command(const char* command, char* buffer, int capacity, int time_limit_s) {
    const char* const argv[] = {"/bin/sh", "-c", command, nullptr};
    LineCollector collector(buffer, capacity);
    bool started = false;
    run(argv, command, &collector, time_limit_s, started);
    return started ? buffer : nullptr;
}

char* run_capture(const char* const argv[], char* buffer, int capacity, int time_limit_s) {
    LineCollector collector(buffer, capacity);
    bool started = false;
    run(argv, argv[0], &collector, time_limit_s, started);
    return started ? buffer : nullptr;
}

int run_stream(const char* const argv[], OutputSink& sink, const char* what, int time_limit_s) {
    bool started = false;
    return run(argv, what, &sink, time_limit_s, started);
}

int run_status(const char* command, int time_limit_s) {
    const char* const argv[] = {"/bin/sh", "-c", command, nullptr};
    bool started = false;
    return run(argv, command, nullptr, time_limit_s, started);
}

int run_program(const char* const argv[], int time_limit_s) {
    bool started = false;
    return run(argv, argv[0], nullptr, time_limit_s, started);
}

void detach_from_terminal() {
    if (fork() > 0) std::exit(0);
    setsid();
    umask(0);
    std::signal(SIGHUP, SIG_IGN);
    if (fork() > 0) std::exit(0);
    close(0);
    close(1);
    close(2);
    int null_fd = open("/dev/null", O_RDWR);
    if (null_fd == 0) {
        dup2(0, 1);
        dup2(0, 2);
    }
}

TimeLimitCap::TimeLimitCap(int seconds) : previous_(t_limit_cap_s) {
    t_limit_cap_s = seconds;
}

TimeLimitCap::~TimeLimitCap() { t_limit_cap_s = previous_; }

int time_limit_for_this_thread(int time_limit_s) { return capped(time_limit_s); }

namespace {

bool executable_file(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
           access(path.c_str(), X_OK) == 0;
}

}  // namespace

bool program_on_path(const char* name) {
    const char* path = std::getenv("PATH");
    std::string dirs = path ? path : "/usr/bin:/bin";
    for (size_t start = 0; start <= dirs.size();) {
        size_t end = std::min(dirs.find(':', start), dirs.size());
        std::string dir = dirs.substr(start, end - start);
        // An empty entry is the current directory, as for the shell.
        if (executable_file((dir.empty() ? "." : dir) + "/" + name)) return true;
        start = end + 1;
    }
    return false;
}

}  // namespace cbsd::base
