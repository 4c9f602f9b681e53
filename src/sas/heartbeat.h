// Heartbeat request body, built apart from posting.
#pragma once

#include "config/device_record.h"
#include "sas/replies.h"
#include "sas/request_body.h"

#include <cstddef>

namespace cbsd::sas {

// operation.GrantRenew read as an integer: non-zero asks for renewal.
bool is_grant_renew_requested();

// Fills body (cleared for capacity bytes) with the indented heartbeat for the
// grant held in grant.
BodyStatus build_heartbeat_body(const GrantResponse* grant, const config::DeviceRecord* record,
                                const char* operationState, bool grantRenew, char* body,
                                size_t capacity);

}  // namespace cbsd::sas
