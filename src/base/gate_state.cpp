#include "base/gate_state.h"

#include "base/clock.h"

#include <atomic>
#include <unistd.h>

namespace cbsd::base {

namespace {

// Nothing is known closed at start: start-up may have opened everything.
std::atomic<bool> g_gatesClosed{false};

constexpr uint32_t kPollMs = 20;

}  // namespace

void publish_gates_closed(bool closed) { g_gatesClosed.store(closed); }

bool gates_closed() { return g_gatesClosed.load(); }

bool wait_until_gates_closed(uint32_t limitMs) {
    uint32_t started = monotonic_ms();
    while (!gates_closed()) {
        if (monotonic_ms() - started >= limitMs) return false;
        usleep(kPollMs * 1000u);  // real time: the limit is on the real clock
    }
    return true;
}

}  // namespace cbsd::base
