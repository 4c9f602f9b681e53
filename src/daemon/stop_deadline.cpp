#include "daemon/stop_deadline.h"

#include "base/clock.h"
#include "base/log.h"
#include "daemon/signals.h"

#include <cstdlib>
#include <ctime>
#include <thread>

namespace cbsd::daemon {

namespace {

constexpr uint32_t kLookMs = 50;
// Without a stop notice (no handlers installed) the flag is looked at this often.
constexpr uint32_t kIdleLookMs = 60000;

// Real sleeps on purpose: the bound must hold whatever clock a test
// installs, and nothing here may wait on what another thread holds.
void nap() {
    timespec rest{0, static_cast<long>(kLookMs) * 1000000L};
    nanosleep(&rest, nullptr);
}

[[noreturn]] void watch(uint32_t limitMs, void (*lastAct)()) {
    // Asleep until the signal: a router's CPU is not woken for nothing.
    while (!stop_requested()) wait_for_stop_request(kIdleLookMs);
    uint32_t seenMs = base::monotonic_ms();
    while (base::monotonic_ms() - seenMs < limitMs) nap();
    if (lastAct) lastAct();
    base::last_words("[SAS] stop not finished in time, cbsd exit.\n");
    std::_Exit(0);
}

}  // namespace

void start_stop_deadline(uint32_t limitMs, void (*lastAct)()) {
    std::thread(watch, limitMs, lastAct).detach();
}

}  // namespace cbsd::daemon
