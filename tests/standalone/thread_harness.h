// Drives the StandAlone thread against the SAS simulator inside the unit-test
// sandbox: a real HTTPS peer on loopback, the lab's ubus stand-in, and a pass
// clock whose sleeps the test releases one at a time.
#pragma once

#include "standalone/worker_control.h"
#include "standalone/standalone_thread.h"
#include "support/test_util.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <signal.h>
#include <spawn.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern char** environ;

namespace cbsd::test {

inline const std::string kSourceDir = CBSD_SOURCE_DIR;
inline const std::string kPkiDir = std::string(CBSD_BINARY_DIR) + "/standalone-test-pki";
inline const std::string kSimDir = "/tmp/sas-sim";

// Monotonic seconds that move only when the thread sleeps, and sleeps that
// return only when the test releases them (or at once in free-running mode).
class PassGate {
public:
    static PassGate& instance() {
        static PassGate gate;
        return gate;
    }
    static uint32_t now() { return instance().read_now(); }
    static void sleep(unsigned seconds) { instance().take_sleep(seconds); }

    void reset(bool free_running) {
        std::lock_guard<std::mutex> lock(mutex_);
        now_ = 1000;
        sleeps_entered_ = 0;
        released_ = 0;
        free_running_ = free_running;
    }
    void set_free_running(bool free_running) {
        std::lock_guard<std::mutex> lock(mutex_);
        free_running_ = free_running;
        changed_.notify_all();
    }
    uint32_t read_now() {
        std::lock_guard<std::mutex> lock(mutex_);
        return now_;
    }
    uint64_t sleeps_entered() {
        std::lock_guard<std::mutex> lock(mutex_);
        return sleeps_entered_;
    }
    // Waits until the thread sits in its n-th sleep (counted from reset).
    bool wait_for_sleep(uint64_t n, double timeout_s = 20) {
        std::unique_lock<std::mutex> lock(mutex_);
        return changed_.wait_for(lock, std::chrono::duration<double>(timeout_s),
                                 [&] { return sleeps_entered_ >= n; });
    }
    // Lets the waiting sleep end and waits until the thread sleeps again.
    bool step(double timeout_s = 20) {
        uint64_t next;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            next = sleeps_entered_ + 1;
            released_ += 1;
            changed_.notify_all();
        }
        return wait_for_sleep(next, timeout_s);
    }
    bool steps(unsigned n) {
        for (unsigned i = 0; i < n; ++i)
            if (!step()) return false;
        return true;
    }
    // Ends every sleep at once from now on (used to stop the thread).
    void release_all() { set_free_running(true); }

private:
    void take_sleep(unsigned seconds) {
        std::unique_lock<std::mutex> lock(mutex_);
        uint64_t mine = ++sleeps_entered_;
        changed_.notify_all();
        changed_.wait(lock, [&] { return free_running_ || released_ >= mine; });
        if (released_ < mine) released_ = mine;
        now_ += seconds;
        lock.unlock();
        if (free_running_) usleep(1000);
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    uint32_t now_ = 1000;
    uint64_t sleeps_entered_ = 0;
    uint64_t released_ = 0;
    bool free_running_ = false;
};

inline bool wait_until(const std::function<bool()>& condition, double timeout_s = 20) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(timeout_s);
    while (std::chrono::steady_clock::now() < deadline) {
        if (condition()) return true;
        usleep(5000);
    }
    return condition();
}

// While alive, the system-log copies go to a logger that only exits: the
// lab's stand-in starts Python for each one, which would dominate a test that
// starts and stops workers by the hundred.
class QuietLogger {
public:
    QuietLogger() : path_(getenv("PATH")) {
        test::shell("mkdir -p /tmp/quiet-bin && printf '#!/bin/sh\\nexit 0\\n' > "
                    "/tmp/quiet-bin/logger && chmod +x /tmp/quiet-bin/logger");
        setenv("PATH", ("/tmp/quiet-bin:" + path_).c_str(), 1);
    }
    ~QuietLogger() { setenv("PATH", path_.c_str(), 1); }
    QuietLogger(const QuietLogger&) = delete;
    QuietLogger& operator=(const QuietLogger&) = delete;

private:
    std::string path_;
};

// One JSON command line to the simulator's control socket; the parsed answer
// (caller frees) or nullptr.
inline json_t* sim_call(const std::string& command) {
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0) return nullptr;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::string path = kSimDir + "/control.sock";
    snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        close(fd);
        return nullptr;
    }
    std::string line = command + "\n";
    if (write(fd, line.data(), line.size()) != static_cast<ssize_t>(line.size())) {
        close(fd);
        return nullptr;
    }
    std::string answer;
    char chunk[65536];
    while (answer.empty() || answer.back() != '\n') {
        ssize_t n = read(fd, chunk, sizeof chunk);
        if (n <= 0) break;
        answer.append(chunk, static_cast<size_t>(n));
    }
    close(fd);
    json_error_t error;
    return json_loads(answer.c_str(), 0, &error);
}

inline void sim_push(const std::string& endpoint, const std::string& reply_json) {
    json_t* answer =
        sim_call(R"({"cmd":"push","endpoint":")" + endpoint + R"(","reply":)" + reply_json + "}");
    ASSERT_NE(answer, nullptr);
    EXPECT_TRUE(json_is_true(json_object_get(answer, "ok")));
    json_decref(answer);
}

inline void sim_set_default(const std::string& endpoint, const std::string& reply_json) {
    json_t* answer = sim_call(R"({"cmd":"set_default","endpoint":")" + endpoint +
                              R"(","reply":)" + reply_json + "}");
    ASSERT_NE(answer, nullptr);
    json_decref(answer);
}

inline void sim_clear() { json_decref(sim_call(R"({"cmd":"clear"})")); }

// The request bodies the simulator saw, oldest first, as "endpoint" names or
// as parsed request objects.
inline std::vector<std::string> sim_endpoints() {
    std::vector<std::string> names;
    json_t* answer = sim_call(R"({"cmd":"requests"})");
    if (!answer) return names;
    size_t index;
    json_t* record;
    json_array_foreach(json_object_get(answer, "requests"), index, record) {
        const char* name = json_string_value(json_object_get(record, "endpoint"));
        names.push_back(name ? name : "?");
    }
    json_decref(answer);
    return names;
}

// Element 0 of the request array of the n-th request of an endpoint (0 = first),
// as JSON text; "" when there is none.
inline std::string sim_request_element(const std::string& endpoint, size_t n) {
    std::string text;
    json_t* answer = sim_call(R"({"cmd":"requests"})");
    if (!answer) return text;
    size_t index, seen = 0;
    json_t* record;
    json_array_foreach(json_object_get(answer, "requests"), index, record) {
        const char* name = json_string_value(json_object_get(record, "endpoint"));
        if (!name || endpoint != name) continue;
        if (seen++ != n) continue;
        json_t* body = json_object_get(record, "json");
        json_t* element = json_array_get(json_object_get(body, (endpoint + "Request").c_str()), 0);
        if (element) {
            char* dumped = json_dumps(element, JSON_COMPACT | JSON_SORT_KEYS);
            text = dumped ? dumped : "";
            free(dumped);
        }
        break;
    }
    json_decref(answer);
    return text;
}

inline size_t count_of(const std::vector<std::string>& names, const std::string& name) {
    size_t n = 0;
    for (const auto& each : names) n += each == name;
    return n;
}

inline std::string sas_config_text(const std::string& url, const std::string& status) {
    return "config config 'config'\n"
           "\toption enableMode '1'\n\toption usedp '0'\n\toption sasStepChoice '0'\n"
           "\toption address '" + url + "'\n"
           "\toption userId 'test-user'\n\toption fccId 'TESTFCC01'\n"
           "\toption serialNumber 'SN0001'\n\toption callSign 'CALL'\n"
           "\toption cbsdCategory 'B'\n\toption radioTechnology 'E_UTRA'\n"
           "\toption antennaGain '6'\n\toption antennaModel 'model'\n"
           "\toption antennaBeamwidth '360'\n\toption antennaDowntilt '0'\n"
           "\toption antennaAzimuth '0'\n\n"
           "config cpi 'cpi'\n"
           "\toption latitude '37.4'\n\toption longitude '-122.1'\n\toption height '5'\n"
           "\toption heightUnit '0'\n\toption heightType 'AGL'\n\toption indoorDeployment '1'\n\n"
           "config sasConfig 'sasConfig'\n"
           "\toption RadioEnable '0'\n\toption maxEirp '23'\n"
           "\toption powerSpectralDensity ''\n"
           "\toption grantExpireTime ''\n\toption transmitExpireTime ''\n\n"
           "config operation 'operation'\n"
           "\toption status '" + status + "'\n\toption GrantRenew '0'\n\n"
           "config cert 'cert'\n"
           "\toption clientCertFileName 'cbsd.pem'\n\toption clientKeyFileName 'cbsd.key'\n"
           "\toption serverCAFileName 'ca.pem'\n\toption cpiKeyFileName ''\n"
           "\toption cpiKeyFilePassword ''\n\n"
           "config cellInfo 'cellInfo'\n"
           "\toption lowFrequency '3615.0'\n\toption highFrequency '3635.0'\n"
           "\toption bandwidth '20'\n";
}

// The simulator process and the device's credentials, once per test binary.
class SimulatorProcess {
public:
    static bool start(std::string& url) {
        // Test processes run in parallel; the first one makes the PKI, the others wait.
        shell("flock " + kPkiDir + ".lock /usr/bin/python3 " + kSourceDir +
              "/tests/sas_sim/pki.py " + kPkiDir + " >/dev/null 2>&1");
        shell("cd " + kSourceDir + "/tests/sas_sim && /usr/bin/python3 -c 'import pki; "
              "pki.install_device_certs(\"" + kPkiDir + "\", cpi_key=None)'");
        shell("mkdir -p " + kSimDir + " /root/sas /etc/lab");
        std::string script = kSourceDir + "/tests/sas_sim/sas_sim.py";
        std::vector<std::string> args = {"/usr/bin/python3", script, "--control-dir", kSimDir,
                                         "--cert", kPkiDir + "/server.pem",
                                         "--key", kPkiDir + "/server.key",
                                         "--client-ca", kPkiDir + "/ca.pem",
                                         "--host", "127.0.0.1", "--port", "0",
                                         "--base-path", "/v1.2", "--heartbeat-interval", "60"};
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        if (posix_spawn(&pid(), argv[0], nullptr, nullptr, argv.data(), environ) != 0)
            return false;
        if (!wait_until([] { return file_exists(kSimDir + "/port"); }, 20)) return false;
        std::string port = read_file(kSimDir + "/port");
        while (!port.empty() && (port.back() == '\n' || port.back() == ' ')) port.pop_back();
        url = "https://127.0.0.1:" + port + "/v1.2";
        return true;
    }
    static void stop() {
        if (pid() > 0) {
            kill(pid(), SIGTERM);
            int status = 0;
            waitpid(pid(), &status, 0);
            pid() = 0;
        }
    }

private:
    static pid_t& pid() {
        static pid_t value = 0;
        return value;
    }
};

}  // namespace cbsd::test
