// What a unit test reads of the daemon's logging: the log file's messages and
// the records of the lab's `logger` stand-in (first on PATH once
// put_lab_stand_ins_on_path has run).
#pragma once

#include "support/test_util.h"

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

namespace cbsd::test {

inline constexpr const char* kSasLog = "/root/sas/sas.log";
inline constexpr const char* kSyslogRecords = "/etc/lab/syslog.jsonl";

inline void put_lab_stand_ins_on_path() {
    static const bool done = [] {
        std::string path = std::string(CBSD_SOURCE_DIR) + "/tests/lab/bin:" +
                           (std::getenv("PATH") ? std::getenv("PATH") : "/usr/sbin:/usr/bin:/bin");
        return setenv("PATH", path.c_str(), 1) == 0;
    }();
    (void)done;
}

inline std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

inline std::string sas_log_text() { return read_file(kSasLog); }

// Messages of the log file without their "[uptime, time]" prefix.
inline std::vector<std::string> sas_log_messages() {
    std::vector<std::string> messages;
    for (const std::string& line : lines_of(sas_log_text())) {
        size_t end = line.find(']');
        messages.push_back(end == std::string::npos ? line : line.substr(end + 1));
    }
    return messages;
}

inline std::vector<std::string> syslog_record_lines() { return lines_of(read_file(kSyslogRecords)); }

}  // namespace cbsd::test
