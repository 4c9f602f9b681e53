// The serving cell's tests: a modem stand-in, a store with section cellInfo,
// a fresh log and a clock that moves only when a poll sleeps.  The modem's
// reading and the daemon's storing of the cell range share it.
#pragma once

#include "base/clock.h"
#include "config/uci_store.h"
#include "modem/lab_modem.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <sys/stat.h>

namespace cbsd::test {

// A clock that moves only when the loop sleeps, so time-outs pass at once.
struct FakeClock {
    static inline uint64_t now_ms = 0;
    static inline int sleeps = 0;
    static inline uint32_t step_ms = 0;  // 0: advance by the requested time
    static inline std::function<void(int)> on_sleep;

    static uint32_t now_seconds() { return static_cast<uint32_t>(now_ms / 1000); }
    static void sleep_ms(uint32_t ms) {
        now_ms += step_ms ? step_ms : ms;
        ++sleeps;
        if (on_sleep) on_sleep(sleeps);
    }
};

inline constexpr const char* kCellSasFile =
    "config sas 'config'\n"
    "\toption enableMode '0'\n"
    "\n"
    "config sas 'cellInfo'\n";

class CellFixture : public ::testing::Test {
protected:
    void SetUp() override {
        base::set_clock({nullptr, FakeClock::now_seconds, FakeClock::sleep_ms});
        FakeClock::now_ms = 7'000'000;  // arbitrary start: only differences count
        FakeClock::sleeps = 0;
        FakeClock::step_ms = 0;
        FakeClock::on_sleep = nullptr;
        mkdir("/root/sas", 0755);
        write_file("/root/sas/sas.log", "");
        write_file(config::kSasConfigPath, kCellSasFile);
    }
    void TearDown() override {
        base::set_clock({});
        FakeClock::on_sleep = nullptr;
    }
    static std::string cell(const char* option) {
        char value[64] = {};
        config::config_get(config::kSasConfigPath, "cellInfo", option, value, sizeof value);
        return value;
    }
    static std::string log_text() { return read_file("/root/sas/sas.log"); }
};

}  // namespace cbsd::test
