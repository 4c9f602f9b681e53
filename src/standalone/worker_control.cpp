#include "standalone/worker_control.h"

#include "base/clock.h"
#include "base/log.h"
#include "standalone/standalone_thread.h"

#include <atomic>
#include <cstdint>
#include <pthread.h>
#include <unistd.h>

namespace cbsd::standalone {

std::atomic<uint8_t> worker_running{0};

// The worker's identifier, 0 while there is none.  Only the main thread
// touches it.
pthread_t worker_thread = 0;

namespace {

// Set by the worker as its last act: a join then returns at once.
std::atomic<bool> worker_done{false};

constexpr uint32_t kJoinPollMs = 20;

void* run_worker(void*) {
    standalone::standalone_thread();
    worker_done.store(true);
    return nullptr;
}

// The log lines carry the low 32 bits of the pthread identifier: stable for
// the thread's life and the same in the start and the stop lines.
unsigned short_id(pthread_t thread) {
    return static_cast<unsigned>(static_cast<uint64_t>(thread) & 0xffffffffu);
}

}  // namespace

void start_standalone_worker() {
    if (worker_thread != 0 || worker_running.load() != 0) return;
    worker_running.store(1);
    worker_done.store(false);
    standalone::thread_entered.store(0);
    pthread_t thread = 0;
    if (pthread_create(&thread, nullptr, run_worker, nullptr) != 0) {
        worker_running.store(0);
        base::notice("[SAS] create standalone thread failed.\n");
        return;
    }
    worker_thread = thread;
    while (standalone::thread_entered.load() == 0) usleep(1000);
    base::notice("[SAS] create standalone thread[%u] success.\n", short_id(worker_thread));
}

void stop_standalone_worker() {
    worker_running.store(0);
    if (worker_thread != 0) {
        unsigned id = short_id(worker_thread);
        base::notice("[SAS] waiting StandAlone thread[%u] stop...\n", id);
        int result = pthread_join(worker_thread, nullptr);
        if (result != 0)
            base::notice("[SAS] join StandAlone thread[%u] error: %d\n", id, result);
        else
            base::notice("[SAS] StandAlone thread[%u] is stopped\n", id);
    }
    worker_thread = 0;
}

// The wait runs on the real monotonic milliseconds: a timed join would
// measure its limit on the wall clock, which a step can stretch or cut.
bool stop_standalone_worker_within(uint32_t seconds) {
    worker_running.store(0);
    if (worker_thread == 0) return true;
    uint32_t started_ms = base::monotonic_ms();
    while (!worker_done.load()) {
        if (base::monotonic_ms() - started_ms >= seconds * 1000u) return false;
        usleep(kJoinPollMs * 1000);
    }
    pthread_join(worker_thread, nullptr);  // the worker has returned: no wait
    worker_thread = 0;
    return true;
}

}  // namespace cbsd::standalone
