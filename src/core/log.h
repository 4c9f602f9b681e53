// The daemon's one logging routine and its monotonic clock readers.
#pragma once

#include <cstdint>

namespace cbsd::core {

// Writes "[uptime, local time]message" to the log file when level is at or
// below the configured level, echoes it in debug mode and, when to_syslog is
// set, hands it to the system log through `logger`.  Messages start with
// "[SAS] "; a leading "\n" becomes a separate blank line.
void log(int32_t level, uint8_t to_syslog, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Unsigned 32-bit milliseconds of the monotonic clock; wraps after ~49.7 days,
// so only differences are meaningful.
uint32_t monotonic_ms();
// monotonic_ms() / 1000, wrapping with it.
uint32_t monotonic_seconds();

}  // namespace cbsd::core
