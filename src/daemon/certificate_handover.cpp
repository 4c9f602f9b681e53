#include "daemon/certificate_handover.h"

#include "base/files.h"
#include "base/system.h"

#include <sys/stat.h>

namespace cbsd::daemon {

namespace {

// Certificates the router's provisioning leaves for the daemon to take.
constexpr const char* kCopyProvisionedCertificates =
    "mkdir -p /root/sas; cp -rf /tmp/logger/sas/cert /root/sas/";
constexpr const char* kProvisionedDir = "/tmp/logger/sas";
constexpr const char* kProvisionedCertificates = "/tmp/logger/sas/cert";
constexpr const char* kCertificateHome = "/root/sas";

}  // namespace

void provision_certificates() {
    // Whatever the router left behind is taken as it is; failures show later
    // when the certificates are used.  With nothing left behind the copy
    // would only print "cannot stat" on every start (a system-log line under
    // procd): the home directory is made without it, the outcome the same.
    struct stat drop {};
    if (stat(kProvisionedCertificates, &drop) == 0)
        base::run_status(kCopyProvisionedCertificates);
    else
        mkdir(kCertificateHome, 0755);
    base::remove_tree(kProvisionedDir);
}

}  // namespace cbsd::daemon
