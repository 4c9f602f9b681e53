// What the reply fuzz targets share: the parsers read bytes in memory and
// write only their log, so a target needs no root and no private /tmp; its
// log goes to a file of its own, emptied for each input.
#pragma once

#include "base/settings.h"
#include "base/text.h"

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace cbsd::fuzz {

// Logging stays on (the logged re-serialisation is part of what is fuzzed)
// and goes to a private file; with no `logger` on PATH the system-log copy
// fails at once instead of starting a process per input.
inline void log_to_private_file() {
    char path[] = "/tmp/cbsd-fuzz-log-XXXXXX";
    int fd = mkstemp(path);
    if (fd < 0) {
        std::perror("fuzz target: private log file");
        std::exit(1);
    }
    close(fd);
    base::copy_text(base::settings().logFile, sizeof base::settings().logFile, path);
    std::atexit([] { unlink(base::settings().logFile); });
    base::settings().debug = 0;
    setenv("PATH", "/nonexistent", 1);
}

// The log grows with every input; each one starts from an empty file.
inline void empty_log() {
    if (FILE* log = std::fopen(base::settings().logFile, "w")) std::fclose(log);
}

}  // namespace cbsd::fuzz
