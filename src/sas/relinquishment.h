// Relinquishment request body, built apart from posting.
#pragma once

#include "sas/request_body.h"

#include <cstddef>

namespace cbsd::sas {

// Ids are cut to 127 characters; a null id is sent as "".
BodyStatus build_relinquishment_body(const char* cbsdId, const char* grantId, char* body,
                                     size_t capacity);

}  // namespace cbsd::sas
