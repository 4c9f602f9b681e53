// Grant request body, built apart from posting.
#pragma once

#include "config/device_record.h"
#include "sas/request_body.h"

#include <cstddef>
#include <cstdint>

namespace cbsd::sas {

// The configured maxEirp capped by category: 20 for "A", 37 for "B".
int32_t capped_max_eirp(const config::DeviceRecord* record);

// The range the grant asks for: the serving cell widened to whole 5 MHz steps.
void grant_frequency_range(const config::DeviceRecord* record, uint32_t* lowHz, uint32_t* highHz);

// Fills body (cleared for capacity bytes) with the indented grant request for
// the serving cell widened to whole 5 MHz steps.
BodyStatus build_grant_body(const char* cbsdId, const config::DeviceRecord* record, char* body,
                            size_t capacity);

}  // namespace cbsd::sas
