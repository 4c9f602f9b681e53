#include "base/cbsd_state.h"

namespace cbsd::base {

const CbsdState CbsdStateTable[] = {
    {kUnregistered, "Unregistered"},
    {kRegistered, "Registered"},
    {kGranted, "Granted"},
    {kAuthorized, "Authorized"},
    {0, ""},
};

const char* cbsd_state_name(uint32_t id) {
    if (id < kUnregistered || id > kAuthorized) return "";
    for (const CbsdState* row = CbsdStateTable; row->id != 0; ++row)
        if (row->id == id) return row->name;
    return "";
}

}  // namespace cbsd::base
