// The technician's dump of every option the daemon uses (-p).
#pragma once

namespace cbsd::config {

void print_config();

}  // namespace cbsd::config
