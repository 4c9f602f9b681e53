#include "daemon/first_run.h"

#include "base/log.h"
#include "config/uci_store.h"

#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace cbsd::daemon {

int check_first_run() {
    char executable[256] = {};
    ssize_t length = readlink("/proc/self/exe", executable, sizeof executable - 1);
    if (length <= 0) return -1;
    struct stat status {};
    if (stat(executable, &status) != 0) return -1;

    char tag[32] = {};
    std::snprintf(tag, sizeof tag, "%ld", static_cast<long>(status.st_mtime));
    char stored[32] = {};
    config::config_get(config::kSasConfigPath, config::schema::kCbsdTag, stored, sizeof stored);
    if (std::strcmp(stored, tag) == 0) return 0;

    // A replaced executable (a firmware update) counts as a first run.
    config::config_set(config::kSasConfigPath, config::schema::kCbsdTag, tag);
    base::notice_to_syslog("[SAS] cbsd is running for the first time.\n");
    return 1;
}

}  // namespace cbsd::daemon
