#include "modem/poll_clock.h"

#include "core/log.h"

#include <cerrno>
#include <ctime>

namespace cbsd::modem {

namespace {
void sleep_for_ms(uint32_t ms) {
    timespec rest{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
    while (nanosleep(&rest, &rest) != 0 && errno == EINTR) {
    }
}
}  // namespace

PollClock& poll_clock() {
    static PollClock clock{core::monotonic_seconds, sleep_for_ms};
    return clock;
}

}  // namespace cbsd::modem
