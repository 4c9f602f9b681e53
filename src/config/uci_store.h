// Read and write one option of a UCI package given by its file path
// ("/etc/config/sas": directory /etc/config, package sas).  Every call opens,
// parses and closes the package; nothing is cached.
#pragma once

#include "config/schema.h"

#include <cstddef>

namespace cbsd::config {

inline constexpr const char* kSasConfigPath = "/etc/config/sas";
inline constexpr const char* kRuntimeCachePath = "/tmp/sas_cache";

// 1 when the package could be loaded, 0 otherwise.  With the option present
// (a plain string option of a section matched by NAME), the buffer is cleared
// for size bytes and receives at most size - 1 characters; otherwise it is
// left exactly as the caller prepared it.
unsigned config_get(const char* path, const char* section, const char* option, char* buffer,
                    size_t size);

// Sets the option and commits at once.  1 once the store could be opened,
// 0 for a null argument or a path outside the limits.  A missing section
// writes nothing and still gives 1.
unsigned config_set(const char* path, const char* section, const char* option, const char* value);

// The same, with the names taken from the schema table.
inline unsigned config_get(const char* path, UciName name, char* buffer, size_t size) {
    return config_get(path, name.section, name.option, buffer, size);
}
inline unsigned config_set(const char* path, UciName name, const char* value) {
    return config_set(path, name.section, name.option, value);
}

}  // namespace cbsd::config
