// Fuzz targets run outside the unit-test sandbox, yet the reply parsers read
// the fixed dump file /tmp/sasmsg.json and log to /root/sas.  Each target
// therefore first moves into a private mount namespace with empty /tmp and
// /root, so parallel targets and the host never share those files.
#pragma once

#include "base/settings.h"
#include "support/private_dirs.h"

#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>

namespace cbsd::fuzz {

// The build tree (with the fuzzer's corpus) stays visible wherever it lives.
inline void enter_private_tmp() {
    if (unshare(CLONE_NEWNS) != 0 ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
        std::perror("fuzz target: private mount namespace (run as root)");
        std::exit(1);
    }
    // Opened inside the new namespace: a bind mount cannot take its source
    // from another mount namespace.
    test::KeptDirectories kept = test::open_kept_directories(test::build_trees());
    if (mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0 ||
        mount("tmpfs", "/root", "tmpfs", 0, "mode=0700") != 0 ||
        !test::restore_kept_directories(kept)) {
        std::perror("fuzz target: private /tmp and /root (run as root)");
        std::exit(1);
    }
    mkdir("/root/sas", 0755);
}

// Logging stays on (the logged re-serialisation is part of what is fuzzed)
// and goes to the private log file; with no `logger` on PATH the system-log
// copy fails at once instead of starting a process per input.
inline void quiet_logging() {
    base::settings().debug = 0;
    setenv("PATH", "/nonexistent", 1);
}

}  // namespace cbsd::fuzz
