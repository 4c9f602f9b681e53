// Start, stop and restart of the one StandAlone worker thread.  Only the
// main thread starts, stops and collects it; the process's final stop may
// come from any thread.  The worker only reads worker_running.
//
// Every wait here is bounded.  A worker that has not ended when its stop's
// time is up is left to end on its own, unable to do harm: its transmit
// deadline is fenced (it can hold none again), its SAS exchanges are
// aborted, and no other worker starts before it has ended.
#pragma once

#include <atomic>
#include <cstdint>

namespace cbsd::standalone {

// 1 while the worker is wanted; set by the starter, cleared to stop it.
extern std::atomic<uint8_t> worker_running;

// How long a stop of the supervision loop waits for the worker's end: its
// relinquishment and deregistration against a SAS that answers at once take
// well under a second.
inline constexpr uint32_t kWorkerStopWaitSeconds = 8;

// Starts a worker; false when none was started: one exists already (running,
// or stopped and still ending), starts are refused (the process is ending),
// or the thread could not be created.
bool start_standalone_worker();

// Clears worker_running and waits for the worker's end at most `seconds` on
// the real monotonic clock, or until give_up() returns true.  True when no
// worker is left (an ended one is joined).  When the time ran out the worker
// is left to end on its own, fenced as described above; a give-up leaves it
// unfenced, to finish its stop while the process ends.
bool stop_standalone_worker(uint32_t seconds = kWorkerStopWaitSeconds,
                            bool (*give_up)() = nullptr);

// True while a worker that was told to stop has not ended yet.
bool stopped_worker_still_ending();

// Joins a worker that was told to stop and has ended since; true when it did
// (what it left in the store may then be cleared).  Never waits.
bool collect_stopped_worker();

// For the process's end, from any thread: clears worker_running and waits at
// most `seconds` for the worker's end; false when it had not ended by then.
// It never joins (the process ends right after) and never touches what the
// main thread owns.
bool stop_standalone_worker_within(uint32_t seconds);

// Whether start_standalone_worker may start a worker; the process's stop
// refuses every start from its beginning on, so that no worker begins while
// the process ends.
void allow_worker_starts(bool allowed);

// Workers started and not ended yet (0 or 1).
uint32_t live_standalone_workers();

}  // namespace cbsd::standalone
