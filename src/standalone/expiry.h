// The expiry test of the SAS deadlines: a UTC time text becomes a 64-bit
// epoch second from its civil date alone, whatever the device's zone.
#pragma once

#include <cstdint>
#include <ctime>

namespace cbsd::standalone {

// Seconds east of UTC of the zone in /etc/TZ (standard offset only; 0 when
// the file is missing, has no number, or the offset is out of range).
int32_t tz_offset_seconds();

// 1 when the time text moved by offsetSeconds lies strictly before now.
// A null, empty or unparsable text never expires.
int is_time_expired(const char* text, int32_t offsetSeconds);

}  // namespace cbsd::standalone
