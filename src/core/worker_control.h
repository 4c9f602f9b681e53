// Start, stop and restart of the one StandAlone worker thread.  Only the
// main thread calls these; the worker only reads worker_running.
#pragma once

#include <atomic>
#include <cstdint>

namespace cbsd::core {

// 1 while the worker is wanted; cleared by the main thread to stop it.
extern std::atomic<uint8_t> worker_running;

void start_standalone_worker();
void stop_standalone_worker();
void restart_standalone_worker();  // stop, sleep 1 s, clear the CBSD state, start

}  // namespace cbsd::core
