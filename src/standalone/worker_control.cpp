#include "standalone/worker_control.h"

#include "base/log.h"
#include "standalone/standalone_thread.h"

#include <cstdint>
#include <pthread.h>
#include <ctime>
#include <unistd.h>

namespace cbsd::standalone {

std::atomic<uint8_t> worker_running{0};

// The worker's identifier, 0 while there is none.  Only the main thread
// touches it.
pthread_t worker_thread = 0;

namespace {

void* run_worker(void*) {
    standalone::standalone_thread();
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

bool stop_standalone_worker_within(uint32_t seconds) {
    worker_running.store(0);
    if (worker_thread == 0) return true;
    timespec until{};
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += static_cast<time_t>(seconds);
    bool joined = pthread_timedjoin_np(worker_thread, nullptr, &until) == 0;
    if (joined) worker_thread = 0;
    return joined;
}

}  // namespace cbsd::standalone
