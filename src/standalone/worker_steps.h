// What several of the worker's exchanges do: the status, the withdrawal of
// the radio, giving back, and the pacing of refusals.
#pragma once

#include "standalone/worker.h"

#include <cstdint>

namespace cbsd::standalone {

bool status_is(const Worker& w, uint32_t state);
void write_status(Worker& w, uint32_t state);
void read_status(Worker& w);
void write_transmit_time(Worker& w, const char* text);

// RadioEnable "0", with the deadline brought forward to the loop's turn.
void withdraw_radio();
// Withdraws the radio and waits (bounded) for the gates to close.
void cease_transmission();
// Paces a refusal that the procedure answers by starting over.
void start_over_after_refusal(Worker& w);
// Give the grant back, or the registration, once transmission has ceased.
void relinquish(Worker& w);
void deregister(Worker& w);
// The SAS ended the registration: what is held is given back (the grant
// first, when there is one) and the procedure starts over, unregistered.
void start_over_unregistered(Worker& w, bool grantHeld);
// The SAS ended the grant: it is given back and a new one is asked for.
void start_over_registered(Worker& w);

}  // namespace cbsd::standalone
