// Puts the virtual router's stand-in `ubus` first on PATH and writes the
// modem state it serves, so modem queries run the real command runner
// against a real process.  Header-only: the modem and config tests share it.
#pragma once

#include "support/test_util.h"

#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/stat.h>

namespace cbsd::test {

inline constexpr const char* kLabModemState = "/etc/lab/modem.json";

// State file members as the stand-in reads them, e.g.
// R"({"productmodule": "RQ5518L-M2", "netstat": 4})".
inline void set_lab_modem(const std::string& state_json) {
    static const bool on_path = [] {
        std::string path = std::string(CBSD_SOURCE_DIR) + "/tests/lab/bin:" +
                           (std::getenv("PATH") ? std::getenv("PATH") : "/usr/bin:/bin");
        return setenv("PATH", path.c_str(), 1) == 0;
    }();
    (void)on_path;
    mkdir("/etc/lab", 0755);
    write_file(kLabModemState, state_json);
}

// A JSON string literal whose characters stand for the given bytes, as the
// stand-in's "raw" replies expect (binary and overlong outputs).
inline std::string json_bytes(const std::string& bytes) {
    std::string out = "\"";
    for (unsigned char c : bytes) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20 || c >= 0x7f) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += escaped;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

// A modem state whose getlteinfo, getltestatus and getproductinfo replies are
// the given raw texts.
inline std::string raw_replies(const std::string& productinfo, const std::string& ltestatus,
                               const std::string& lteinfo) {
    return R"({"raw": {"getproductinfo": )" + json_bytes(productinfo) +
           R"(, "getltestatus": )" + json_bytes(ltestatus) + R"(, "getlteinfo": )" +
           json_bytes(lteinfo) + "}}";
}

}  // namespace cbsd::test
