// What the StandAlone worker's tests share, whoever plays the SAS (the
// scripted one in process, or the simulator of support/sas_simulator.h): a
// pass clock whose sleeps the test releases one at a time, waits, a quiet
// system logger, and a sample /etc/config/sas.
#pragma once

#include "standalone/worker_control.h"
#include "standalone/standalone_thread.h"
#include "support/sas_simulator.h"
#include "support/test_util.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <functional>
#include <mutex>
#include <string>
#include <unistd.h>
#include <vector>

namespace cbsd::test {

inline const std::string kSourceDir = CBSD_SOURCE_DIR;

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

// How many times `piece` stands in `text` (overlapping ones too).
inline size_t occurrences(const std::string& text, const std::string& piece) {
    size_t n = 0;
    for (size_t at = text.find(piece); at != std::string::npos; at = text.find(piece, at + 1)) ++n;
    return n;
}

}  // namespace cbsd::test
