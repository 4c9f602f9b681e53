// The daemon's one clock: wall time, monotonic time and sleeping.  Tests
// replace it as a whole with set_clock(); a member left nullptr keeps the
// real one, so a test fakes only what it drives.
#pragma once

#include <cstdint>
#include <ctime>

namespace cbsd::base {

struct Clock {
    time_t (*wall_seconds)();          // seconds since the epoch
    uint32_t (*monotonic_seconds)();   // wraps at 2^32 s; only differences count
    void (*sleep_ms)(uint32_t ms);
    int64_t (*monotonic_ms64)() = nullptr;
};

// Installs the replacement; set_clock({}) restores the real clock.
void set_clock(const Clock& replacement);

time_t wall_seconds();
uint32_t monotonic_seconds();
// The same seconds, rounded up when the clock is past a whole second: a wait
// counted from here lasts at least its seconds.  Tests' seconds are whole.
uint32_t monotonic_seconds_rounded_up();
void sleep_ms(uint32_t ms);
void sleep_seconds(uint32_t seconds);

// Unsigned 32-bit milliseconds of the real monotonic clock; wraps after
// ~49.7 days, so only differences are meaningful.  Never replaced: the time
// limits of started commands run on it.
uint32_t monotonic_ms();

// Milliseconds of the monotonic clock in 64 bits: no wrap in the device's
// lifetime, so deadlines compare with a plain <.  Replaced by the clock's
// monotonic_ms64 member when a test sets one.
int64_t monotonic_ms64();

}  // namespace cbsd::base
