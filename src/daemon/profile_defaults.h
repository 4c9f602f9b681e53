// The defaults of the device's profile by product model: written to the store
// at start-up once the modem manager has told the product.
#pragma once

#include "modem/modem.h"

namespace cbsd::daemon {

// Writes the defaults of the product's row (and, on a first run, the
// first-run ones) from an answered product query.
void apply_profile_defaults(const modem::ProductInfo& product);
// Waits until the modem manager answers the product query (daemon/modem_wait.h;
// `while_waiting` runs once per unanswered query), then writes the defaults.
// False when a stop request ended the wait: nothing was written, and the
// first-run tag is left for a start that reads the product.
bool apply_profile_defaults(void (*while_waiting)() = nullptr);

}  // namespace cbsd::daemon
