// The daemon's one logging routine, with named helpers for the levels it uses.
#pragma once

#include <cstdarg>
#include <cstdint>

namespace cbsd::base {

// Syslog numbering: a message is written when its level is at or below the
// configured level (-v).
enum class Level : int32_t { kError = 3, kNotice = 5 };

// Writes "[uptime, local time]message" to the log file when level is at or
// below the configured level, echoes it in debug mode and, when to_syslog is
// set, hands it to the system log through `logger`.  Messages start with
// "[SAS] "; a leading "\n" becomes a separate blank line.
void log(int32_t level, uint8_t to_syslog, const char* format, ...)
    __attribute__((format(printf, 3, 4)));
void vlog(int32_t level, uint8_t to_syslog, const char* format, va_list args);

// The call sites' names: the level, and whether the system log gets a copy.
void notice(const char* format, ...) __attribute__((format(printf, 1, 2)));
void notice_to_syslog(const char* format, ...) __attribute__((format(printf, 1, 2)));
void error(const char* format, ...) __attribute__((format(printf, 1, 2)));
void error_to_syslog(const char* format, ...) __attribute__((format(printf, 1, 2)));

// Appends "[uptime, local time]text" to the log file with plain system calls:
// no stdio, no echo, no system-log copy, so nothing another thread holds can
// keep it waiting.  For the last line of a process that must end now.
void last_words(const char* text);

}  // namespace cbsd::base
