// The clock and sleep behind the modem waiting loops, replaceable so that
// tests can run a time-out without waiting for it.
#pragma once

#include <cstdint>

namespace cbsd::modem {

struct PollClock {
    uint32_t (*now_seconds)();       // monotonic seconds; only differences count
    void (*sleep_ms)(uint32_t ms);
};

// The clock the waiting loops use; starts as the monotonic clock and a real sleep.
PollClock& poll_clock();

}  // namespace cbsd::modem
