// The expiry test of the SAS deadlines: a UTC time text becomes an epoch
// second through mktime and the standard offset of the device's zone.
#pragma once

#include <cstdint>
#include <ctime>

namespace cbsd::standalone {

// Seconds east of UTC of the zone in /etc/TZ (standard offset only; 0 when
// the file is missing, has no number, or the offset is out of range).
int32_t tz_offset_seconds();

// 1 when the time text moved by offsetSeconds lies strictly before now.
// A null or empty text never expires.
int is_time_expired(const char* text, int32_t offsetSeconds);

// The wall clock read by is_time_expired; tests replace it, nullptr restores
// time().
using WallClock = time_t (*)();
void set_wall_clock(WallClock clock);

}  // namespace cbsd::standalone
