// OpenWrt's real ubusd and `ubus` CLI (../shared/openwrt, built from their
// sources) with the lab's modem manager (tests/lab/ubus_lte.uc, an object
// `ubus_lte` that the real ucode registers over libubus) inside a unit test's
// private namespace.  The modem manager answers from the lab's modem-state
// file (set_modem_state), read anew on every call.
//
// Header-only; the processes end with the object.  Tests that need it skip
// by name where ../shared/openwrt is absent ($CBSD_OPENWRT_DIR names another
// copy).
#pragma once

#include "support/test_util.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <spawn.h>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

extern char** environ;

namespace cbsd::test {

inline std::string openwrt_dir() {
    const char* chosen = std::getenv("CBSD_OPENWRT_DIR");
    return chosen ? chosen : std::string(CBSD_SOURCE_DIR) + "/../shared/openwrt";
}

inline std::string openwrt_usr() { return openwrt_dir() + "/rootfs/usr"; }

inline bool real_ubus_available() {
    return access((openwrt_usr() + "/sbin/ubusd").c_str(), X_OK) == 0 &&
           access((openwrt_usr() + "/bin/ucode").c_str(), X_OK) == 0;
}

// Skips the calling test, naming why, where the libubus path cannot be
// tested: no real ubusd, or a build without libubus.
#ifdef CBSD_HAVE_LIBUBUS
#define CBSD_SKIP_WITHOUT_REAL_UBUS()                                                   \
    if (!::cbsd::test::real_ubus_available())                                           \
    GTEST_SKIP() << "../shared/openwrt (the real ubusd, ubus CLI and ucode) is absent"
#else
#define CBSD_SKIP_WITHOUT_REAL_UBUS() \
    GTEST_SKIP() << "built without libubus (configure with CBSD_OPENWRT_ROOT)"
#endif

inline constexpr const char* kUbusSocket = "/var/run/ubus/ubus.sock";

class RealUbus {
public:
    // A private /run (ubusd's socket lives there), and the real `ubus` CLI
    // first on PATH for every command the test starts.
    RealUbus() {
        mount("tmpfs", "/run", "tmpfs", 0, "mode=0755");
        std::string path = openwrt_usr() + "/bin:" + (std::getenv("PATH") ? std::getenv("PATH") : "/usr/bin:/bin");
        setenv("PATH", path.c_str(), 1);
        setenv("LD_LIBRARY_PATH", (openwrt_usr() + "/lib").c_str(), 1);
        setenv("CBSD_LAB_MODEM", "/etc/lab/modem.json", 1);
    }
    ~RealUbus() {
        stop_modem_manager();
        stop_ubusd();
        umount2("/run", MNT_DETACH);
    }
    RealUbus(const RealUbus&) = delete;
    RealUbus& operator=(const RealUbus&) = delete;

    bool start_ubusd() {
        if (ubusd_ < 0) ubusd_ = spawn({openwrt_usr() + "/sbin/ubusd"});
        return wait_until([] { return access("/run/ubus/ubus.sock", F_OK) == 0; }, 5000);
    }
    void stop_ubusd() {
        end(ubusd_);
        unlink("/run/ubus/ubus.sock");
    }
    // ubusd frozen (SIGSTOP) and thawed: a bus that answers nothing.
    void freeze_ubusd() { if (ubusd_ > 0) kill(ubusd_, SIGSTOP); }
    void thaw_ubusd() { if (ubusd_ > 0) kill(ubusd_, SIGCONT); }

    // The modem manager's state (members as tests/lab/README.md lists them).
    static void set_modem_state(const std::string& state_json) {
        mkdir("/etc/lab", 0755);
        write_file("/etc/lab/modem.json", state_json);
    }

    // Waits until `ubus_lte` is on the bus (unless the state says it is not).
    bool start_modem_manager(bool wait_for_object = true) {
        if (modem_manager_ < 0)
            modem_manager_ = spawn({openwrt_usr() + "/bin/ucode", "-L", openwrt_usr() + "/lib/ucode",
                                    std::string(CBSD_SOURCE_DIR) + "/tests/lab/ubus_lte.uc"});
        return !wait_for_object || wait_until([] { return object_listed(); }, 5000);
    }
    void stop_modem_manager() { end(modem_manager_); }

    // True when `ubus list ubus_lte` lists it (the real CLI).
    static bool object_listed() {
        return shell("ubus list ubus_lte 2>/dev/null") == "ubus_lte\n";
    }
    // The methods the modem manager publishes, as `ubus -v list` shows them.
    static std::string published() { return shell("ubus -v list ubus_lte 2>/dev/null"); }

    template <typename Predicate>
    static bool wait_until(Predicate done, int limit_ms) {
        auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(limit_ms);
        while (!done()) {
            if (std::chrono::steady_clock::now() > until) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return true;
    }

private:
    static pid_t spawn(const std::vector<std::string>& words) {
        std::vector<char*> argv;
        for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
        argv.push_back(nullptr);
        pid_t pid = -1;
        if (posix_spawn(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return -1;
        return pid;
    }
    static void end(pid_t& pid) {
        if (pid < 0) return;
        kill(pid, SIGKILL);
        kill(pid, SIGCONT);
        waitpid(pid, nullptr, 0);
        pid = -1;
    }

    pid_t ubusd_ = -1;
    pid_t modem_manager_ = -1;
};

}  // namespace cbsd::test
