// What the daemon does on ubus where libubus is built in: the objects it
// serves and the bus thread's periodic work, registered before the thread
// starts.  Without libubus this starts nothing.
#pragma once

namespace cbsd::daemon {

// After the process has left the terminal (a thread would not survive the
// fork) and before the first modem query.
void start_bus_services();

}  // namespace cbsd::daemon
