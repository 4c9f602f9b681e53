#include "daemon/signals.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <ctime>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace cbsd::daemon {

namespace {

// Lock-free, so the handler may store them; nothing else happens in the
// handler but one write to the notice, which wakes whoever waits for a stop
// without polling the flag.
std::atomic<bool> g_stop{false};
std::atomic<int> g_stopNotice{-1};
static_assert(std::atomic<bool>::is_always_lock_free);
static_assert(std::atomic<int>::is_always_lock_free);

void request_stop(int) {
    int saved = errno;
    g_stop.store(true);
    int notice = g_stopNotice.load();
    if (notice >= 0) {
        uint64_t one = 1;
        ssize_t ignored = write(notice, &one, sizeof one);
        (void)ignored;
    }
    errno = saved;
}

}  // namespace

void install_signal_handlers() {
    std::signal(SIGPIPE, SIG_IGN);
    if (g_stopNotice.load() < 0) g_stopNotice.store(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    struct sigaction action{};
    action.sa_handler = request_stop;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
}

bool stop_requested() { return g_stop.load(); }

void wait_for_stop_request(uint32_t timeoutMs) {
    if (stop_requested()) return;
    int notice = g_stopNotice.load();
    if (notice < 0) {
        timespec rest{static_cast<time_t>(timeoutMs / 1000),
                      static_cast<long>(timeoutMs % 1000) * 1000000L};
        nanosleep(&rest, nullptr);
        return;
    }
    // The notice is never read: once written it stays readable for every waiter.
    pollfd ready{notice, POLLIN, 0};
    poll(&ready, 1, static_cast<int>(timeoutMs));
}

}  // namespace cbsd::daemon
