// What several exchanges of the worker do alike: the status they publish, the
// withdrawal of the radio, the give-back of the grant, and the pacing of a
// refusal.
#include "standalone/worker_steps.h"

#include "base/cbsd_state.h"
#include "base/clock.h"
#include "base/gate_state.h"
#include "base/log.h"
#include "config/accessors.h"
#include "sas/exchanges.h"
#include "standalone/grant_time.h"
#include "standalone/transmit_deadline.h"

#include <cstring>

namespace cbsd::standalone {

namespace {

// Once RadioEnable "0" is written, the supervision loop closes the gates;
// this is its turn before the transmit guard closes them instead.
constexpr uint32_t kLoopCloseTurnMs = 400;
// A grant is given back once the gates are closed, or after this long.
constexpr uint32_t kGatesClosedWaitMs = 3000;

}  // namespace

bool status_is(const Worker& w, uint32_t state) {
    return std::strcmp(w.status, base::cbsd_state_name(state)) == 0;
}

void write_status(Worker& w, uint32_t state) {
    write_or_hold(w.heldStatus, config::set_status, base::cbsd_state_name(state));
}

void read_status(Worker& w) {
    read_or_held(w.heldStatus, config::set_status,
                 [](char* buffer, int size) { config::get_status(buffer, static_cast<size_t>(size)); },
                 w.status, sizeof w.status);
}

void write_transmit_time(Worker& w, const char* text) {
    write_or_hold(w.heldTransmit, set_transmit_expire_time, text);
}

// The deadline is brought forward first, to the end of the loop's turn, so
// the guard closes the gates then at the latest, however long the store
// takes.  Then RadioEnable "0": the loop reads it and closes the gates with
// its usual log lines.  When the store did not take the "0" nobody will read
// it, and the guard closes now.
void withdraw_radio() {
    end_transmission_within(base::monotonic_ms64(), kLoopCloseTurnMs);
    if (config::set_radio_enable("0") != 1) drop_transmit_deadline();
}

// A device stops transmitting before it gives its grant back: relinquishment
// and deregistration leave only once the gates are closed.  Not waited for
// without end: a gate that cannot be closed must not keep the grant either.
void cease_transmission() {
    withdraw_radio();
    if (!base::wait_until_gates_closed(kGatesClosedWaitMs))
        base::notice("[SAS] traffic is not stopped yet, giving the grant back anyway.\n");
}

// A refusal that the procedure answers by starting over.  The first of a
// streak waits 5 s (the shortest wait there is, the one of a failed heartbeat
// while authorised); a repeated one waits like a transport failure, on a step
// of the schedule that grows with the streak, so a SAS that refuses every
// time is not asked in a tight loop.  A heartbeat success ends the streak.
void start_over_after_refusal(Worker& w) {
    if (++w.refusals <= 1) {
        oper_timer_start(&w.operTimer, HEART_BEAT_ERROR);
        return;
    }
    oper_timer_start(&w.operTimer, RESPONSE_ERROR);
    w.operTimer.count = w.refusals - 2;  // the schedule adds one before it looks
}

void relinquish(Worker& w) {
    cease_transmission();
    sas::relinquishment_request(w.transport, w.serverUrl, w.cbsdId, w.grantId,
                                w.records.relinquishment.get());
}

void deregister(Worker& w) {
    cease_transmission();
    sas::deregistration_request(w.transport, w.serverUrl, w.cbsdId,
                                w.records.deregistration.get());
}

void start_over_unregistered(Worker& w, bool grantHeld) {
    if (grantHeld) relinquish(w);
    deregister(w);
    write_status(w, base::kUnregistered);
    start_over_after_refusal(w);
}

void start_over_registered(Worker& w) {
    relinquish(w);
    write_status(w, base::kRegistered);
    start_over_after_refusal(w);
}

}  // namespace cbsd::standalone
