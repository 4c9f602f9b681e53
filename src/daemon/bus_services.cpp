#include "daemon/bus_services.h"

#include "bus/bus.h"
#include "daemon/status_object.h"
#include "daemon/watchdog_feed.h"

namespace cbsd::daemon {

void start_bus_services() {
    start_watchdog_feed();
    serve_status_object();
    bus::start();
}

}  // namespace cbsd::daemon
