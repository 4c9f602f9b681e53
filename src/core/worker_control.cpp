#include "core/worker_control.h"

#include "core/log.h"
#include "gating/authorization.h"
#include "standalone/standalone_thread.h"

#include <cstdint>
#include <pthread.h>
#include <unistd.h>

namespace cbsd::core {

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
        log(5, 0, "[SAS] create standalone thread failed.\n");
        return;
    }
    worker_thread = thread;
    while (standalone::thread_entered.load() == 0) usleep(1000);
    log(5, 0, "[SAS] create standalone thread[%u] success.\n", short_id(worker_thread));
}

void stop_standalone_worker() {
    worker_running.store(0);
    if (worker_thread != 0) {
        unsigned id = short_id(worker_thread);
        log(5, 0, "[SAS] waiting StandAlone thread[%u] stop...\n", id);
        int result = pthread_join(worker_thread, nullptr);
        if (result != 0)
            log(5, 0, "[SAS] join StandAlone thread[%u] error: %d\n", id, result);
        else
            log(5, 0, "[SAS] StandAlone thread[%u] is stopped\n", id);
    }
    worker_thread = 0;
}

void restart_standalone_worker() {
    stop_standalone_worker();
    sleep(1);
    gating::clear_cbsd_state();
    start_standalone_worker();
}

}  // namespace cbsd::core
