// Test entry point: every unit test process gets a private mount and network
// namespace before any test runs.  Inside it /etc is a writable overlay of the
// host's /etc, /root and /tmp are empty tmpfs mounts and the loopback link is
// up, so the code under test can use its real fixed paths and run real
// iptables/ebtables without touching the host.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool fail(const char* what) {
    std::fprintf(stderr, "test sandbox: %s: %s (unit tests must run as root)\n", what,
                 std::strerror(errno));
    return false;
}

bool bring_loopback_up() {
    int fd = socket(AF_INET, SOCK_DGRAM, 0);
    if (fd < 0) return fail("socket");
    ifreq ifr{};
    std::strncpy(ifr.ifr_name, "lo", IFNAMSIZ - 1);
    bool ok = ioctl(fd, SIOCGIFFLAGS, &ifr) == 0;
    if (ok) {
        ifr.ifr_flags |= IFF_UP;
        ok = ioctl(fd, SIOCSIFFLAGS, &ifr) == 0;
    }
    close(fd);
    return ok || fail("loopback up");
}

bool is_under(const std::string& path, const std::string& top) {
    return path == top || path.rfind(top + "/", 0) == 0;
}

// The source and build trees stay visible inside the sandbox even when they
// live under /tmp or /root (a checkout in a temporary directory or in root's
// home): each is held open before the empty tmpfs mounts cover it, then
// bind-mounted back at the same path.
std::vector<std::pair<std::string, int>> open_kept_directories() {
    std::vector<std::string> paths;
    for (const char* candidate : {CBSD_TEST_SOURCE_DIR, CBSD_TEST_BINARY_DIR}) {
        char resolved[PATH_MAX];
        if (realpath(candidate, resolved)) paths.emplace_back(resolved);
    }
    std::sort(paths.begin(), paths.end(),
              [](const std::string& a, const std::string& b) { return a.size() < b.size(); });
    std::vector<std::pair<std::string, int>> kept;
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

bool restore_kept_directories(const std::vector<std::pair<std::string, int>>& kept) {
    for (const auto& [path, fd] : kept) {
        std::error_code error;
        std::filesystem::create_directories(path, error);
        std::string source = "/proc/self/fd/" + std::to_string(fd);
        if (mount(source.c_str(), path.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0)
            return fail("bind kept directory");
        close(fd);
    }
    return true;
}

bool enter_sandbox() {
    if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) return fail("unshare");
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return fail("make / private");
    auto kept = open_kept_directories();
    // The overlay's upper and work directories live on a scratch tmpfs on /tmp,
    // which is then covered by the clean /tmp the tests see.
    if (mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0) return fail("scratch tmpfs");
    mkdir("/tmp/etc-upper", 0755);
    mkdir("/tmp/etc-work", 0755);
    if (mount("overlay", "/etc", "overlay", 0,
              "lowerdir=/etc,upperdir=/tmp/etc-upper,workdir=/tmp/etc-work") != 0)
        return fail("overlay /etc");
    if (mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0) return fail("tmpfs /tmp");
    if (mount("tmpfs", "/root", "tmpfs", 0, "mode=0700") != 0) return fail("tmpfs /root");
    if (!restore_kept_directories(kept)) return false;
    mkdir("/etc/config", 0755);
    return bring_loopback_up();
}

}  // namespace

int main(int argc, char** argv) {
    if (!enter_sandbox()) return 1;
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
