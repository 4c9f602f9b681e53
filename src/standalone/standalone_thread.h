// The StandAlone worker: drives the device through registration, grant and
// heartbeats and publishes the outcome in /etc/config/sas.
#pragma once

#include <atomic>
#include <cstdint>

namespace cbsd::standalone {

// Thread entry; runs passes until worker_running is cleared.  Returns 0.
// The starter sets worker_running before the thread exists; the thread never
// sets it, so a stop that comes before the thread first ran stands.
int standalone_thread();

// Set by the thread when it begins; the starter waits for it (a bounded
// wait), so that the start's log line follows the thread's first.
extern std::atomic<uint8_t> thread_entered;

}  // namespace cbsd::standalone
