// Private /tmp and /root for a test process, keeping the source and build
// trees visible even when they live there (a checkout in a temporary
// directory or in root's home): each is held open before the empty tmpfs
// mounts cover it, then bind-mounted back at the same path.
#pragma once

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/mount.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace cbsd::test {

using KeptDirectories = std::vector<std::pair<std::string, int>>;

inline bool is_under(const std::string& path, const std::string& top) {
    return path == top || path.rfind(top + "/", 0) == 0;
}

// Opens each of the given directories that lies under /tmp or /root and is
// not inside another kept one.  Call it inside the new mount namespace.
inline KeptDirectories open_kept_directories(std::vector<std::string> candidates) {
    std::vector<std::string> paths;
    for (const std::string& candidate : candidates) {
        char resolved[PATH_MAX];
        if (realpath(candidate.c_str(), resolved)) paths.emplace_back(resolved);
    }
    std::sort(paths.begin(), paths.end(),
              [](const std::string& a, const std::string& b) { return a.size() < b.size(); });
    KeptDirectories kept;
    for (const std::string& path : paths) {
        bool hidden = is_under(path, "/tmp") || is_under(path, "/root");
        bool covered = std::any_of(kept.begin(), kept.end(),
                                   [&](const auto& k) { return is_under(path, k.first); });
        if (!hidden || covered) continue;
        int fd = open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
        if (fd >= 0) kept.emplace_back(path, fd);
    }
    return kept;
}

// Bind-mounts the kept directories back; false when a mount fails.
inline bool restore_kept_directories(const KeptDirectories& kept) {
    for (const auto& [path, fd] : kept) {
        std::error_code error;
        std::filesystem::create_directories(path, error);
        std::string source = "/proc/self/fd/" + std::to_string(fd);
        bool ok = mount(source.c_str(), path.c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0;
        close(fd);
        if (!ok) return false;
    }
    return true;
}

// The trees this build was configured with, and the working directory.
inline std::vector<std::string> build_trees() {
    std::vector<std::string> trees = {CBSD_TEST_SOURCE_DIR, CBSD_TEST_BINARY_DIR};
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof cwd)) trees.emplace_back(cwd);
    return trees;
}

}  // namespace cbsd::test
