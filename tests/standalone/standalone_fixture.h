// The StandAlone worker driven pass by pass against the SAS simulator: the
// fixture shared by the worker's test files.
#pragma once

#include "standalone/standalone_thread.h"

#include "base/clock.h"
#include "base/gate_state.h"
#include "config/uci_store.h"
#include "standalone/worker_control.h"
#include "support/modem_standin.h"
#include "thread_harness.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace cbsd::standalone {

using test::count_of;
using test::PassGate;
using test::sim_endpoints;
using test::sim_push;
using test::sim_set_default;
using test::sim_request_element;
using Endpoints = std::vector<std::string>;

inline std::string stored(const char* section, const char* option) {
    char value[256] = {};
    config::config_get(config::kSasConfigPath, section, option, value, sizeof value);
    return value;
}

inline void store(const char* section, const char* option, const char* value) {
    config::config_set(config::kSasConfigPath, section, option, value);
}

inline bool has(const std::string& text, const std::string& piece) {
    return text.find(piece) != std::string::npos;
}

class StandaloneThread : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(test::SimulatorProcess::start(url_));
        std::string path = test::kSourceDir + "/tests/lab/bin:" + getenv("PATH");
        setenv("PATH", path.c_str(), 1);
        test::write_file("/etc/TZ", "UTC0\n");
        setenv("TZ", "UTC0", 1);
        tzset();
    }
    static void TearDownTestSuite() { test::SimulatorProcess::stop(); }

    void SetUp() override {
        test::sim_clear();
        set_connected(true);
        unlink("/root/sas/sas.log");
        ASSERT_TRUE(test::write_file(config::kSasConfigPath,
                                     test::sas_config_text(url_, "Unregistered")));
        PassGate::instance().reset(false);
        base::set_clock({nullptr, PassGate::now, [](uint32_t ms) { PassGate::sleep(ms / 1000); }});
        // No gates here: they stand closed, so nothing given back waits.
        base::publish_gates_closed(true);
    }

    void TearDown() override {
        stop_thread();
        base::set_clock({});
    }

    static void set_connected(bool connected) {
        test::write_file("/etc/lab/modem.json",
                         connected ? R"({"netstat": 4})" : R"({"netstat": 1})");
    }

    void start_thread() {
        standalone::worker_running.store(1);
        thread_ = std::thread([] { standalone_thread(); });
    }

    void stop_thread() {
        if (!thread_.joinable()) return;
        standalone::worker_running.store(0);
        PassGate::instance().release_all();
        thread_.join();
    }

    // Runs until the thread first sleeps (the end of its exchanges).
    void run_to_first_sleep() {
        start_thread();
        ASSERT_TRUE(PassGate::instance().wait_for_sleep(1)) << "the thread never waited";
    }

    // Takes the device to Authorized with default replies; the thread then
    // waits the 60 s heartbeat period.
    void authorize() {
        run_to_first_sleep();
        ASSERT_EQ(sim_endpoints(),
                  (Endpoints{"registration", "spectrumInquiry", "grant", "heartbeat"}));
        ASSERT_EQ(stored("operation", "status"), "Authorized");
    }

    static std::string log_text() { return test::read_file("/root/sas/sas.log"); }

    static inline std::string url_;
    std::thread thread_;
};

// Passes that start no Python: a shell modem stand-in and a logger that only
// exits, for tests that step through whole heartbeat periods.
class QuickPasses : public StandaloneThread {
protected:
    void SetUp() override {
        StandaloneThread::SetUp();
        test::install_modem_standin();
        test::set_modem("4", "3625000", "20");
    }

private:
    test::QuietLogger quiet_;
};

}  // namespace cbsd::standalone
