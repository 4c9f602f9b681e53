// Start, stop and restart of the one StandAlone worker thread.  Only the
// main thread calls these; the worker only reads worker_running.
#pragma once

#include <atomic>
#include <cstdint>

namespace cbsd::standalone {

// 1 while the worker is wanted; cleared by the main thread to stop it.
extern std::atomic<uint8_t> worker_running;

void start_standalone_worker();
void stop_standalone_worker();
// For the process's end: stops the worker like stop_standalone_worker (its
// relinquishment and deregistration included) but waits at most `seconds`;
// false when it had not ended by then.
bool stop_standalone_worker_within(uint32_t seconds);

}  // namespace cbsd::standalone
