#include "daemon/bus_services.h"

#include "bus/bus.h"

namespace cbsd::daemon {

void start_bus_services() {
    bus::start();
}

}  // namespace cbsd::daemon
