// The daemon's `cbsd` ubus object: `status` (what the threads last published,
// base/status_report.h, with the transmit deadline, the firewall backend and
// the failing commands read at the call), `history` (the last hour,
// base/status_history.h) and the `cbsd.state` event, sent with the status
// whenever the state, RadioEnable, the SAS switch, the mode or a gate has
// changed.  Everything runs on the bus thread and only copies what the other
// threads published; the composition is pure and tested without a bus.
#pragma once

#include "base/failure_streaks.h"
#include "base/status_history.h"
#include "base/status_report.h"

#include <cstdint>
#include <string>
#include <vector>

namespace cbsd::daemon {

// What `status` reads at the moment of the call.
struct LiveStatus {
    int64_t now = 0;                // wall clock, epoch seconds
    int64_t transmitMsLeft = -1;    // -1: no transmit deadline held
    const char* firewallBackend = "";
    std::vector<base::CommandStreak> commandStreaks;
};
LiveStatus live_status();

// The JSON object texts of `status` (and of the event) and of `history`.
std::string status_json(const base::StatusReport& report, const LiveStatus& live);
std::string history_json(const std::vector<base::HistoryEntry>& entries);

// How often the bus thread looks for a state change to announce.
inline constexpr int kStateEventCheckMs = 200;

// Sends `cbsd.state` when the report's state changes have moved since the
// last call (the first call: since start-up); bus thread.
void send_state_event_if_changed();

// Registers the object and the event check; before bus::start().
void serve_status_object();

}  // namespace cbsd::daemon
