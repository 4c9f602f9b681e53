// Device-level switches over the gates: authorize, unauthorize, recover, and
// the bounded close for the transmit guard and the stop.
#pragma once

#include <cstdint>

namespace cbsd::gating {

void authorize_device(uint8_t announce);
void unauthorize_device(uint8_t announce);
void recover_network();
// Closes every gate when any is open; returns whether one was.  Safe to call
// from any thread: gate switches are serialised.
bool close_open_gates();
// unauthorize_device with close_open_gates' bounds (forwarding first, the
// lock waited for at most 2 s, each command at most 2 s): for the process's
// stop, which must end in time even while another switch hangs.
void unauthorize_device_within_bounds(uint8_t announce);

}  // namespace cbsd::gating
