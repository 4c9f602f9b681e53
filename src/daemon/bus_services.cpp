#include "daemon/bus_services.h"

#include "bus/bus.h"
#include "daemon/status_object.h"

namespace cbsd::daemon {

void start_bus_services() {
    serve_status_object();
    bus::start();
}

}  // namespace cbsd::daemon
