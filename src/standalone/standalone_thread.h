// The StandAlone worker: drives the device through registration, grant and
// heartbeats and publishes the outcome in /etc/config/sas.
#pragma once

#include <atomic>
#include <cstdint>

namespace cbsd::standalone {

// Thread entry; runs passes until worker_running is cleared.  Returns 0.
int standalone_thread();

// Set by the thread right after it has set worker_running.  The starter waits
// for it: a stop issued just after a start must not be undone by the thread's
// own first step (the joining stopper would then wait forever).
extern std::atomic<uint8_t> thread_entered;

}  // namespace cbsd::standalone
