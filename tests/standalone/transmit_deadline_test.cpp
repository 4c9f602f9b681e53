#include "standalone/transmit_deadline.h"

#include "config/uci_store.h"
#include "support/test_util.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace cbsd::standalone {
namespace {

constexpr int64_t kWall = 1714564800;  // 2024-05-01T12:00:00Z
constexpr int64_t kReceived = 5000000;  // monotonic ms at receipt

TEST(TransmitDeadline, ReceiptPlusLeadPlusGrace) {
    EXPECT_EQ(transmit_deadline_from(kWall + 120, kWall, kReceived, 240),
              kReceived + 120000 + 30000);
}

TEST(TransmitDeadline, LeadIsCapped) {
    EXPECT_EQ(transmit_deadline_from(kWall + 3600, kWall, kReceived, 240),
              kReceived + 240000 + 30000);
}

TEST(TransmitDeadline, TimeAlreadyPastLeavesOnlyWhatRemainsOfTheGrace) {
    EXPECT_EQ(transmit_deadline_from(kWall - 10, kWall, kReceived, 240), kReceived + 20000);
    EXPECT_LT(transmit_deadline_from(kWall - 3600, kWall, kReceived, 240), kReceived);
}

// The wall clock is read once, at receipt: a later step of it cannot move a
// deadline that lives on the monotonic clock.
TEST(TransmitDeadline, FarFutureAndPast2038StayInRange) {
    int64_t after2038 = int64_t{2222121600};
    EXPECT_EQ(transmit_deadline_from(after2038 + 60, after2038, kReceived, 240),
              kReceived + 90000);
    EXPECT_EQ(transmit_deadline_from(after2038, 0, kReceived, 240), kReceived + 270000);
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
              kReceived + 20000 + 30000);
    EXPECT_EQ(transmit_deadline_from(kWall + 20, lead_reference(behind, nullptr), kReceived, 240),
              kReceived + 240000 + 30000);
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

// A worker that outlived its stop may still receive a success: once fenced,
// neither its hold nor its drop changes anything, until a start lifts it.
TEST(TransmitDeadline, AFenceRefusesEveryHoldUntilItIsLifted) {
    hold_transmit_deadline(kReceived + 1000);
    fence_transmit_deadline();
    EXPECT_FALSE(transmit_deadline_held(kReceived));
    hold_transmit_deadline(kReceived + 1000);
    EXPECT_FALSE(transmit_deadline_held(kReceived));
    drop_transmit_deadline();  // must not lift the fence
    hold_transmit_deadline(kReceived + 1000);
    EXPECT_FALSE(transmit_deadline_held(kReceived));
    lift_transmit_deadline_fence();
    EXPECT_FALSE(transmit_deadline_held(kReceived));
    hold_transmit_deadline(kReceived + 1000);
    EXPECT_TRUE(transmit_deadline_held(kReceived));
    drop_transmit_deadline();
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
