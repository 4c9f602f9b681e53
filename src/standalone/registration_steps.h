// The exchanges of an unregistered and a registered device: registration,
// spectrum inquiry and grant.
#pragma once

#include "standalone/worker.h"

#include <cstdint>

namespace cbsd::standalone {

// One exchange step each, as the stored status asks for it.
void register_device(Worker& w);
void run_registered(Worker& w);

}  // namespace cbsd::standalone
