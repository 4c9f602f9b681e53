// When a PEM certificate stops being valid, for the daemon's status: the
// device's client certificate and the SAS's CA, read once as the worker
// starts (a certificate changes with a new worker only).
#pragma once

#include <cstdint>

namespace cbsd::sas {

// The first certificate's notAfter in epoch seconds; false when the file
// cannot be read or holds no PEM certificate.
bool certificate_not_after(const char* path, int64_t* epochSeconds);

// Reads both certificates named in section cert into the status report.
void report_certificates();

}  // namespace cbsd::sas
