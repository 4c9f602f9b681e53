// Deregistration request body, built apart from posting.
#pragma once

#include "sas/request_body.h"

#include <cstddef>

namespace cbsd::sas {

// The id is cut to 127 characters; a null id is sent as "".
BodyStatus build_deregistration_body(const char* cbsdId, char* body, size_t capacity);

}  // namespace cbsd::sas
