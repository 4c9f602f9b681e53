#pragma once

#include <cstdint>

namespace cbsd::sas {

// "SUCCESS", "DEREGISTER", ...; "UNKNOWN" for any code not in the table.
const char* responseCode_name(int32_t code);

}  // namespace cbsd::sas
