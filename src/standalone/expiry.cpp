#include "standalone/expiry.h"

#include "core/command.h"
#include "core/log.h"
#include "core/text.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace cbsd::standalone {

namespace {

constexpr size_t kZoneTextCapacity = 64;
constexpr size_t kZonePartCapacity = 4;  // at most 3 characters of hours or minutes
// Accepted POSIX offsets (positive west): -14 h .. +13 h.
constexpr int32_t kLowestPosixOffset = -50400;
constexpr int32_t kHighestPosixOffset = 46800;

WallClock wall_clock = nullptr;

time_t now() { return wall_clock ? wall_clock() : time(nullptr); }

bool is_zone_number_char(char c) { return (c >= '0' && c <= '9') || c == '-' || c == ':'; }

// The standard offset of a POSIX zone text, as written (positive west).
int32_t posix_offset_seconds(char* zone) {
    if (char* comma = std::strchr(zone, ',')) *comma = '\0';
    char* start = zone;
    while (*start && !(*start >= '0' && *start <= '9')) ++start;
    if (!*start) return 0;
    if (start > zone && start[-1] == '-') --start;

    char number[kZoneTextCapacity] = {};
    size_t length = 0;
    while (is_zone_number_char(start[length]) && length < sizeof number - 1) {
        number[length] = start[length];
        ++length;
    }

    char hours[kZonePartCapacity] = {};
    char minutes[kZonePartCapacity] = {};
    if (char* colon = std::strchr(number, ':')) {
        size_t hour_length = static_cast<size_t>(colon - number);
        if (hour_length >= 1) core::copy_text(hours, std::min(hour_length + 1, sizeof hours), number);
        core::copy_text(minutes, sizeof minutes, colon + 1);
    } else {
        core::copy_text(hours, sizeof hours, number);
    }

    int32_t value = std::atoi(hours) * 3600;
    if (value >= 1)
        value += std::atoi(minutes) * 60;
    else
        value -= std::atoi(minutes) * 60;
    return value;
}

}  // namespace

void set_wall_clock(WallClock clock) { wall_clock = clock; }

int32_t tz_offset_seconds() {
    char zone[kZoneTextCapacity] = {};
    core::run_command("cat /etc/TZ", zone, sizeof zone);
    if (zone[0] == '\0') {
        core::log(5, 0, "TZ No value.\n");
        return 0;
    }
    int32_t value = posix_offset_seconds(zone);
    if (value < kLowestPosixOffset || value > kHighestPosixOffset) return 0;
    return -value;
}

int is_time_expired(const char* text, int32_t offsetSeconds) {
    if (!text || text[0] == '\0') return 0;
    struct tm broken_down{};
    broken_down.tm_isdst = 0;
    // An unparsable text leaves a partly filled time; it is used as it is.
    (void)strptime(text, "%Y-%m-%dT%H:%M:%SZ", &broken_down);
    time_t instant = mktime(&broken_down) + tz_offset_seconds();
    if (instant < 1) return 0;
    return difftime(instant + offsetSeconds, now()) < 0 ? 1 : 0;
}

}  // namespace cbsd::standalone
