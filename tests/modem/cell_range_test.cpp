#include "config/uci_store.h"
#include "modem/lab_modem.h"
#include "modem/modem.h"
#include "base/clock.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <sys/stat.h>

namespace cbsd::modem {
namespace {

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

constexpr const char* kSasFile =
    "config sas 'config'\n"
    "\toption enableMode '0'\n"
    "\n"
    "config sas 'cellInfo'\n";

class CellRange : public ::testing::Test {
protected:
    void SetUp() override {
        base::set_clock({nullptr, FakeClock::now_seconds, FakeClock::sleep_ms});
        FakeClock::now_ms = 7'000'000;  // arbitrary start: only differences count
        FakeClock::sleeps = 0;
        FakeClock::step_ms = 0;
        FakeClock::on_sleep = nullptr;
        mkdir("/root/sas", 0755);
        test::write_file("/root/sas/sas.log", "");
        test::write_file(config::kSasConfigPath, kSasFile);
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
    static std::string log_text() { return test::read_file("/root/sas/sas.log"); }
};

TEST_F(CellRange, WaitForLteReturnsAtOnceWhenAttachedWithFrequency) {
    test::set_lab_modem(R"({"netstat": 4, "dlfreq": 3625000})");
    EXPECT_EQ(wait_for_lte(5), 0);
    EXPECT_EQ(FakeClock::sleeps, 0);
}

TEST_F(CellRange, WaitForLteTimesOutOnceTheLimitLiesInThePast) {
    test::set_lab_modem(R"({"netstat": 1})");
    EXPECT_EQ(wait_for_lte(5), -1);
    // Polls every 500 ms; gives up when more than 5 whole seconds have passed.
    EXPECT_EQ(FakeClock::sleeps, 12);
    // Not attached: the frequency is never asked for, so no frequency error.
    EXPECT_EQ(log_text().find("get frequency error"), std::string::npos) << log_text();
}

TEST_F(CellRange, WaitForLteKeepsWaitingWhileFrequencyIsBelowOne) {
    test::set_lab_modem(R"({"netstat": 4, "dlfreq": 99})");
    EXPECT_EQ(wait_for_lte(2), -1);
    EXPECT_EQ(FakeClock::sleeps, 6);
}

TEST_F(CellRange, WaitForLteWithoutTimeLimitWaitsUntilAttached) {
    test::set_lab_modem(R"({"netstat": 1, "dlfreq": 3625000})");
    FakeClock::step_ms = 1000 * 1000;  // far beyond any limit
    FakeClock::on_sleep = [](int sleeps) {
        if (sleeps == 4) test::set_lab_modem(R"({"netstat": 4, "dlfreq": 3625000})");
    };
    EXPECT_EQ(wait_for_lte(0), 0);
    EXPECT_EQ(FakeClock::sleeps, 4);
}

TEST_F(CellRange, WaitForLteWithNegativeTimeLimitAlsoWaits) {
    test::set_lab_modem(R"({"netstat": 1, "dlfreq": 3625000})");
    FakeClock::step_ms = 1000 * 1000;
    FakeClock::on_sleep = [](int sleeps) {
        if (sleeps == 3) test::set_lab_modem(R"({"netstat": 4, "dlfreq": 3625000})");
    };
    EXPECT_EQ(wait_for_lte(-1), 0);
    EXPECT_EQ(FakeClock::sleeps, 3);
}

TEST_F(CellRange, WaitAndStoreWritesRangeOfAPlausibleCell) {
    test::set_lab_modem(R"({"netstat": 4, "dlfreq": 3625000, "bandwidth": 20})");
    EXPECT_EQ(wait_and_store_cell_range(5), 0);
    EXPECT_EQ(cell("lowFrequency"), "3615.0");
    EXPECT_EQ(cell("highFrequency"), "3635.0");
    EXPECT_EQ(cell("bandwidth"), "20");
    std::string log = log_text();
    size_t success = log.find("[SAS] LTE accesses network success.\n");
    size_t low = log.find("[SAS] lowFreq = 3615.0\n");
    size_t high = log.find("[SAS] higFreq = 3635.0\n");
    size_t width = log.find("[SAS] bandWidth = 20\n");
    ASSERT_NE(success, std::string::npos) << log;
    ASSERT_NE(width, std::string::npos) << log;
    EXPECT_LT(success, low);
    EXPECT_LT(low, high);
    EXPECT_LT(high, width);
}

TEST_F(CellRange, WaitAndStoreRejectsBandwidthOfTwentyOneOrMore) {
    test::set_lab_modem(R"({"netstat": 4, "dlfreq": 3625000, "bandwidth": 21})");
    EXPECT_EQ(wait_and_store_cell_range(1), -1);
    EXPECT_EQ(cell("lowFrequency"), "");
    EXPECT_EQ(cell("bandwidth"), "");
    EXPECT_EQ(log_text().find("success"), std::string::npos);
}

TEST_F(CellRange, WaitAndStoreRejectsFrequencyOfFiftyThousandTenths) {
    test::set_lab_modem(R"({"netstat": 4, "dlfreq": 5000000, "bandwidth": 20})");
    EXPECT_EQ(wait_and_store_cell_range(1), -1);
    EXPECT_EQ(cell("lowFrequency"), "");
    test::set_lab_modem(R"({"netstat": 4, "dlfreq": 4999999, "bandwidth": 20})");
    EXPECT_EQ(wait_and_store_cell_range(1), 0);
    EXPECT_EQ(cell("lowFrequency"), "4989.9");
}

TEST_F(CellRange, WaitAndStoreNeedsTheModemAttached) {
    test::set_lab_modem(R"({"netstat": 1, "dlfreq": 3625000, "bandwidth": 20})");
    EXPECT_EQ(wait_and_store_cell_range(1), -1);
    EXPECT_EQ(cell("bandwidth"), "");
}

TEST_F(CellRange, WaitAndStoreWithoutTimeLimitWaitsForPlausibleValues) {
    test::set_lab_modem(R"({"netstat": 4, "dlfreq": 3625000, "bandwidth": 0})");
    FakeClock::step_ms = 1000 * 1000;
    FakeClock::on_sleep = [](int sleeps) {
        if (sleeps == 2)
            test::set_lab_modem(R"({"netstat": 4, "dlfreq": 3600000, "bandwidth": 3})");
    };
    EXPECT_EQ(wait_and_store_cell_range(0), 0);
    EXPECT_EQ(FakeClock::sleeps, 2);
    EXPECT_EQ(cell("lowFrequency"), "3598.5");
    EXPECT_EQ(cell("highFrequency"), "3601.5");
    EXPECT_EQ(cell("bandwidth"), "3");
}

TEST_F(CellRange, StoreKeepsImplausibleValuesUnchecked) {
    test::set_lab_modem(R"({"netstat": 1, "dlfreq": 5000000, "bandwidth": 21})");
    store_cell_range();
    EXPECT_EQ(cell("lowFrequency"), "4989.5");
    EXPECT_EQ(cell("highFrequency"), "5010.5");
    EXPECT_EQ(cell("bandwidth"), "21");
}

TEST_F(CellRange, StoreWritesFailedReadingsAsComputed) {
    test::set_lab_modem(R"({})");
    store_cell_range();
    EXPECT_EQ(cell("lowFrequency"), "0.5");
    EXPECT_EQ(cell("highFrequency"), "-0.5");
    EXPECT_EQ(cell("bandwidth"), "-1");
    std::string log = log_text();
    EXPECT_NE(log.find("[SAS] lowFreq = 0.5\n"), std::string::npos) << log;
    EXPECT_NE(log.find("[SAS] higFreq = -0.5\n"), std::string::npos) << log;
    EXPECT_NE(log.find("[SAS] bandWidth = -1\n"), std::string::npos) << log;
    // Bandwidth is read before frequency.
    EXPECT_NE(log.find("get frequency error:"), std::string::npos);
}

TEST_F(CellRange, StoreOddBandwidthGivesHalfMegahertzEdges) {
    test::set_lab_modem(R"({"netstat": 4, "dlfreq": 3600000, "bandwidth": 3})");
    store_cell_range();
    EXPECT_EQ(cell("lowFrequency"), "3598.5");
    EXPECT_EQ(cell("highFrequency"), "3601.5");
    EXPECT_EQ(cell("bandwidth"), "3");
}

TEST_F(CellRange, StoreWithoutCellInfoSectionWritesNothingAndDoesNotFail) {
    test::write_file(config::kSasConfigPath, "config sas 'config'\n");
    test::set_lab_modem(R"({"netstat": 4, "dlfreq": 3625000, "bandwidth": 20})");
    store_cell_range();
    EXPECT_EQ(test::read_file(config::kSasConfigPath).find("lowFrequency"), std::string::npos);
}

}  // namespace
}  // namespace cbsd::modem
