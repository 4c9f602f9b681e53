// Fixture of the worker start/stop tests: a SAS simulator, the lab's modem
// stand-in, a fresh configuration and real one-second sleeps.
#pragma once

#include "base/clock.h"
#include "base/gate_state.h"
#include "config/uci_store.h"
#include "standalone/standalone_thread.h"
#include "standalone/worker_control.h"
#include "thread_harness.h"

#include <gtest/gtest.h>

#include <string>

namespace cbsd::standalone {


inline std::string log_text() { return test::read_file("/root/sas/sas.log"); }

using test::occurrences;

// The id printed in the first "create standalone thread[ID] success." line.
inline std::string created_thread_id(const std::string& log) {
    const std::string prefix = "[SAS] create standalone thread[";
    size_t start = log.find(prefix);
    if (start == std::string::npos) return "";
    start += prefix.size();
    size_t end = log.find("] success.\n", start);
    if (end == std::string::npos) return "";
    std::string id = log.substr(start, end - start);
    if (id.find_first_not_of("0123456789") != std::string::npos) return "";
    return id;
}

inline std::string status() {
    char value[32] = {};
    config::config_get(config::kSasConfigPath, "operation", "status", value, sizeof value);
    return value;
}

class WorkerControl : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(test::SuiteSimulator::start(url_));
        std::string path = test::kSourceDir + "/tests/lab/bin:" + getenv("PATH");
        setenv("PATH", path.c_str(), 1);
        test::write_file("/etc/lab/modem.json", R"({"netstat": 4})");
        test::write_file("/etc/TZ", "UTC0\n");
        setenv("TZ", "UTC0", 1);
        tzset();
    }
    static void TearDownTestSuite() { test::SuiteSimulator::stop(); }

    void SetUp() override {
        test::sim_clear();
        unlink("/root/sas/sas.log");
        ASSERT_TRUE(test::write_file(config::kSasConfigPath,
                                     test::sas_config_text(url_, "Unregistered")));
        // Real one-second sleeps: these tests check the real stop protocol.
        base::set_clock({});
        // No gates here: they stand closed, so nothing given back waits.
        base::publish_gates_closed(true);
    }
    void TearDown() override { stop_standalone_worker(); }

    static std::string url_;
};

inline std::string WorkerControl::url_;

}  // namespace cbsd::standalone
