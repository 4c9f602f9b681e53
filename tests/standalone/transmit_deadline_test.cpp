#include "standalone/transmit_deadline.h"

#include "config/uci_store.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <thread>
#include <string>

namespace cbsd::standalone {
namespace {

constexpr int64_t kWall = 1714564800;  // 2024-05-01T12:00:00Z
constexpr int64_t kReceived = 5000000;  // monotonic ms at receipt

TEST(TransmitDeadline, ReceiptPlusLeadPlusGrace) {
    EXPECT_EQ(transmit_deadline_from(kWall + 120, kWall, kReceived, 240),
              kReceived + 120000 + kTransmitGraceMs);
}

TEST(TransmitDeadline, LeadIsCapped) {
    EXPECT_EQ(transmit_deadline_from(kWall + 3600, kWall, kReceived, 240),
              kReceived + 240000 + kTransmitGraceMs);
}

TEST(TransmitDeadline, TimeAlreadyPastLeavesOnlyWhatRemainsOfTheGrace) {
    EXPECT_EQ(transmit_deadline_from(kWall - 10, kWall, kReceived, 240), kReceived + kTransmitGraceMs - 10000);
    EXPECT_LT(transmit_deadline_from(kWall - 3600, kWall, kReceived, 240), kReceived);
}

// The wall clock is read once, at receipt: a later step of it cannot move a
// deadline that lives on the monotonic clock.
TEST(TransmitDeadline, FarFutureAndPast2038StayInRange) {
    int64_t after2038 = int64_t{2222121600};
    EXPECT_EQ(transmit_deadline_from(after2038 + 60, after2038, kReceived, 240),
              kReceived + 60000 + kTransmitGraceMs);
    EXPECT_EQ(transmit_deadline_from(after2038, 0, kReceived, 240), kReceived + 240000 + kTransmitGraceMs);
}

TEST(TransmitDeadline, LeadIsMeasuredFromTheLaterOfTheTwoClocks) {
    int64_t sas = kWall;
    EXPECT_EQ(lead_reference(kWall - 3600, &sas), kWall);
    EXPECT_EQ(lead_reference(kWall + 3600, &sas), kWall + 3600);
    EXPECT_EQ(lead_reference(kWall - 3600, nullptr), kWall - 3600);
}

// A wall clock an hour behind the SAS's would make a 20 s transmit time look
// an hour away (capped to the maximum lead): the SAS's stated time keeps the
// deadline at its 20 s.
TEST(TransmitDeadline, AWallClockBehindTheSasDoesNotLengthenTheLead) {
    int64_t sas = kWall;
    int64_t behind = kWall - 3600;
    EXPECT_EQ(transmit_deadline_from(kWall + 20, lead_reference(behind, &sas), kReceived, 240),
              kReceived + 20000 + kTransmitGraceMs);
    EXPECT_EQ(transmit_deadline_from(kWall + 20, lead_reference(behind, nullptr), kReceived, 240),
              kReceived + 240000 + kTransmitGraceMs);
}

TEST(TransmitDeadline, HeldUntilItPassesAndDroppedAtOnce) {
    drop_transmit_deadline();
    EXPECT_FALSE(transmit_deadline_held(kReceived));
    hold_transmit_deadline(kReceived + 1000);
    EXPECT_TRUE(transmit_deadline_held(kReceived));
    EXPECT_TRUE(transmit_deadline_held(kReceived + 999));
    EXPECT_FALSE(transmit_deadline_held(kReceived + 1000));
    hold_transmit_deadline(kReceived + 1000);
    drop_transmit_deadline();
    EXPECT_FALSE(transmit_deadline_held(kReceived));
}

// The worker's own check (more than 30 s past transmitExpireTime, every
// second) comes first on the normal path; the deadline only backs it up.
TEST(TransmitDeadline, GraceLeavesTheWorkersExpiryCheckItsTurn) {
    EXPECT_GE(kTransmitGraceMs, 32000);
    EXPECT_LE(kTransmitGraceMs, 40000);  // far inside the minute past expiry
}

TEST(TransmitDeadline, EndingWithinBringsTheDeadlineForwardOnly) {
    hold_transmit_deadline(kReceived + 60000);
    end_transmission_within(kReceived, 700);
    EXPECT_EQ(transmit_deadline_ms_left(kReceived), 700);
    end_transmission_within(kReceived, 5000);  // never later again
    EXPECT_EQ(transmit_deadline_ms_left(kReceived), 700);
    EXPECT_EQ(transmit_deadline_ms_left(kReceived + 900), 0);
    drop_transmit_deadline();
    end_transmission_within(kReceived, 700);  // nothing held: nothing to end
    EXPECT_EQ(transmit_deadline_ms_left(kReceived), -1);
}

// The guard sleeps on the change: a drop wakes it at once, not a period later.
TEST(TransmitDeadline, AChangeWakesTheWaiterAtOnce) {
    hold_transmit_deadline(kReceived + 60000);
    wait_for_deadline_change(0);  // take the change just made
    auto started = std::chrono::steady_clock::now();
    std::thread dropper([] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        drop_transmit_deadline();
    });
    wait_for_deadline_change(5000);
    auto waited = std::chrono::steady_clock::now() - started;
    dropper.join();
    EXPECT_GE(waited, std::chrono::milliseconds(90));
    EXPECT_LT(waited, std::chrono::milliseconds(2000));
}

TEST(TransmitDeadline, WithoutAChangeTheWaitLastsItsTime) {
    wait_for_deadline_change(0);
    auto started = std::chrono::steady_clock::now();
    wait_for_deadline_change(150);
    EXPECT_GE(std::chrono::steady_clock::now() - started, std::chrono::milliseconds(140));
}

TEST(TransmitDeadline, MaximumLeadFromTheConfiguration) {
    ASSERT_TRUE(test::write_file(config::kSasConfigPath, "config sas 'config'\n"));
    EXPECT_EQ(max_transmit_lead_seconds(), 240u);
    for (const char* bad : {"", "abc", "0", "-5", "86401", "12x"}) {
        config::config_set(config::kSasConfigPath, "config", "maxTransmitLead", bad);
        EXPECT_EQ(max_transmit_lead_seconds(), 240u) << bad;
    }
    config::config_set(config::kSasConfigPath, "config", "maxTransmitLead", "120");
    EXPECT_EQ(max_transmit_lead_seconds(), 120u);
}

}  // namespace
}  // namespace cbsd::standalone
