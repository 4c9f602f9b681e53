#include "standalone/expiry.h"

#include "base/files.h"
#include "base/clock.h"
#include "base/log.h"
#include "base/text.h"
#include "base/utc_time.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace cbsd::standalone {

namespace {

constexpr const char* kZoneFile = "/etc/TZ";
constexpr size_t kZoneTextCapacity = 64;
constexpr size_t kZonePartCapacity = 4;  // at most 3 characters of hours or minutes
// Accepted POSIX offsets (positive west): -14 h .. +13 h.
constexpr int32_t kLowestPosixOffset = -50400;
constexpr int32_t kHighestPosixOffset = 46800;

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
        if (hour_length >= 1) base::copy_text(hours, std::min(hour_length + 1, sizeof hours), number);
        base::copy_text(minutes, sizeof minutes, colon + 1);
    } else {
        base::copy_text(hours, sizeof hours, number);
    }

    int32_t value = std::atoi(hours) * 3600;
    if (value >= 1)
        value += std::atoi(minutes) * 60;
    else
        value -= std::atoi(minutes) * 60;
    return value;
}

}  // namespace

int32_t tz_offset_seconds() {
    char zone[kZoneTextCapacity] = {};
    base::read_text_file(kZoneFile, zone, sizeof zone);
    if (zone[0] == '\0') {
        base::notice("TZ No value.\n");
        return 0;
    }
    int32_t value = posix_offset_seconds(zone);
    if (value < kLowestPosixOffset || value > kHighestPosixOffset) return 0;
    return -value;
}

int is_time_expired(const char* text, int32_t offsetSeconds) {
    if (!text || text[0] == '\0') return 0;
    // An unparsable text is not a deadline here; the transmit guard holds
    // only deadlines that parsed, so it cannot keep a gate open.
    int64_t instant = 0;
    // The zone is still read, for its "TZ No value." line when it is missing;
    // the instant itself no longer depends on it.
    (void)tz_offset_seconds();
    if (!base::parse_utc_time(text, &instant) || instant < 1) return 0;
    return instant + offsetSeconds < static_cast<int64_t>(base::wall_seconds()) ? 1 : 0;
}

}  // namespace cbsd::standalone
