// The move of usedp and sasServerAddress from their older home in section
// operation to section config, on a first run.
#pragma once

namespace cbsd::daemon {

// Moves operation.usedp to config.usedp and operation.sasServerAddress to
// config.address unless config.usedp is already set; logs a blank line.
void migrate_operation_options();

}  // namespace cbsd::daemon
