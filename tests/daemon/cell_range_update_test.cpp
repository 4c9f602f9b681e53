// The serving cell's range into section cellInfo: waited for or read now,
// and what the store and the log then hold.
#include "daemon/cell_range_update.h"

#include "config/uci_store.h"
#include "modem/cell_fixture.h"
#include "modem/lab_modem.h"
#include "modem/lte_info.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <string>

namespace cbsd::daemon {
namespace {

using test::FakeClock;

class CellRangeUpdate : public test::CellFixture {};

TEST_F(CellRangeUpdate, WaitAndStoreWritesRangeOfAPlausibleCell) {
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

TEST_F(CellRangeUpdate, WaitAndStoreRejectsBandwidthOfTwentyOneOrMore) {
    test::set_lab_modem(R"({"netstat": 4, "dlfreq": 3625000, "bandwidth": 21})");
    EXPECT_EQ(wait_and_store_cell_range(1), -1);
    EXPECT_EQ(cell("lowFrequency"), "");
    EXPECT_EQ(cell("bandwidth"), "");
    EXPECT_EQ(log_text().find("success"), std::string::npos);
}

TEST_F(CellRangeUpdate, WaitAndStoreRejectsFrequencyOfFiftyThousandTenths) {
    test::set_lab_modem(R"({"netstat": 4, "dlfreq": 5000000, "bandwidth": 20})");
    EXPECT_EQ(wait_and_store_cell_range(1), -1);
    EXPECT_EQ(cell("lowFrequency"), "");
    test::set_lab_modem(R"({"netstat": 4, "dlfreq": 4999999, "bandwidth": 20})");
    EXPECT_EQ(wait_and_store_cell_range(1), 0);
    EXPECT_EQ(cell("lowFrequency"), "4989.9");
}

TEST_F(CellRangeUpdate, WaitAndStoreNeedsTheModemAttached) {
    test::set_lab_modem(R"({"netstat": 1, "dlfreq": 3625000, "bandwidth": 20})");
    EXPECT_EQ(wait_and_store_cell_range(1), -1);
    EXPECT_EQ(cell("bandwidth"), "");
}

TEST_F(CellRangeUpdate, WaitAndStoreWithoutTimeLimitWaitsForPlausibleValues) {
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

TEST_F(CellRangeUpdate, StoreKeepsImplausibleValuesUnchecked) {
    test::set_lab_modem(R"({"netstat": 1, "dlfreq": 5000000, "bandwidth": 21})");
    store_cell_range();
    EXPECT_EQ(cell("lowFrequency"), "4989.5");
    EXPECT_EQ(cell("highFrequency"), "5010.5");
    EXPECT_EQ(cell("bandwidth"), "21");
}

TEST_F(CellRangeUpdate, StoreWritesFailedReadingsAsComputed) {
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

TEST_F(CellRangeUpdate, StoreOddBandwidthGivesHalfMegahertzEdges) {
    test::set_lab_modem(R"({"netstat": 4, "dlfreq": 3600000, "bandwidth": 3})");
    store_cell_range();
    EXPECT_EQ(cell("lowFrequency"), "3598.5");
    EXPECT_EQ(cell("highFrequency"), "3601.5");
    EXPECT_EQ(cell("bandwidth"), "3");
}

TEST_F(CellRangeUpdate, StoreWithoutCellInfoSectionWritesNothingAndDoesNotFail) {
    test::write_file(config::kSasConfigPath, "config sas 'config'\n");
    test::set_lab_modem(R"({"netstat": 4, "dlfreq": 3625000, "bandwidth": 20})");
    store_cell_range();
    EXPECT_EQ(test::read_file(config::kSasConfigPath).find("lowFrequency"), std::string::npos);
}

TEST_F(CellRangeUpdate, ARefusedInfoQueryIsMarkedAndKeepsTheStoredCellRange) {
    test::set_lab_modem(R"({"dlfreq": 3625000, "bandwidth": 20})");
    store_cell_range();
    EXPECT_FALSE(modem::lte_info_refused());
    ASSERT_EQ(cell("lowFrequency"), "3615.0");
    test::set_lab_modem(R"({"registered": false, "dlfreq": 3700000, "bandwidth": 10})");
    store_cell_range();
    EXPECT_TRUE(modem::lte_info_refused());
    EXPECT_EQ(cell("lowFrequency"), "3615.0");
    EXPECT_EQ(cell("highFrequency"), "3635.0");
    EXPECT_EQ(cell("bandwidth"), "20");
    EXPECT_NE(log_text().find("[SAS] the modem manager did not answer, the cell range stays.\n"),
              std::string::npos) << log_text();
    test::set_lab_modem(R"({"dlfreq": 3700000, "bandwidth": 10})");
    store_cell_range();
    EXPECT_EQ(cell("lowFrequency"), "3695.0");
}

}  // namespace
}  // namespace cbsd::daemon
