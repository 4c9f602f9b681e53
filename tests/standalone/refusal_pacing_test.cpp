// Refusals that start the procedure over: the first after 5 s, a repeated one
// backs off like a transport failure, so that a SAS refusing every time sees a
// handful of requests a minute, not hundreds.
#include "standalone_fixture.h"

namespace cbsd::standalone {
namespace {

TEST_F(StandaloneThread, RepeatedGrantConflictsBackOff) {
    for (int i = 0; i < 3; ++i)
        sas_push("grant", R"({"responseCode":401,"responseData":["grant-old"]})");
    // The first conflict asks again after 5 s; the second waits 15 s.
    ASSERT_NO_FATAL_FAILURE(run_through_grant_conflict());
    EXPECT_EQ(sas_endpoints(), (Endpoints{"registration", "spectrumInquiry", "grant",
                                          "relinquishment", "grant", "relinquishment"}));
    ASSERT_NO_FATAL_FAILURE(wait_out(14, 6u));
    EXPECT_EQ(count_of(sas_endpoints(), "grant"), 3u);
    // The third waits 30 s, then the grant goes through.
    ASSERT_TRUE(PassGate::instance().steps(29));
    EXPECT_EQ(count_of(sas_endpoints(), "grant"), 3u);
    ASSERT_TRUE(PassGate::instance().step());
    EXPECT_EQ(count_of(sas_endpoints(), "grant"), 4u);
    EXPECT_EQ(stored("operation", "status"), "Authorized");
}

TEST_F(StandaloneThread, AHeartbeatSuccessEndsTheRefusalStreak) {
    authorize();
    sas_push("heartbeat", R"({"responseCode":500})");
    ASSERT_TRUE(PassGate::instance().steps(65));
    // 500: relinquish, and 5 s later a new grant and heartbeat.
    EXPECT_EQ(stored("operation", "status"), "Authorized");
    size_t before = sas_endpoints().size();
    sas_push("heartbeat", R"({"responseCode":500})");
    // The success ended the streak: this refusal waits 5 s again, not 15.
    ASSERT_TRUE(PassGate::instance().steps(65));
    EXPECT_GT(sas_endpoints().size(), before + 2);
    EXPECT_EQ(stored("operation", "status"), "Authorized");
}

TEST_F(StandaloneThread, TransmitTimesPastOnArrivalArePacedFromTheSecondOn) {
    // A wall clock an hour ahead of the SAS's: every transmit time it hands
    // out is already past.  The first expiry heartbeats again at once; the
    // ones after it wait like refusals.
    sas_set_default("heartbeat", R"({"set":{"transmitExpireTime":{"$time":-3600}}})");
    run_to_first_sleep();
    EXPECT_EQ(count_of(sas_endpoints(), "heartbeat"), 2u);
    ASSERT_TRUE(PassGate::instance().steps(60));
    size_t in_a_minute = count_of(sas_endpoints(), "heartbeat");
    EXPECT_GE(in_a_minute, 3u);
    EXPECT_LE(in_a_minute, 8u);
    EXPECT_EQ(stored("sasConfig", "RadioEnable"), "0");
}

}  // namespace
}  // namespace cbsd::standalone
