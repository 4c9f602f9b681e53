#include "daemon/signals.h"

#include <atomic>
#include <csignal>

namespace cbsd::daemon {

namespace {

// Lock-free, so the handler may store it; nothing else happens in the handler.
std::atomic<bool> g_stop{false};
static_assert(std::atomic<bool>::is_always_lock_free);

void request_stop(int) { g_stop.store(true); }

}  // namespace

void install_signal_handlers() {
    std::signal(SIGPIPE, SIG_IGN);
    struct sigaction action{};
    action.sa_handler = request_stop;
    sigemptyset(&action.sa_mask);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
}

bool stop_requested() { return g_stop.load(); }

}  // namespace cbsd::daemon
