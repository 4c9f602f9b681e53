// Installer keys made with the openssl command at test time (none is kept in
// the repository): RSA PEM in PKCS#1 and PKCS#8 form, the RSA key in a
// password-protected PKCS#12 file, and an EC key in a PKCS#12 file.
#pragma once

#include "support/test_util.h"

#include <gtest/gtest.h>

#include <string>

namespace cbsd::test {

inline constexpr const char* kCpiKeyDir = "/root/sas/cert/cpiKey";
inline constexpr const char* kCpiPassword = "cpi-secret";

// Generates the keys once per test program into /root/sas/cert/cpiKey.
inline bool make_cpi_keys() {
    static bool made = false;
    if (made) return true;
    std::string d = kCpiKeyDir;
    std::string script =
        "set -e; mkdir -p " + d + "; cd " + d +
        "; openssl genpkey -algorithm RSA -pkeyopt rsa_keygen_bits:2048 -out rsa_pkcs8.pem "
        "2>/dev/null"
        "; openssl pkey -in rsa_pkcs8.pem -traditional -out rsa_pkcs1.pem"
        "; openssl pkey -in rsa_pkcs8.pem -pubout -out rsa_public.pem"
        "; openssl req -x509 -new -key rsa_pkcs8.pem -subj /CN=cpi -days 2 -out rsa.crt 2>/dev/null"
        "; openssl pkcs12 -export -inkey rsa_pkcs8.pem -in rsa.crt -out rsa.p12 -passout pass:" +
        std::string(kCpiPassword) +
        "; openssl pkcs12 -export -nocerts -inkey rsa_pkcs8.pem -out rsa_nocert.p12 -passout pass:" +
        std::string(kCpiPassword) + " 2>/dev/null" +
        "; openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out ec.pem"
        "; openssl req -x509 -new -key ec.pem -subj /CN=cpi-ec -days 2 -out ec.crt 2>/dev/null"
        "; openssl pkcs12 -export -inkey ec.pem -in ec.crt -out ec.p12 -passout pass:" +
        std::string(kCpiPassword) + "; echo made";
    made = shell(script).find("made") != std::string::npos;
    return made;
}

inline std::string cpi_key_path(const std::string& name) {
    return std::string(kCpiKeyDir) + "/" + name;
}

}  // namespace cbsd::test
