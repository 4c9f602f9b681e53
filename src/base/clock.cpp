#include "base/clock.h"

#include "base/log.h"

#include <cerrno>
#include <cstring>

namespace cbsd::base {

namespace {

Clock replacement{};

// Cut from the 64-bit clock, so the seconds wrap at 2^32 like any unsigned
// counter (differences stay right across it), not at 2^32 milliseconds.
uint32_t real_monotonic_seconds() {
    timespec now{};
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) return 0;
    return static_cast<uint32_t>(now.tv_sec);
}

void real_sleep_ms(uint32_t ms) {
    timespec rest{static_cast<time_t>(ms / 1000u), static_cast<long>(ms % 1000u) * 1000000L};
    while (nanosleep(&rest, &rest) != 0 && errno == EINTR) {
    }
}

}  // namespace

void set_clock(const Clock& clock) { replacement = clock; }

time_t wall_seconds() {
    return replacement.wall_seconds ? replacement.wall_seconds() : time(nullptr);
}

uint32_t monotonic_seconds() {
    return replacement.monotonic_seconds ? replacement.monotonic_seconds()
                                         : real_monotonic_seconds();
}

uint32_t monotonic_seconds_rounded_up() {
    if (replacement.monotonic_seconds) return replacement.monotonic_seconds();
    timespec now{};
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) return 0;
    return static_cast<uint32_t>(now.tv_sec) + (now.tv_nsec > 0 ? 1u : 0u);
}

void sleep_ms(uint32_t ms) {
    if (replacement.sleep_ms)
        replacement.sleep_ms(ms);
    else
        real_sleep_ms(ms);
}

void sleep_seconds(uint32_t seconds) { sleep_ms(seconds * 1000u); }

int64_t monotonic_ms64() {
    if (replacement.monotonic_ms64) return replacement.monotonic_ms64();
    timespec now{};
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) return 0;
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

uint32_t monotonic_ms() {
    timespec now{};
    if (clock_gettime(CLOCK_MONOTONIC, &now) != 0) {
        int error = errno;
        notice("clock_gettime failed: %d(%s)\n", error, std::strerror(error));
        return 0;
    }
    return static_cast<uint32_t>(now.tv_sec) * 1000u + static_cast<uint32_t>(now.tv_nsec / 1000000);
}

}  // namespace cbsd::base
