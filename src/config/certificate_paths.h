// Paths of the TLS credentials used by the HTTPS transport.
#pragma once

namespace cbsd::config {

struct CertificatePaths {
    char unused[256];      // kept for layout; neither the loader nor the transport uses it
    char clientCert[256];
    char clientKey[256];
    char serverCA[256];
    char crlFile[256];
};

}  // namespace cbsd::config
