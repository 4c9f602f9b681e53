#include "config/uci_path.h"

#include <cstring>

namespace cbsd::config {

namespace {
constexpr size_t kPathLimit = 129;
constexpr size_t kPartLimit = 64;
}  // namespace

bool uci_split_path(const char* path, UciPath& parts) {
    if (!path) return false;
    size_t length = strnlen(path, kPathLimit);
    if (length >= kPathLimit) return false;
    const char* slash = std::strrchr(path, '/');
    if (!slash) return false;
    size_t directory_length = static_cast<size_t>(slash - path) + 1;
    size_t package_length = length - directory_length;
    if (directory_length >= kPartLimit || package_length >= kPartLimit) return false;
    std::memcpy(parts.directory, path, directory_length);
    parts.directory[directory_length] = '\0';
    std::memcpy(parts.package, slash + 1, package_length);
    parts.package[package_length] = '\0';
    return true;
}

}  // namespace cbsd::config
