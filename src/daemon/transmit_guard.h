// The transmit guard: a thread of its own that closes the gates when SAS
// StandAlone mode holds no transmit deadline, whatever the supervision loop,
// the modem or the SAS are doing.  It never waits on the network, the modem
// or the loop; only on the gate lock, which a firewall tool holds at most for
// its time limit.
#pragma once

#include <cstdint>

namespace cbsd::daemon {

// Set by the supervision loop on every pass: true while SAS is enabled in
// StandAlone mode, where the deadline alone lets gates be open.
void arm_transmit_guard(bool armed);
bool transmit_guard_armed();

// True when the gates may be open now: unarmed, or a deadline is held.
bool transmit_allowed(int64_t nowMs);

// One check of the guard; `closed` carries over between checks so that the
// gates are inspected once per loss of authorisation, not every second.
// Returns true when this check closed open gates.
bool run_guard_check(bool& closed, int64_t nowMs);

// Starts the guard thread (checks once a second); call once.  When a stop
// has been requested for stopGraceMs and the process still runs (the loop is
// blocked), the guard calls onStop, which does not return.
void start_transmit_guard(void (*onStop)() = nullptr, uint32_t stopGraceMs = 0);

}  // namespace cbsd::daemon
