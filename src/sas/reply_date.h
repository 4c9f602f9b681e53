// The SAS's own clock as its reply states it: the HTTP Date header.  A
// transmit time is a time on the SAS's clock, so the lead it grants is best
// measured against that clock, not against a wall clock that may be off.
#pragma once

#include <cstddef>
#include <cstdint>

namespace cbsd::sas {

// When the header line (as libcurl hands it over, CR LF included) is a Date
// header in the current HTTP form, its time in epoch seconds.
bool date_from_header_line(const char* line, size_t length, int64_t* epochSeconds);

}  // namespace cbsd::sas
