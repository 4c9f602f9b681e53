// Spectrum inquiry request body, built apart from posting.
#pragma once

#include "config/device_record.h"
#include "sas/request_body.h"

#include <cstddef>

namespace cbsd::sas {

// Fills body (cleared for capacity bytes) with the indented inquiry for the
// serving cell's frequency range.
BodyStatus build_spectrum_inquiry_body(const char* cbsdId, const config::DeviceRecord* record,
                                       char* body, size_t capacity);

}  // namespace cbsd::sas
