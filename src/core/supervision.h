// The supervision loop of the main thread: reload the snapshot, act on what
// changed, re-assert the traffic state and sleep 5 s when nothing did.
#pragma once

namespace cbsd::config {
struct SupervisionSnapshot;
}

namespace cbsd::core {

void report_snapshot_changes(const config::SupervisionSnapshot* previous,
                             const config::SupervisionSnapshot* current);
[[noreturn]] void supervision_loop();

}  // namespace cbsd::core
