#include "daemon/config_watch.h"

#include "base/clock.h"

#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/inotify.h>
#include <unistd.h>

namespace cbsd::daemon {

ConfigWatch::ConfigWatch(const char* file_path) {
    std::string path = file_path;
    size_t slash = path.rfind('/');
    if (slash == std::string::npos) return;
    name_ = path.substr(slash + 1);
    std::string directory = slash == 0 ? "/" : path.substr(0, slash);
    fd_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd_ < 0) return;
    if (inotify_add_watch(fd_, directory.c_str(), IN_MOVED_TO | IN_CLOSE_WRITE) < 0) {
        close(fd_);
        fd_ = -1;
    }
}

ConfigWatch::~ConfigWatch() {
    if (fd_ >= 0) close(fd_);
}

// Reads every queued event; true when one names the watched file.
bool ConfigWatch::drain_matching() {
    bool matched = false;
    alignas(inotify_event) char buffer[4096];
    for (;;) {
        ssize_t got = read(fd_, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return matched;  // EAGAIN: nothing more queued
        for (ssize_t at = 0; at < got;) {
            const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
            if (event->mask & IN_Q_OVERFLOW) matched = true;  // events lost: assume ours was one
            if (event->len > 0 && name_ == event->name) matched = true;
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
    }
}

// Events about other files of the directory do not end the wait early.
bool ConfigWatch::wait_for_change(uint32_t timeout_ms) {
    if (fd_ < 0) return false;
    const uint32_t start = base::monotonic_ms();
    for (;;) {
        uint32_t elapsed = base::monotonic_ms() - start;
        if (elapsed >= timeout_ms) return false;
        pollfd waiting{fd_, POLLIN, 0};
        int ready = poll(&waiting, 1, static_cast<int>(timeout_ms - elapsed));
        if (ready < 0 && errno != EINTR) return false;
        if (ready > 0 && drain_matching()) return true;
    }
}

}  // namespace cbsd::daemon
