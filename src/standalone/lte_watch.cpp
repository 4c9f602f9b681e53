#include "standalone/lte_watch.h"

#include "modem/modem.h"

#include <cstdint>

namespace cbsd::standalone {

namespace {

// How old the supervision pass's answer may be to stand in for the worker's
// own query.  Backing off after a failure: 1 s, so a link change ends the
// back-off within about 2 s, as when the worker asked every second.  Waiting
// for the next heartbeat: one pass (a 5 s sleep) plus 2 s for the pass
// itself, so the worker starts no process of its own between heartbeats; a
// link change then sends the heartbeat at once at most a pass later.
constexpr uint32_t kBackOffAnswerMaxAgeMs = 1000;
constexpr uint32_t kHeartbeatWaitAnswerMaxAgeMs = 7000;

}  // namespace

bool lte_link_changed(const OperTimer& timer, bool& last_connected) {
    bool heartbeat_wait = timer.timerType == HEART_BEAT_SUCCESS;
    bool connected = modem::lte_connected_seen_within(
        heartbeat_wait ? kHeartbeatWaitAnswerMaxAgeMs : kBackOffAnswerMaxAgeMs);
    if (connected == last_connected) return false;
    last_connected = connected;
    return true;
}

}  // namespace cbsd::standalone
