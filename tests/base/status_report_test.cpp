#include "base/cbsd_state.h"
#include "base/clock.h"
#include "base/failure_streaks.h"
#include "base/status_history.h"
#include "base/status_report.h"

#include <gtest/gtest.h>

#include <string>

using namespace cbsd::base;

namespace {

time_t g_wall = 1'800'000'000;
time_t fake_wall() { return g_wall; }

class StatusReportTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_wall = 1'800'000'000;
        set_clock(Clock{fake_wall, nullptr, nullptr});
        reset_status_report();
    }
    void TearDown() override {
        reset_status_report();
        reset_command_streaks();
        set_clock({});
    }
};

std::vector<HistoryEntry> history_now() { return history_copy(g_wall); }

}  // namespace

TEST_F(StatusReportTest, AStateChangeCountsOnceAndIsOneHistoryEntry) {
    report_state("Registered");
    report_state("Registered");
    EXPECT_EQ(state_change_count(), 1u);
    StatusReport report = status_copy();
    EXPECT_STREQ(report.state, "Registered");
    EXPECT_EQ(report.stateChanges, 1u);
    auto history = history_now();
    ASSERT_EQ(history.size(), 1u);
    EXPECT_EQ(history[0].kind, HistoryKind::kState);
    EXPECT_EQ(history[0].value, kRegistered);
    EXPECT_EQ(history[0].time, 1'800'000'000u);
}

TEST_F(StatusReportTest, ModeRepeatedEveryPassCountsNoChange) {
    report_mode(true, false, false);
    report_mode(true, false, false);
    report_mode(true, false, false);
    EXPECT_EQ(state_change_count(), 1u);
    report_mode(true, false, true);  // RadioEnable "1"
    report_mode(true, true, true);   // DP mode
    EXPECT_EQ(state_change_count(), 3u);
    StatusReport report = status_copy();
    EXPECT_TRUE(report.modeKnown && report.sasEnabled && report.dpMode && report.radioEnable);
    auto history = history_now();
    ASSERT_EQ(history.size(), 4u);  // the first pass: SAS and radio; then radio; then mode
    EXPECT_EQ(history[0].kind, HistoryKind::kSas);
    EXPECT_EQ(history[0].value, kSasStandAlone);
    EXPECT_EQ(history[3].kind, HistoryKind::kSas);
    EXPECT_EQ(history[3].value, kSasDp);
}

TEST_F(StatusReportTest, EachGateChangeCountsAndASwitchToTheSameStateDoesNot) {
    report_gate(Gate::kForwarding, false);
    report_gate(Gate::kIcmp, false);
    report_gate(Gate::kBridge, false);
    report_gate(Gate::kForwarding, false);  // the next pass re-asserts
    EXPECT_EQ(state_change_count(), 3u);
    report_gate(Gate::kIcmp, true);
    EXPECT_EQ(state_change_count(), 4u);
    StatusReport report = status_copy();
    EXPECT_EQ(report.gates[0], GateState::kClosed);
    EXPECT_EQ(report.gates[1], GateState::kOpen);
    EXPECT_EQ(report.gates[2], GateState::kClosed);
    auto history = history_now();
    ASSERT_EQ(history.size(), 4u);
    EXPECT_EQ(history[0].value, 0b000001);  // forwarding known and closed, the others unknown
    EXPECT_EQ(history[3].value, 0b011101);  // icmp open
}

TEST_F(StatusReportTest, UnregisteredForgetsIdsAndGrantRegisteredOnlyTheGrant) {
    report_state("Authorized");
    report_cbsd_id("cbsd-7");
    report_grant("grant-3", 3550000000u, 3560000000u, 20);
    report_grant_expire_time("2027-01-01T00:00:00Z");
    report_transmit_expire_time("2026-01-01T00:04:00Z");
    report_state("Registered");
    StatusReport report = status_copy();
    EXPECT_STREQ(report.cbsdId, "cbsd-7");
    EXPECT_STREQ(report.grantId, "");
    EXPECT_STREQ(report.grantExpireTime, "");
    EXPECT_STREQ(report.transmitExpireTime, "");
    EXPECT_FALSE(report.grant.held);
    report_state("Unregistered");
    EXPECT_STREQ(status_copy().cbsdId, "");
}

TEST_F(StatusReportTest, TextsLongerThanTheirFieldAreCut) {
    std::string id(300, 'x');
    report_cbsd_id(id.c_str());
    EXPECT_EQ(std::string(status_copy().cbsdId), std::string(127, 'x'));
    report_cbsd_id(nullptr);
    EXPECT_STREQ(status_copy().cbsdId, "");
}

TEST_F(StatusReportTest, ExchangesCountAFailureStreakUntilASuccess) {
    report_exchange(Request::kHeartbeat, false, 0);
    g_wall += 5;
    report_exchange(Request::kHeartbeat, true, 501);
    StatusReport report = status_copy();
    EXPECT_EQ(report.exchangeFailures, 2u);
    EXPECT_EQ(report.exchangeFailingSince, 1'800'000'000);
    EXPECT_EQ(report.lastExchange.responseCode, 501);
    EXPECT_TRUE(report.lastExchange.replied);
    EXPECT_EQ(report.lastExchange.time, 1'800'000'005);
    report_exchange(Request::kHeartbeat, true, 0);
    EXPECT_EQ(status_copy().exchangeFailures, 0u);
    EXPECT_EQ(state_change_count(), 0u);  // exchanges alone are no state change
    auto history = history_now();
    ASSERT_EQ(history.size(), 3u);
    EXPECT_EQ(history[1].kind, HistoryKind::kRequest);
    EXPECT_EQ(history[1].value, static_cast<uint8_t>(Request::kHeartbeat));
    EXPECT_EQ(history[1].flags, 1);
    EXPECT_EQ(history[1].code, 501);
    EXPECT_EQ(history[0].flags, 0);
}

TEST_F(StatusReportTest, AFailureKeepsTheTimeItStarted) {
    report_failure(Failure::kStoreWrite, true);
    g_wall += 60;
    report_failure(Failure::kStoreWrite, true);
    StatusReport report = status_copy();
    EXPECT_TRUE(report.failing[0]);
    EXPECT_EQ(report.failingSince[0], 1'800'000'000);
    report_failure(Failure::kStoreWrite, false);
    EXPECT_FALSE(status_copy().failing[0]);
}

TEST_F(StatusReportTest, HistoryServesOnlyTheLastHour) {
    report_state("Registered");
    g_wall += kHistorySeconds + 1;
    report_state("Granted");
    auto history = history_now();
    ASSERT_EQ(history.size(), 1u);
    EXPECT_EQ(history[0].value, kGranted);
}

TEST_F(StatusReportTest, HistoryRingKeepsTheNewestEntriesWhenFull) {
    for (size_t i = 0; i < kHistoryCapacity + 10; ++i)
        report_exchange(Request::kHeartbeat, true, static_cast<int32_t>(i));
    auto history = history_now();
    ASSERT_EQ(history.size(), kHistoryCapacity);
    EXPECT_EQ(history.front().code, 10);
    EXPECT_EQ(history.back().code, static_cast<int32_t>(kHistoryCapacity + 9));
}

TEST_F(StatusReportTest, CommandStreaksCarryTheirNameCountAndStart) {
    note_command_failure("ubus call ubus_lte getlteinfo", 4, "Command failed: Not found");
    g_wall += 5;
    note_command_failure("ubus call ubus_lte getlteinfo", 4, "Command failed: Not found");
    auto streaks = command_streaks();
    ASSERT_EQ(streaks.size(), 1u);
    EXPECT_STREQ(streaks[0].name, "ubus call ubus_lte getlteinfo");
    EXPECT_EQ(streaks[0].failures, 2u);
    EXPECT_EQ(streaks[0].since, 1'800'000'000);
    note_command_success("ubus call ubus_lte getlteinfo");
    EXPECT_TRUE(command_streaks().empty());
}

TEST(StatusNames, NamesOfGatesRequestsAndFailures) {
    EXPECT_STREQ(gate_name(Gate::kBridge), "bridge");
    EXPECT_STREQ(request_name(Request::kSpectrumInquiry), "spectrumInquiry");
    EXPECT_STREQ(request_name(Request::kDeregistration), "deregistration");
    EXPECT_STREQ(failure_name(Failure::kSasCaMissing), "sas_ca_missing");
}
