// The StandAlone worker: drives the device through registration, grant and
// heartbeats and publishes the outcome in /etc/config/sas.
#pragma once

#include "sas/https.h"
#include "sas/transport.h"

#include <atomic>
#include <cstdint>

namespace cbsd::standalone {

// Thread entry; runs passes until worker_running is cleared.  Returns 0.
// The starter sets worker_running before the thread exists; the thread never
// sets it, so a stop that comes before the thread first ran stands.  Every
// exchange goes through `transport` (tests hand in a scripted one).
int standalone_thread(const sas::Transport& transport = sas::https_transport());

// Set by the thread when it begins; the starter waits for it (a bounded
// wait), so that the start's log line follows the thread's first.
extern std::atomic<uint8_t> thread_entered;

}  // namespace cbsd::standalone
