// The serving cell's range into section cellInfo: waited for or read now,
// and what the store and the log then hold.
#include "daemon/cell_range_update.h"

#include "config/uci_store.h"
#include "daemon/profile_fixture.h"
#include "modem/cell_fixture.h"
#include "modem/lab_modem.h"
#include "modem/lte_info.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <string>

namespace cbsd::daemon {
namespace {

using test::FakeClock;

class CellRangeUpdate : public test::CellFixture {
protected:
    // Section cellInfo holds this range.
    void expect_range(const char* low, const char* high, const char* bandwidth) {
        EXPECT_EQ(cell("lowFrequency"), low);
        EXPECT_EQ(cell("highFrequency"), high);
        EXPECT_EQ(cell("bandwidth"), bandwidth);
    }
};

TEST_F(CellRangeUpdate, WaitAndStoreWritesRangeOfAPlausibleCell) {
    test::set_lab_modem(R"({"netstat": 4, "dlfreq": 3625000, "bandwidth": 20})");
    EXPECT_EQ(wait_and_store_cell_range(5), 0);
    expect_range("3615.0", "3635.0", "20");
    test::expect_in_order(log_text(), {"[SAS] LTE accesses network success.\n",
                                       "[SAS] lowFreq = 3615.0\n", "[SAS] higFreq = 3635.0\n",
                                       "[SAS] bandWidth = 20\n"});
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
    expect_range("3598.5", "3601.5", "3");
}

TEST_F(CellRangeUpdate, StoreKeepsImplausibleValuesUnchecked) {
    test::set_lab_modem(R"({"netstat": 1, "dlfreq": 5000000, "bandwidth": 21})");
    store_cell_range();
    expect_range("4989.5", "5010.5", "21");
}

TEST_F(CellRangeUpdate, StoreWritesFailedReadingsAsComputed) {
    test::set_lab_modem(R"({})");
    store_cell_range();
    expect_range("0.5", "-0.5", "-1");
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
    expect_range("3598.5", "3601.5", "3");
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
    expect_range("3615.0", "3635.0", "20");
    EXPECT_NE(log_text().find("[SAS] the modem manager did not answer, the cell range stays.\n"),
              std::string::npos) << log_text();
    test::set_lab_modem(R"({"dlfreq": 3700000, "bandwidth": 10})");
    store_cell_range();
    EXPECT_EQ(cell("lowFrequency"), "3695.0");
}

}  // namespace
}  // namespace cbsd::daemon
