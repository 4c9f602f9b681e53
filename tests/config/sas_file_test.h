// A test of /etc/config/sas and the log it leaves: each test starts with no
// store file and no log (each test process has its own /etc and /root).
#pragma once

#include "lab_log.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

namespace cbsd::test {

inline constexpr const char* kSasFile = "/etc/config/sas";

// A store as the daemon leaves it: enabled, the SAS's address, a status.
inline std::string typical_sas_file(const std::string& status) {
    return "\n"
           "config sas 'config'\n"
           "\toption enableMode '1'\n"
           "\toption address 'https://sas.example.net/v1.2'\n"
           "\n"
           "config sas 'operation'\n"
           "\toption status '" +
           status + "'\n\n";
}

// What a getter of the form get(buffer, size) leaves in a buffer of `size`
// bytes that starts unterminated ('x' throughout), so a missing terminator shows.
template <typename Size>
std::string read_bounded(void (*getter)(char*, Size), size_t size) {
    std::vector<char> buffer(size, 'x');
    getter(buffer.data(), static_cast<Size>(size));
    if (std::memchr(buffer.data(), '\0', size) == nullptr) return "(unterminated)";
    return buffer.data();
}

class SasFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directories("/root/sas");
        std::filesystem::remove(kSasLog);
        std::filesystem::remove(kSasFile);
    }
    static std::string log_text() { return sas_log_text(); }
};

}  // namespace cbsd::test
