// The StandAlone worker driven pass by pass against the scripted SAS of
// scripted_sas.h, in process: the fixture shared by the worker's state-machine
// test files.  No TLS, no HTTP, no Python: each exchange is answered at once,
// so a test takes as long as the passes it releases.
#pragma once

#include "standalone/standalone_thread.h"

#include "base/clock.h"
#include "base/gate_state.h"
#include "config/uci_store.h"
#include "standalone/transmit_deadline.h"
#include "standalone/worker_control.h"
#include "scripted_sas.h"
#include "support/modem_standin.h"
#include "thread_harness.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace cbsd::standalone {

using test::count_of;
using test::PassGate;
using Endpoints = std::vector<std::string>;

// The scripted SAS in the simulator's words (tests/sas_sim/README.md).
inline void sas_push(const std::string& endpoint, const std::string& script) {
    test::ScriptedSas::instance().push(endpoint, script);
}
inline void sas_set_default(const std::string& endpoint, const std::string& script) {
    test::ScriptedSas::instance().set_default(endpoint, script);
}
inline Endpoints sas_endpoints() {
    Endpoints names;
    for (const test::ScriptedRequest& request : test::ScriptedSas::instance().requests())
        names.push_back(request.endpoint);
    return names;
}
inline std::string sas_request_element(const std::string& endpoint, size_t n) {
    std::vector<std::pair<std::string, std::string>> requests;
    for (const test::ScriptedRequest& request : test::ScriptedSas::instance().requests())
        requests.emplace_back(request.endpoint, request.body);
    return test::request_element(requests, endpoint, n);
}

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
        std::filesystem::create_directories("/root/sas");
        std::filesystem::create_directories("/etc/lab");
        std::string path = test::kSourceDir + "/tests/lab/bin:" + getenv("PATH");
        setenv("PATH", path.c_str(), 1);
        test::write_file("/etc/TZ", "UTC0\n");
        setenv("TZ", "UTC0", 1);
        tzset();
    }
    void SetUp() override {
        test::ScriptedSas::instance().clear();
        // Shell stand-ins, first on PATH: the modem files of
        // support/modem_standin.h, and a logger that keeps each system-log
        // copy as one line.  A pass then starts no Python.
        test::install_modem_standin();
        ASSERT_TRUE(test::write_file("/tmp/bin/logger", kLineLogger));
        chmod("/tmp/bin/logger", 0755);
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
        test::set_modem(connected ? "4" : "1", "3625000", "20");
    }

    static inline const char* const kLineLogger =
        "#!/bin/sh\nprintf '%s\\n' \"$*\" >> /etc/lab/syslog.jsonl\n";

    void start_thread() {
        standalone::worker_running.store(1);
        thread_ = std::thread([] { standalone_thread(test::ScriptedSas::transport()); });
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
        ASSERT_EQ(sas_endpoints(),
                  (Endpoints{"registration", "spectrumInquiry", "grant", "heartbeat"}));
        ASSERT_EQ(stored("operation", "status"), "Authorized");
    }

    // Lets `quiet` passes go by while the SAS has still been asked `asked`
    // times in all, then releases the pass that asks again.  Callers wrap it
    // in ASSERT_NO_FATAL_FAILURE so that a stuck thread ends the test.
    static void wait_out(int quiet, size_t asked) {
        ASSERT_TRUE(PassGate::instance().steps(quiet));
        EXPECT_EQ(sas_endpoints().size(), asked);
        ASSERT_TRUE(PassGate::instance().step());
    }

    // The grant is refused as conflicting with grant-old (pushed by the
    // caller): the first passes relinquish it and wait the 5 s before asking
    // again, which this releases.
    void run_through_grant_conflict() {
        run_to_first_sleep();
        EXPECT_EQ(sas_endpoints(), (Endpoints{"registration", "spectrumInquiry", "grant",
                                              "relinquishment"}));
        ASSERT_NO_FATAL_FAILURE(wait_out(4, 4));
    }

    // The device stands in `status` and may not transmit: RadioEnable is off
    // and no transmit deadline is held.
    static void expect_silent_in(const char* status) {
        EXPECT_EQ(stored("operation", "status"), status);
        EXPECT_EQ(stored("sasConfig", "RadioEnable"), "0");
        EXPECT_FALSE(transmit_deadline_held(base::monotonic_ms64() + 1000));
    }

    static std::string log_text() { return test::read_file("/root/sas/sas.log"); }

    // No peer listens there: only the scripted SAS is ever asked.
    static inline const std::string url_ = "https://127.0.0.1:1/v1.2";
    std::thread thread_;
};

// The suite of the tests that step through whole heartbeat periods; every
// pass is quick now (no Python, no TLS), so it needs nothing more.
class QuickPasses : public StandaloneThread {};

}  // namespace cbsd::standalone
