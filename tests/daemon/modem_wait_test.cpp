// Start-up's wait for the modem manager: the profile, the first-run tag and
// the serial number come only from an answered product query; the wait polls
// every 5 s on the daemon's clock, logs its start and its end once each, and
// ends early on a stop request.
#include "daemon/modem_wait.h"

#include "base/clock.h"
#include "config/uci_store.h"
#include "daemon/profile_defaults.h"
#include "modem/lab_modem.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <sys/stat.h>

namespace cbsd::daemon {
namespace {

constexpr const char* kRegistered = R"({"productmodule": "RQ5518L-M2", "SN": "SN0042"})";
constexpr const char* kNotRegistered =
    R"({"registered": false, "productmodule": "RQ5518L-M2", "SN": "SN0042"})";
constexpr const char* kWaitStart =
    "[SAS] the modem manager (ubus_lte) does not answer, start-up waits for it.\n";

// A clock that moves only when the wait sleeps.
struct FakeClock {
    static inline uint64_t now_ms = 0;
    static inline uint64_t slept_ms = 0;
    static inline std::function<void(uint64_t)> on_sleep;  // gets the total slept

    static uint32_t now_seconds() { return static_cast<uint32_t>(now_ms / 1000); }
    static void sleep_ms(uint32_t ms) {
        now_ms += ms;
        slept_ms += ms;
        if (on_sleep) on_sleep(slept_ms);
    }
};

int polls = 0;
bool stop_now = false;
void count_poll() { ++polls; }
bool stopped() { return stop_now; }

int count(const std::string& text, const std::string& what) {
    int n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

class ModemWait : public ::testing::Test {
protected:
    void SetUp() override {
        base::set_clock({nullptr, FakeClock::now_seconds, FakeClock::sleep_ms});
        FakeClock::now_ms = 9'000'000;
        FakeClock::slept_ms = 0;
        FakeClock::on_sleep = nullptr;
        polls = 0;
        stop_now = false;
        mkdir("/root/sas", 0755);
        test::write_file("/root/sas/sas.log", "");
        test::write_file("/etc/lab/syslog.jsonl", "");
        test::write_file(config::kSasConfigPath,
                         "config sas 'config'\n\nconfig sas 'cpi'\n\nconfig sas 'sasConfig'\n\n"
                         "config sas 'operation'\n");
    }
    void TearDown() override { base::set_clock({}); }

    // The modem manager registers once the wait has slept `after_ms`.
    static void registers_after(uint64_t after_ms) {
        FakeClock::on_sleep = [after_ms](uint64_t slept) {
            if (slept == after_ms) test::set_lab_modem(kRegistered);
        };
    }
    static std::string log_text() { return test::read_file("/root/sas/sas.log"); }
    static std::string get(const char* section, const char* option) {
        char value[256] = {};
        config::config_get(config::kSasConfigPath, section, option, value, sizeof value);
        return value;
    }
};

TEST_F(ModemWait, AnAnswerAtOnceIsTheNormalStartWithoutWaitOrLogLine) {
    test::set_lab_modem(kRegistered);
    modem::ProductInfo info{};
    EXPECT_TRUE(wait_for_product_info(info, {stopped, count_poll}));
    EXPECT_STREQ(info.model, "RQ5518L-M2");
    EXPECT_EQ(FakeClock::slept_ms, 0u);
    EXPECT_EQ(polls, 0);
    EXPECT_EQ(log_text(), "");
}

TEST_F(ModemWait, WaitsInFiveSecondStepsUntilTheModemManagerAnswers) {
    test::set_lab_modem(kNotRegistered);
    registers_after(20000);
    modem::ProductInfo info{};
    EXPECT_TRUE(wait_for_product_info(info, {stopped, count_poll}));
    EXPECT_STREQ(info.model, "RQ5518L-M2");
    EXPECT_STREQ(info.serial, "SN0042");
    // Queried at 0, 5, 10, 15 (refused) and 20 s (answered).
    EXPECT_EQ(FakeClock::slept_ms, 20000u);
    EXPECT_EQ(polls, 4);
    std::string log = log_text();
    EXPECT_EQ(count(log, kWaitStart), 1) << log;
    EXPECT_EQ(count(log, "[SAS] the modem manager (ubus_lte) answers after 20 s, start-up goes on.\n"), 1)
        << log;
    std::string syslog = test::read_file("/etc/lab/syslog.jsonl");
    EXPECT_EQ(count(syslog, "does not answer, start-up waits for it."), 1) << syslog;
    EXPECT_EQ(count(syslog, "answers after 20 s"), 1) << syslog;
    // The refused queries' streak: one line when it starts, one at its end.
    EXPECT_EQ(count(log, "getproductinfo failed (exit 4): Command failed: Not found\n"), 1) << log;
    EXPECT_EQ(count(log, "getproductinfo works again after 4 failed runs.\n"), 1) << log;
}

TEST_F(ModemWait, NoUbusdIsWaitedForLikeAnUnregisteredObject) {
    test::set_lab_modem(R"({"ubusd": false, "productmodule": "RQ5518L"})");
    registers_after(5000);
    modem::ProductInfo info{};
    EXPECT_TRUE(wait_for_product_info(info, {stopped, nullptr}));
    EXPECT_STREQ(info.model, "RQ5518L-M2");
    EXPECT_NE(log_text().find("failed (exit 255): Failed to connect to ubus\n"), std::string::npos)
        << log_text();
}

TEST_F(ModemWait, AStopRequestEndsTheWaitWithinAStep) {
    test::set_lab_modem(kNotRegistered);
    FakeClock::on_sleep = [](uint64_t slept) {
        if (slept == 7000) stop_now = true;
    };
    modem::ProductInfo info{};
    EXPECT_FALSE(wait_for_product_info(info, {stopped, count_poll}));
    EXPECT_EQ(FakeClock::slept_ms, 7000u);  // seen at the next 250 ms step
    EXPECT_EQ(polls, 2);
    EXPECT_EQ(count(log_text(), "answers after"), 0);
}

TEST_F(ModemWait, NothingIsWrittenBeforeTheAnswerAndTheRowOfTheModelAfterIt) {
    test::set_lab_modem(kNotRegistered);
    // What the profile step must not write while the modem manager is silent.
    FakeClock::on_sleep = [](uint64_t slept) {
        if (slept % 5000 != 0) return;
        EXPECT_EQ(get("config", "fccId"), "");
        EXPECT_EQ(get("config", "cbsdTag"), "");
        EXPECT_EQ(get("config", "serialNumber"), "");
        if (slept == 15000) test::set_lab_modem(kRegistered);
    };
    EXPECT_TRUE(apply_profile_defaults(count_poll));
    EXPECT_EQ(polls, 3);
    EXPECT_EQ(get("config", "fccId"), "7XK44RQ5518L96");
    EXPECT_EQ(get("config", "serialNumber"), "SN0042");
    EXPECT_EQ(get("config", "antennaGain"), "14");
    EXPECT_EQ(get("sasConfig", "maxEirp"), "27");
    EXPECT_EQ(get("config", "antennaBeamwidth"), "60");  // a first run, from the model's row
    EXPECT_EQ(get("cpi", "indoorDeployment"), "0");
    EXPECT_NE(get("config", "cbsdTag"), "");
    std::string log = log_text();
    EXPECT_EQ(log.find("does not support SAS"), std::string::npos) << log;
    EXPECT_EQ(log.find("failed to get SN"), std::string::npos) << log;
    size_t wait_start = log.find(kWaitStart);
    size_t wait_end = log.find("answers after 15 s");
    size_t model = log.find("[SAS] CPE Product Model: RQ5518L-M2\n");
    ASSERT_NE(model, std::string::npos) << log;
    EXPECT_LT(wait_start, wait_end);
    EXPECT_LT(wait_end, model);
}

}  // namespace
}  // namespace cbsd::daemon
