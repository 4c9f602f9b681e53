#include "standalone/oper_timer.h"

#include "base/clock.h"

#include <gtest/gtest.h>

#include <cstring>

namespace cbsd::standalone {
namespace {

constexpr uint32_t kHeartbeatInterval = 240;

// One failed exchange of the given type at monotonic second now: the thread
// arms the timer and then schedules it.  Returns the wait that was set.
uint32_t fail_once(OperTimer& timer, uint32_t type, uint32_t now) {
    oper_timer_start(&timer, type);
    oper_timer_schedule(&timer, now, kHeartbeatInterval);
    return timer.secTime - now;
}

TEST(OperTimer, RepeatedFailuresOfOneTypeBackOffUpToTenMinutes) {
    OperTimer timer{};
    const uint32_t expected[] = {15, 30, 60, 120, 300, 600, 600, 600};
    uint32_t now = 1000;
    for (uint32_t i = 0; i < sizeof expected / sizeof expected[0]; ++i) {
        uint32_t wait = fail_once(timer, RESPONSE_ERROR, now);
        EXPECT_EQ(wait, expected[i]) << "failure " << i + 1;
        EXPECT_EQ(timer.count, i + 1);
        now = timer.secTime;  // the next exchange happens once the wait is over
    }
}

TEST(OperTimer, EveryFailureTypeSharesTheBackOff) {
    for (uint32_t type : {NETWORK_ERROR, RECV_TIMEOUT, RESPONSE_ERROR, OTHER}) {
        OperTimer timer{};
        EXPECT_EQ(fail_once(timer, type, 50), 15u) << timer_type_name(type);
        EXPECT_EQ(fail_once(timer, type, 50), 30u) << timer_type_name(type);
        EXPECT_EQ(fail_once(timer, type, 50), 60u) << timer_type_name(type);
    }
}

TEST(OperTimer, ChangeOfTypeRestartsTheCount) {
    OperTimer timer{};
    EXPECT_EQ(fail_once(timer, RECV_TIMEOUT, 10), 15u);
    EXPECT_EQ(fail_once(timer, NETWORK_ERROR, 10), 15u);
    EXPECT_EQ(fail_once(timer, RECV_TIMEOUT, 10), 15u);
    EXPECT_EQ(fail_once(timer, RECV_TIMEOUT, 10), 30u);
    EXPECT_EQ(timer.count, 2u);
}

TEST(OperTimer, SuspendedGrantAlwaysWaitsOneMinute) {
    OperTimer timer{};
    for (int i = 0; i < 8; ++i) EXPECT_EQ(fail_once(timer, SUSPENDED_GRANT, 7), 60u);
    EXPECT_EQ(timer.count, 8u);
}

TEST(OperTimer, HeartbeatErrorWaitsFiveSeconds) {
    OperTimer timer{};
    for (int i = 0; i < 7; ++i) EXPECT_EQ(fail_once(timer, HEART_BEAT_ERROR, 7), 5u);
}

// The 5 s wait counts from the next whole second, so it is never cut short;
// the heartbeat period counts from the current one.
TEST(OperTimer, OnlyTheFiveSecondWaitCountsFromTheNextWholeSecond) {
    OperTimer timer{};
    for (int i = 0; i < 20; ++i) {
        oper_timer_start(&timer, HEART_BEAT_ERROR);
        int64_t before = base::monotonic_ms64();
        EXPECT_GE(int64_t{oper_timer_now(&timer)} * 1000, before);
        oper_timer_start(&timer, HEART_BEAT_SUCCESS);
        EXPECT_LE(int64_t{oper_timer_now(&timer)} * 1000, base::monotonic_ms64());
        base::sleep_ms(7);
    }
}

TEST(OperTimer, HeartbeatSuccessWaitsTheHeartbeatInterval) {
    OperTimer timer{};
    for (int i = 0; i < 7; ++i) EXPECT_EQ(fail_once(timer, HEART_BEAT_SUCCESS, 7), kHeartbeatInterval);
    EXPECT_EQ(timer.count, 7u);  // grows with no effect on the wait
    oper_timer_start(&timer, HEART_BEAT_SUCCESS);
    oper_timer_schedule(&timer, 100, 30);
    EXPECT_EQ(timer.secTime, 130u);
}

TEST(OperTimer, ZeroAndUnknownTypesAreDueAtOnce) {
    for (uint32_t type : {0u, 8u, 1000u}) {
        OperTimer timer{};
        timer.secTime = 99;
        oper_timer_start(&timer, type);
        oper_timer_schedule(&timer, 500, kHeartbeatInterval);
        EXPECT_EQ(timer.secTime, 0u);
        EXPECT_EQ(timer.count, 1u);
        EXPECT_FALSE(oper_timer_waiting(&timer, 500));
    }
}

TEST(OperTimer, StartKeepsSecTimeAndReArmingTheSameTypeKeepsTheCount) {
    OperTimer timer{};
    timer.secTime = 1234;
    oper_timer_start(&timer, NETWORK_ERROR);
    EXPECT_EQ(timer.enable, 1);
    EXPECT_EQ(timer.count, 0u);
    EXPECT_EQ(timer.secTime, 1234u);
    EXPECT_EQ(timer.timerType, static_cast<uint32_t>(NETWORK_ERROR));
    timer.count = 4;
    oper_timer_start(&timer, NETWORK_ERROR);
    EXPECT_EQ(timer.count, 4u);
    // A disarmed timer with the same type starts counting again.
    timer.enable = 0;
    oper_timer_start(&timer, NETWORK_ERROR);
    EXPECT_EQ(timer.count, 0u);
}

TEST(OperTimer, ResetClearsEverything) {
    OperTimer timer{1, 5, 77, SUSPENDED_GRANT};
    oper_timer_reset(&timer);
    EXPECT_EQ(timer.enable, 0);
    EXPECT_EQ(timer.count, 0u);
    EXPECT_EQ(timer.secTime, 0u);
    EXPECT_EQ(timer.timerType, 0u);
    oper_timer_reset(nullptr);
    oper_timer_start(nullptr, OTHER);
    oper_timer_schedule(nullptr, 1, 1);
}

TEST(OperTimer, WaitsOnlyWhileArmedAndBeforeItsSecond) {
    OperTimer timer{};
    fail_once(timer, RESPONSE_ERROR, 100);  // due at 115
    EXPECT_TRUE(oper_timer_waiting(&timer, 100));
    EXPECT_TRUE(oper_timer_waiting(&timer, 114));
    EXPECT_FALSE(oper_timer_waiting(&timer, 115));
    timer.enable = 0;
    EXPECT_FALSE(oper_timer_waiting(&timer, 100));
    EXPECT_FALSE(oper_timer_waiting(nullptr, 100));
}

// The monotonic seconds counter is 32 bits wide: a back-off scheduled just
// before it wraps ends after its own wait, not 136 years (or at once) later.
TEST(OperTimer, BackOffThatStraddlesTheWrapWaitsItsOwnLength) {
    OperTimer timer{};
    const uint32_t now = 0xFFFFFFFFu - 9;  // ten seconds before the wrap
    EXPECT_EQ(fail_once(timer, NETWORK_ERROR, now), 15u);
    EXPECT_EQ(timer.secTime, 5u);
    EXPECT_TRUE(oper_timer_waiting(&timer, now));
    EXPECT_TRUE(oper_timer_waiting(&timer, 0xFFFFFFFFu));
    EXPECT_TRUE(oper_timer_waiting(&timer, 0));
    EXPECT_TRUE(oper_timer_waiting(&timer, 4));
    EXPECT_FALSE(oper_timer_waiting(&timer, 5));
    EXPECT_FALSE(oper_timer_waiting(&timer, 6));
}

TEST(OperTimer, TenMinuteBackOffAcrossTheWrap) {
    OperTimer timer{1, 5, 0, RESPONSE_ERROR};  // five failures already waited for
    const uint32_t now = 0xFFFFFFFFu - 99;
    EXPECT_EQ(fail_once(timer, RESPONSE_ERROR, now), 600u);
    EXPECT_TRUE(oper_timer_waiting(&timer, 499));
    EXPECT_FALSE(oper_timer_waiting(&timer, 500));
}

// A wait ending exactly on the wrap would read 0, "due at once": it ends a
// second later instead.
TEST(OperTimer, AWaitEndingOnTheWrapIsNotDueAtOnce) {
    OperTimer timer{};
    const uint32_t now = 0u - 15u;
    fail_once(timer, OTHER, now);
    EXPECT_EQ(timer.secTime, 1u);
    EXPECT_TRUE(oper_timer_waiting(&timer, now));
    EXPECT_TRUE(oper_timer_waiting(&timer, 0));
    EXPECT_FALSE(oper_timer_waiting(&timer, 1));
}

TEST(OperTimer, TypeNames) {
    const char* names[] = {"ZERO",           "NETWORK_ERROR",   "RECV_TIMEOUT",
                           "RESPONSE_ERROR", "SUSPENDED_GRANT", "HEART_BEAT_ERROR",
                           "HEART_BEAT_SUCCESS", "OTHER"};
    for (uint32_t type = 0; type < 8; ++type) EXPECT_STREQ(timer_type_name(type), names[type]);
    EXPECT_STREQ(timer_type_name(8), "");
    EXPECT_STREQ(timer_type_name(0xffffffffu), "");
}

TEST(OperTimer, TypeFromTransportResult) {
    EXPECT_EQ(timer_type_from_post_result(-1), static_cast<uint32_t>(OTHER));
    EXPECT_EQ(timer_type_from_post_result(28), static_cast<uint32_t>(RECV_TIMEOUT));
    EXPECT_EQ(timer_type_from_post_result(6), static_cast<uint32_t>(NETWORK_ERROR));
    EXPECT_EQ(timer_type_from_post_result(7), static_cast<uint32_t>(NETWORK_ERROR));
    EXPECT_EQ(timer_type_from_post_result(35), static_cast<uint32_t>(NETWORK_ERROR));
}

}  // namespace
}  // namespace cbsd::standalone
