#include "core/startup.h"

#include "config/profiles.h"
#include "core/log.h"
#include "core/settings.h"
#include "core/supervision.h"
#include "gating/authorization.h"
#include "gating/gates.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace cbsd::core {

namespace {

// Returns the descriptor holding the single-instance lock, or -1.
int take_instance_lock() {
    int fd = open(kLockPath, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        std::printf("open %s failed.\n", kLockPath);
        return -1;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        close(fd);  // another instance runs: leave silently
        return -1;
    }
    return fd;
}

void print_overrides(const ProcessSettings& s) {
    if (s.sn[0]) std::printf("  SN=%s\n", s.sn);
    if (s.fccId[0]) std::printf("  fccId=%s\n", s.fccId);
    if (s.maxEIRP[0]) std::printf("  maxEIRP=%s\n", s.maxEIRP);
    if (s.category[0]) std::printf("  category=%s\n", s.category);
    std::fflush(stdout);
}

void daemonise() {
    if (fork() > 0) std::exit(0);
    setsid();
    umask(0);
    std::signal(SIGHUP, SIG_IGN);
    if (fork() > 0) std::exit(0);
    close(0);
    close(1);
    close(2);
    int null_fd = open("/dev/null", O_RDWR);
    if (null_fd == 0) {
        dup2(0, 1);
        dup2(0, 2);
    }
}

void ensure_work_dir() {
    struct stat st{};
    if (stat(kWorkDir, &st) != 0 && mkdir(kWorkDir, 0755) != 0)
        std::fprintf(stderr, "[SAS] fail to create direction(%s)!\n", kWorkDir);
}

}  // namespace

int run_daemon() {
    gating::reset_runtime_cache();
    if (take_instance_lock() < 0) return -1;  // the lock is held until the process ends

    const ProcessSettings& s = settings();
    if (s.debug)
        print_overrides(s);
    else
        daemonise();

    ensure_work_dir();
    log(5, 0, "\n[SAS] SAS Version 3.1\n");

    gating::clear_cbsd_state();
    gating::reset_ip_forward();
    gating::clear_firewall_icmp_rules();
    gating::clear_bridge_forward_rules();

    config::provision_certificates();
    config::apply_profile_defaults();

    log(5, 0, "[SAS] wait for LTE accessing network...\n");
    supervision_loop();
}

}  // namespace cbsd::core
