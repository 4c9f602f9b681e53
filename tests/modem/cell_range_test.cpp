// Waits for the modem's attachment and reads of the serving cell's range.
#include "modem/cell_range.h"

#include "modem/cell_fixture.h"
#include "modem/lab_modem.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <string>

namespace cbsd::modem {
namespace {

using test::FakeClock;

class CellRange : public test::CellFixture {};

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

TEST_F(CellRange, WaitForCellRangeGivesTheRangeOfAPlausibleCellAndStoresNothing) {
    test::set_lab_modem(R"({"netstat": 4, "dlfreq": 3625000, "bandwidth": 20})");
    modem::CellRange range{};
    EXPECT_EQ(wait_for_cell_range(5, range), 0);
    EXPECT_STREQ(range.lowFrequency, "3615.0");
    EXPECT_STREQ(range.highFrequency, "3635.0");
    EXPECT_STREQ(range.bandwidth, "20");
    EXPECT_EQ(cell("lowFrequency"), "");
    EXPECT_NE(log_text().find("[SAS] LTE accesses network success.\n"), std::string::npos);
}

TEST_F(CellRange, ReadCellRangeOfARefusingModemManagerSaysNothing) {
    test::set_lab_modem(R"({"registered": false, "dlfreq": 3700000, "bandwidth": 10})");
    modem::CellRange range{};
    EXPECT_FALSE(read_cell_range(range));
    EXPECT_STREQ(range.lowFrequency, "");
    EXPECT_NE(log_text().find("[SAS] the modem manager did not answer, the cell range stays.\n"),
              std::string::npos) << log_text();
}

}  // namespace
}  // namespace cbsd::modem
