// The worker's decisions on the outcomes the other suites leave out: a
// refused registration, an inquiry without a reply, a deregistration asked
// for in Granted, replies that are no answer (an error status, an error page),
// and the transmit deadline a success holds, measured from the SAS's clock.
#include "standalone/standalone_fixture.h"
#include "standalone/transmit_deadline.h"

namespace cbsd::standalone {
namespace {

// A success holds receipt + min(transmitExpireTime - reference, 240 s) +
// 33 s; the scripted transmitExpireTime lies 240 s after the wall clock.
constexpr int64_t kFullLeadMs = (240 + 33) * 1000;

int64_t deadline_left_ms() { return transmit_deadline_ms_left(base::monotonic_ms64()); }

TEST_F(StandaloneThread, RefusedRegistrationStaysUnregisteredAndBacksOff) {
    sas_push("registration", R"({"responseCode":103})");
    sas_push("registration", R"({"responseCode":103})");
    run_to_first_sleep();
    EXPECT_EQ(sas_endpoints(), (Endpoints{"registration"}));
    EXPECT_EQ(stored("operation", "status"), "Unregistered");
    EXPECT_TRUE(has(log_text(), "[SAS] Register unsuccessfully, responseCode:103(INVALID_VALUE)\n"));
    ASSERT_NO_FATAL_FAILURE(wait_out(14, 1u));
    EXPECT_EQ(sas_endpoints(), (Endpoints{"registration", "registration"}));
    ASSERT_NO_FATAL_FAILURE(wait_out(29, 2u));
    EXPECT_EQ(count_of(sas_endpoints(), "registration"), 3u);
    EXPECT_EQ(stored("operation", "status"), "Authorized");
}

TEST_F(StandaloneThread, InquiryWithoutAReplyStaysRegisteredAndAsksAgain) {
    sas_push("spectrumInquiry", R"({"close":true})");
    run_to_first_sleep();
    EXPECT_EQ(sas_endpoints(), (Endpoints{"registration", "spectrumInquiry"}));
    EXPECT_TRUE(has(log_text(), "[SAS] failed to do spectrumInquiry_request()\n"));
    EXPECT_EQ(stored("operation", "status"), "Registered");
    ASSERT_NO_FATAL_FAILURE(wait_out(14, 2u));
    EXPECT_EQ(sas_endpoints(), (Endpoints{"registration", "spectrumInquiry", "spectrumInquiry",
                                          "grant", "heartbeat"}));
}

TEST_F(StandaloneThread, GrantedDeregisterCodeGivesBackGrantAndRegistration) {
    sas_push("heartbeat", R"({"responseCode":105})");
    run_to_first_sleep();
    EXPECT_EQ(sas_endpoints(), (Endpoints{"registration", "spectrumInquiry", "grant", "heartbeat",
                                          "relinquishment", "deregistration"}));
    EXPECT_EQ(stored("operation", "status"), "Unregistered");
    EXPECT_EQ(stored("sasConfig", "RadioEnable"), "0");
    ASSERT_NO_FATAL_FAILURE(wait_out(4, 6u));
    EXPECT_EQ(count_of(sas_endpoints(), "registration"), 2u);
}

// An error status whose body reads as a success is no answer: the worker
// acts as on any refusal of an authorised heartbeat.
TEST_F(StandaloneThread, ErrorStatusWithASuccessInItsBodyEndsTheAuthorisation) {
    authorize();
    sas_push("heartbeat", R"({"status":503,"responseCode":0})");
    ASSERT_TRUE(PassGate::instance().steps(60));
    EXPECT_EQ(count_of(sas_endpoints(), "heartbeat"), 2u);
    EXPECT_TRUE(has(log_text(), "[SAS] Heartbeat unsuccessfully, responseCode:-1(UNKNOWN)\n"));
    expect_silent_in("Granted");
}

// An error page after a success is not read as the previous reply again.
TEST_F(StandaloneThread, ErrorPageAfterASuccessAuthorisesNothing) {
    authorize();
    sas_push("heartbeat", R"({"html_error":true})");
    ASSERT_TRUE(PassGate::instance().steps(60));
    expect_silent_in("Granted");
    ASSERT_TRUE(PassGate::instance().steps(4));
    EXPECT_EQ(count_of(sas_endpoints(), "heartbeat"), 2u);
    ASSERT_TRUE(PassGate::instance().step());
    EXPECT_EQ(count_of(sas_endpoints(), "heartbeat"), 3u);
    EXPECT_EQ(stored("operation", "status"), "Authorized");
}

TEST_F(StandaloneThread, HeartbeatSuccessHoldsTheLeadPlusTheGrace) {
    authorize();
    int64_t left = deadline_left_ms();
    EXPECT_LE(left, kFullLeadMs);
    EXPECT_GT(left, kFullLeadMs - 5000);
}

// The reply's Date reaches the deadline: a SAS clock 100 s ahead of the wall
// clock shortens the lead by 100 s; one behind it changes nothing.
TEST_F(StandaloneThread, TheLeadIsMeasuredFromTheLaterOfTheSasAndTheWallClock) {
    sas_push("heartbeat", R"({"date":100})");
    authorize();
    int64_t ahead = deadline_left_ms();
    EXPECT_LE(ahead, kFullLeadMs - 100000);
    EXPECT_GT(ahead, kFullLeadMs - 105000);

    sas_push("heartbeat", R"({"date":-100})");
    ASSERT_TRUE(PassGate::instance().steps(60));
    EXPECT_EQ(count_of(sas_endpoints(), "heartbeat"), 2u);
    int64_t behind = deadline_left_ms();
    EXPECT_LE(behind, kFullLeadMs);
    EXPECT_GT(behind, kFullLeadMs - 5000);
}

}  // namespace
}  // namespace cbsd::standalone
