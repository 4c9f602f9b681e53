#include "base/progress.h"

#include "base/clock.h"

namespace cbsd::base {

namespace {

thread_local ProgressMark* t_mark = nullptr;

}  // namespace

void watch_this_thread(ProgressMark* mark) {
    t_mark = mark;
    note_step_done();
}

void note_step_done() {
    if (t_mark) t_mark->renew(monotonic_ms64());
}

}  // namespace cbsd::base
