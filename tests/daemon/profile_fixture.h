// The store, the modem stand-in and the log of the start-up steps that write
// the device's profile: its defaults, the first-run tag, the option move, the
// certificate hand-over and the Band 48 automatic enablement.
#pragma once

#include "base/settings.h"
#include "config/uci_store.h"
#include "modem/lab_modem.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace cbsd::test {

inline constexpr const char* kSections =
    "config sas 'config'\n"
    "\n"
    "config sas 'cpi'\n"
    "\n"
    "config sas 'sasConfig'\n"
    "\n"
    "config sas 'operation'\n"
    "\n"
    "config sas 'cellInfo'\n";

inline std::string get(const char* section, const char* option) {
    char value[256] = {};
    config::config_get(config::kSasConfigPath, section, option, value, sizeof value);
    return value;
}

// Writing an empty value removes the option from the store, as libuci does.
inline bool absent(const std::string& section, const std::string& option) {
    std::string text = read_file(config::kSasConfigPath);
    size_t start = text.find("config sas '" + section + "'");
    if (start == std::string::npos) return true;
    size_t end = text.find("\nconfig ", start);
    std::string body = text.substr(start, end == std::string::npos ? std::string::npos : end - start);
    return body.find("option " + option + " ") == std::string::npos;
}

inline void set(const char* section, const char* option, const char* value) {
    config::config_set(config::kSasConfigPath, section, option, value);
}

// One option of the store with its value.
struct Option {
    const char* section;
    const char* option;
    const char* value;
};

inline void set_all(const std::vector<Option>& options) {
    for (const Option& o : options) set(o.section, o.option, o.value);
}

// An EXPECT for each option, named in its message.
inline void expect_values(const std::vector<Option>& options) {
    for (const Option& o : options)
        EXPECT_EQ(get(o.section, o.option), o.value) << o.section << "." << o.option;
}

// Each line is in the log, each after the one before it.
inline void expect_in_order(const std::string& log, std::initializer_list<const char*> lines) {
    size_t previous = std::string::npos;
    for (const char* line : lines) {
        size_t at = log.find(line);
        ASSERT_NE(at, std::string::npos) << line << "\n" << log;
        if (previous != std::string::npos) {
            EXPECT_LT(previous, at) << line;
        }
        previous = at;
    }
}

inline std::string executable_tag() {
    char path[256] = {};
    if (readlink("/proc/self/exe", path, sizeof path - 1) <= 0) return "";
    struct stat status {};
    if (stat(path, &status) != 0) return "";
    return std::to_string(static_cast<long>(status.st_mtime));
}

class ProfileFixture : public ::testing::Test {
protected:
    void SetUp() override {
        saved_settings_ = base::settings();
        mkdir("/root/sas", 0755);
        write_file("/root/sas/sas.log", "");
        write_file(config::kSasConfigPath, kSections);
        set_lab_modem(R"({"productmodule": "RQ5518L-M2", "SN": "SN0042"})");
        write_file("/etc/lab/syslog.jsonl", "");
    }
    void TearDown() override { base::settings() = saved_settings_; }

    static std::string log_text() { return read_file("/root/sas/sas.log"); }
    static bool logged(const std::string& text) { return log_text().find(text) != std::string::npos; }
    static bool sent_to_syslog(const std::string& text) {
        return read_file("/etc/lab/syslog.jsonl").find(text) != std::string::npos;
    }
    // The state of a device that has already run this executable.
    static void mark_as_run_before() { set("config", "cbsdTag", executable_tag().c_str()); }

    base::ProcessSettings saved_settings_{};
};

}  // namespace cbsd::test
