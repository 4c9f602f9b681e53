#include "standalone/standalone_thread.h"

#include "core/log.h"
#include "core/worker_control.h"

#include <unistd.h>

namespace cbsd::standalone {

namespace {

PassClock pass_clock{nullptr, nullptr};

uint32_t now_seconds() {
    return pass_clock.monotonic_seconds ? pass_clock.monotonic_seconds() : core::monotonic_seconds();
}

void sleep_for(unsigned seconds) {
    if (pass_clock.sleep_seconds)
        pass_clock.sleep_seconds(seconds);
    else
        sleep(seconds);
}

}  // namespace

void set_pass_clock(const PassClock& clock) { pass_clock = clock; }

int standalone_thread() {
    core::worker_running.store(1);
    core::log(5, 0, "[SAS] standalone_thread is running.\n");
    (void)now_seconds();
    while (core::worker_running.load() != 0) sleep_for(1);
    core::log(5, 1, "[SAS] standalone_thread exit.\n");
    return 0;
}

}  // namespace cbsd::standalone
