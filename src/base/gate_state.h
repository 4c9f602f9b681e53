// Whether the traffic gates were last left closed.  The gate switches write
// it; the StandAlone worker reads it, because a device gives its grant back
// only once it has stopped transmitting.
#pragma once

#include <cstdint>

namespace cbsd::base {

// Called by the gate switches: true after every gate was closed, false
// before any is opened.
void publish_gates_closed(bool closed);

// True when the last switch closed every gate and none has opened since.
bool gates_closed();

// Waits until gates_closed() or limitMs of the real monotonic clock have
// passed, looking every few milliseconds.  True when the gates are closed.
bool wait_until_gates_closed(uint32_t limitMs);

}  // namespace cbsd::base
