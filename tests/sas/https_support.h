// What the HTTPS transport's test files share: the body they post and a
// /root/sas with no TLS credentials and no log.
#pragma once

#include "support/test_util.h"

#include <filesystem>
#include <string>

namespace cbsd::sas::https_test {

inline constexpr const char* kBody =
    R"({"registrationRequest": [{"fccId": "F1", "cbsdSerialNumber": "S1"}]})";

// Only the TLS credentials go: other suites in this process may keep a CPI key.
inline void clear_credentials_and_log() {
    std::filesystem::create_directories("/root/sas");
    for (const char* dir : {"clientCert", "clientKey", "serverCA"})
        std::filesystem::remove_all(std::string("/root/sas/cert/") + dir);
    std::filesystem::remove("/root/sas/sas.log");
}

inline std::string log_text() { return test::read_file("/root/sas/sas.log"); }

}  // namespace cbsd::sas::https_test
