#include "standalone/lte_watch.h"

#include "modem/modem.h"

#include <cstdint>

namespace cbsd::standalone {

namespace {

// How old the supervision pass's answer may be to stand in for the worker's
// own query.  Over libubus a query costs no process: the worker asks every
// second, as the daemon always did, and a link change ends any wait within
// a second.  Through the `ubus` CLI each query is a process, so the worker
// rides on the pass's answer where it can.  Backing off after a failure: 1 s, so a link change ends the
// back-off within about 2 s, as when the worker asked every second.  Waiting
// for the next heartbeat: one pass (a 5 s sleep) plus 2 s for the pass
// itself, so the worker starts no process of its own between heartbeats; a
// link change then sends the heartbeat at once at most a pass later.
constexpr uint32_t kBackOffAnswerMaxAgeMs = 1000;
constexpr uint32_t kHeartbeatWaitAnswerMaxAgeMs = 7000;

uint32_t answer_max_age_ms(const OperTimer& timer) {
    if (!modem::queries_start_processes()) return 0;
    return timer.timerType == HEART_BEAT_SUCCESS ? kHeartbeatWaitAnswerMaxAgeMs
                                                 : kBackOffAnswerMaxAgeMs;
}

}  // namespace

bool lte_link_changed(const OperTimer& timer, bool& last_connected) {
    bool connected = modem::lte_connected_seen_within(answer_max_age_ms(timer));
    if (connected == last_connected) return false;
    last_connected = connected;
    return true;
}

}  // namespace cbsd::standalone
