// Device profiles by product model, first-run detection, certificate
// provisioning and the automatic enablement on LTE Band 48.
#pragma once

#include "config/device_profiles.h"
#include "modem/modem.h"

namespace cbsd::daemon {

void provision_certificates();
int check_first_run();  // 1 first run, 0 not, -1 cannot tell
// Writes the defaults of the product's row (and, on a first run, the
// first-run ones) from an answered product query.
void apply_profile_defaults(const modem::ProductInfo& product);
// Waits until the modem manager answers the product query (daemon/modem_wait.h;
// `while_waiting` runs once per unanswered query), then writes the defaults.
// False when a stop request ended the wait: nothing was written, and the
// first-run tag is left for a start that reads the product.
bool apply_profile_defaults(void (*while_waiting)() = nullptr);
void auto_enable();      // once per supervision pass

// One pass of the automatic enablement against the given state; the
// argument-less auto_enable() uses the process's own state.
void auto_enable(config::AutoEnableState& state);

}  // namespace cbsd::daemon
