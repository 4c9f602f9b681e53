#include "daemon/bus_services.h"

#include "bus/bus.h"
#include "daemon/watchdog_feed.h"

namespace cbsd::daemon {

void start_bus_services() {
    start_watchdog_feed();
    bus::start();
}

}  // namespace cbsd::daemon
