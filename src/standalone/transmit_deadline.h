// The one authorisation the gates obey in StandAlone mode: a deadline on the
// 64-bit monotonic clock, taken from the last heartbeat success.  The wall
// clock (and the SAS's, from the reply) is read once, at receipt, so stepping
// it later moves nothing.  The
// worker holds and drops it; the transmit guard and the supervision loop read
// it without waiting on either.
#pragma once

#include <cstdint>

namespace cbsd::standalone {

// Transmission may go on this long past transmitExpireTime.  The worker
// acts on an expired transmitExpireTime once it lies more than 30 s past,
// looking every second, and writes RadioEnable "0", which the loop obeys;
// the deadline lies a few seconds later, so that on the normal path the
// worker's "0" closes the gates and the guard only backs it up.
inline constexpr int64_t kTransmitGraceMs = 33000;
// A transmitExpireTime further ahead than this counts only this far.
inline constexpr uint32_t kDefaultMaxTransmitLeadSeconds = 240;

// receivedMs + min(expireEpoch - wallAtReceipt, maxLead) s + the grace, in
// monotonic milliseconds.
int64_t transmit_deadline_from(int64_t expireEpoch, int64_t wallAtReceipt, int64_t receivedMs,
                               uint32_t maxLeadSeconds);

// The configured maximum lead (UCI config.maxTransmitLead, seconds); the
// default when unset, not a number or out of 1..86400.
uint32_t max_transmit_lead_seconds();

// The wall time a lead is measured from: the later of the wall clock and the
// SAS's time stated with the reply, so that neither a wall clock behind the
// SAS's nor one ahead of it lengthens the lead.
int64_t lead_reference(int64_t wallSeconds, const int64_t* sasSeconds);

// Holds the deadline of a heartbeat success just received, whose
// transmitExpireTime parses; any other text holds nothing.  `sasNow`: the
// SAS's clock as that reply stated it, or null when it did not.
void hold_deadline_of_reply(const char* transmitExpireTime, const int64_t* sasNow);

// Neither holds nor drops while the deadline is fenced.
void hold_transmit_deadline(int64_t deadlineMs);
void drop_transmit_deadline();
// Brings a held deadline forward to nowMs + withinMs at the latest; holds
// nothing when nothing was held.
void end_transmission_within(int64_t nowMs, uint32_t withinMs);
// Milliseconds from nowMs to the held deadline, or -1 when none is held.
int64_t transmit_deadline_ms_left(int64_t nowMs);
// Waits at most timeoutMs (real time) for the deadline to be held, dropped
// or moved; the transmit guard sleeps here, so it acts on a change at once.
void wait_for_deadline_change(uint32_t timeoutMs);
// Drops the deadline and refuses every hold until the fence is lifted: for a
// worker that outlived its stop, and for the process's end.  A new worker's
// start lifts it.
void fence_transmit_deadline();
void lift_transmit_deadline_fence();
bool transmit_deadline_fenced();
// True while a deadline is held and nowMs lies before it.
bool transmit_deadline_held(int64_t nowMs);

}  // namespace cbsd::standalone
