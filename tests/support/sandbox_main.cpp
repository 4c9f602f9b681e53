// Test entry point: every unit test process gets a private mount and network
// namespace before any test runs.  Inside it /etc is a writable overlay of the
// host's /etc, /root and /tmp are empty tmpfs mounts and the loopback link is
// up, so the code under test can use its real fixed paths and run real
// iptables/ebtables without touching the host.
#include "support/private_dirs.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
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

bool enter_sandbox() {
    if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) return fail("unshare");
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return fail("make / private");
    auto kept = cbsd::test::open_kept_directories(cbsd::test::build_trees());
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
    if (!cbsd::test::restore_kept_directories(kept)) return fail("bind the source and build trees back");
    mkdir("/etc/config", 0755);
    return bring_loopback_up();
}

}  // namespace

int main(int argc, char** argv) {
    if (!enter_sandbox()) return 1;
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
