// Progress marks: a thread that is watched owns one and renews it whenever
// it finishes a step of bounded length (a pass, a check, a started command,
// a bus call).  Another thread reads the mark to tell a thread that works,
// however slowly, from one that is stuck.
#pragma once

#include <atomic>
#include <cstdint>

namespace cbsd::base {

class ProgressMark {
public:
    // Monotonic milliseconds (base::monotonic_ms64) of the last step; 0 before
    // the first.
    int64_t last_ms() const { return ms_.load(std::memory_order_relaxed); }
    void renew(int64_t now_ms) { ms_.store(now_ms, std::memory_order_relaxed); }

private:
    std::atomic<int64_t> ms_{0};
};

// Makes mark the calling thread's (nullptr: none) and renews it.
void watch_this_thread(ProgressMark* mark);
// Renews the calling thread's mark; nothing on a thread that is not watched.
// The process seam calls it whenever a command it started has ended.
void note_step_done();

}  // namespace cbsd::base
