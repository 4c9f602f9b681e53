// The heartbeats of a granted and an authorised device.
#pragma once

#include "standalone/worker.h"

#include <cstdint>

namespace cbsd::standalone {

// One exchange step each, as the stored status asks for it.
void run_granted(Worker& w);
void run_authorized(Worker& w);

}  // namespace cbsd::standalone
