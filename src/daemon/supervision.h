// The supervision loop of the main thread: reload the snapshot, act on what
// changed, re-assert the traffic state and sleep 5 s when nothing did.
#pragma once

#include "daemon/snapshot.h"

#include <cstdint>

namespace cbsd::daemon {

void report_snapshot_changes(const SupervisionSnapshot* previous,
                             const SupervisionSnapshot* current);
// Runs until SIGTERM or SIGINT; returns whether SAS was enabled in the last
// snapshot read.
bool supervision_loop();
// SAS enabled as the last pass read it (false before the first pass; while
// start-up waits for the modem manager, what start-up last read).
bool last_sas_enabled();
void set_last_sas_enabled(bool enabled);

// Stops the worker, waits 1 s, clears the CBSD state and starts a fresh
// worker.  When the old worker does not end within its stop's bound, the
// gates close and the start waits until a later pass finds it ended.
void restart_standalone_worker();
// True while a start waits for a stopped worker's end.
bool worker_start_deferred();

// The loop's own state; one pass at a time can be driven from outside the
// loop (the loop itself only adds the 5 s sleep after an unchanged pass).
struct SupervisionState {
    SupervisionSnapshot current;
    SupervisionSnapshot previous;  // all 0xFF before the first pass
    uint32_t pass;                         // 1 during the first pass
    bool unreadable;  // /etc/config/sas could not be read on the last attempt
};

enum class PassOutcome {
    kChanged,    // something changed: load again at once
    kUnchanged,  // steady state re-asserted: sleep before the next pass
};

void init_supervision_state(SupervisionState& state);
PassOutcome run_supervision_pass(SupervisionState& state);

}  // namespace cbsd::daemon
