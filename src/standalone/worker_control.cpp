#include "standalone/worker_control.h"

#include "base/clock.h"
#include "base/log.h"
#include "sas/https.h"
#include "standalone/standalone_thread.h"
#include "standalone/transmit_deadline.h"

#include <atomic>
#include <cstdint>
#include <pthread.h>
#include <unistd.h>

namespace cbsd::standalone {

std::atomic<uint8_t> worker_running{0};

namespace {

// The worker's identifier, 0 while there is none.  Only the main thread
// touches it; the process's final stop, which may run on the guard's thread,
// looks only at the atomics below.
pthread_t worker_thread = 0;

// Counted up by the starter before the thread exists and down by the thread
// as its very last act, so that a waiter never misses a worker in between.
std::atomic<uint32_t> g_liveWorkers{0};
std::atomic<bool> g_startsAllowed{true};

constexpr uint32_t kJoinPollMs = 20;
constexpr uint32_t kEntryWaitMs = 1000;

void* run_worker(void*) {
    standalone::standalone_thread();
    g_liveWorkers.fetch_sub(1);
    return nullptr;
}

// The log lines carry the low 32 bits of the pthread identifier: stable for
// the thread's life and the same in the start and the stop lines.
unsigned short_id(pthread_t thread) {
    return static_cast<unsigned>(static_cast<uint64_t>(thread) & 0xffffffffu);
}

// Waits on the real monotonic milliseconds (a step of the wall clock must
// neither stretch nor cut it).  The flag is cleared again on every look: a
// start that stored "running" after the stop's first clear (the final stop
// may come from another thread while the main thread starts) cannot undo it.
enum class WaitEnd { kEnded, kTimeUp, kGaveUp };

WaitEnd wait_for_end(uint32_t seconds, bool (*give_up)()) {
    uint32_t started_ms = base::monotonic_ms();
    for (;;) {
        worker_running.store(0);
        if (g_liveWorkers.load() == 0) return WaitEnd::kEnded;
        if (base::monotonic_ms() - started_ms >= seconds * 1000u) return WaitEnd::kTimeUp;
        if (give_up && give_up()) return WaitEnd::kGaveUp;
        usleep(kJoinPollMs * 1000);
    }
}

// A worker that outlived its stop may still be inside an exchange whose
// success would authorise it again: it can hold no deadline any more, and
// its exchanges end at once, so that it ends within about a second.
void disarm_stopped_worker(unsigned id, uint32_t seconds) {
    fence_transmit_deadline();
    sas::abort_exchanges(true);
    base::notice_to_syslog("[SAS] StandAlone thread[%u] did not stop within %u s, "
                           "it ends on its own before another one starts.\n", id, seconds);
}

void join_ended_worker() {
    unsigned id = short_id(worker_thread);
    int result = pthread_join(worker_thread, nullptr);  // it has returned: no wait
    if (result != 0)
        base::notice("[SAS] join StandAlone thread[%u] error: %d\n", id, result);
    else
        base::notice("[SAS] StandAlone thread[%u] is stopped\n", id);
    worker_thread = 0;
}

// Only the order of two log lines depends on it; a thread not scheduled
// within the bound changes nothing else.
void wait_for_entry() {
    uint32_t started_ms = base::monotonic_ms();
    while (standalone::thread_entered.load() == 0 && base::monotonic_ms() - started_ms < kEntryWaitMs)
        usleep(1000);
}

// Counts the worker in before it exists; undone when starts are refused.
// The final stop refuses starts before it looks at the count, so either this
// sees the refusal or that stop sees the worker.
bool admit_worker() {
    g_liveWorkers.fetch_add(1);
    if (g_startsAllowed.load()) return true;
    g_liveWorkers.fetch_sub(1);
    return false;
}

}  // namespace

bool start_standalone_worker() {
    if (worker_running.load() != 0) return false;
    if (worker_thread != 0 && !collect_stopped_worker()) return false;
    if (!admit_worker()) return false;
    lift_transmit_deadline_fence();
    sas::abort_exchanges(false);
    worker_running.store(1);
    standalone::thread_entered.store(0);
    pthread_t thread = 0;
    if (pthread_create(&thread, nullptr, run_worker, nullptr) != 0) {
        worker_running.store(0);
        g_liveWorkers.fetch_sub(1);
        base::notice("[SAS] create standalone thread failed.\n");
        return false;
    }
    worker_thread = thread;
    wait_for_entry();
    base::notice("[SAS] create standalone thread[%u] success.\n", short_id(worker_thread));
    return true;
}

bool stop_standalone_worker(uint32_t seconds, bool (*give_up)()) {
    worker_running.store(0);
    if (worker_thread == 0) return true;
    unsigned id = short_id(worker_thread);
    base::notice("[SAS] waiting StandAlone thread[%u] stop...\n", id);
    WaitEnd end = wait_for_end(seconds, give_up);
    if (end == WaitEnd::kEnded) {
        join_ended_worker();
        return true;
    }
    if (end == WaitEnd::kTimeUp) disarm_stopped_worker(id, seconds);
    return false;
}

bool stopped_worker_still_ending() {
    return worker_thread != 0 && worker_running.load() == 0 && g_liveWorkers.load() != 0;
}

bool collect_stopped_worker() {
    if (worker_thread == 0 || worker_running.load() != 0 || g_liveWorkers.load() != 0)
        return false;
    join_ended_worker();
    return true;
}

bool stop_standalone_worker_within(uint32_t seconds) {
    worker_running.store(0);
    return wait_for_end(seconds, nullptr) == WaitEnd::kEnded;
}

void allow_worker_starts(bool allowed) { g_startsAllowed.store(allowed); }

uint32_t live_standalone_workers() { return g_liveWorkers.load(); }

}  // namespace cbsd::standalone
