// The CBSD states; their names are the only values of operation.status.
#pragma once

#include <cstdint>

namespace cbsd::base {

struct CbsdState {
    uint32_t id;
    char name[16];
};

// Rows in order, ended by {0, ""}.
extern const CbsdState CbsdStateTable[];

// The state ids as the table's rows carry them: plain uint32_t constants
// rather than an enum, since `CbsdStateTable`'s `id` and cbsd_state_name
// take the id as a number and the worker compares and passes them as such.
inline constexpr uint32_t kUnregistered = 1, kRegistered = 2, kGranted = 3, kAuthorized = 4;

// "" for an id outside 1..4, otherwise the row's name.
const char* cbsd_state_name(uint32_t id);

}  // namespace cbsd::base
