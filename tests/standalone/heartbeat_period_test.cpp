// The heartbeat period and the grant's power when the SAS leaves a value out:
// a grant without a usable heartbeatInterval heartbeats every 60 s, a
// heartbeat reply without one keeps the period, and an inquiry without
// maxEirp leaves the configured power in the grant request.
#include "standalone_fixture.h"

#include <gtest/gtest.h>

#include <string>

namespace cbsd::standalone {
namespace {

size_t heartbeats() { return count_of(sas_endpoints(), "heartbeat"); }

// Steps one second at a time until the condition holds; false after `limit`.
bool step_until(const std::function<bool()>& condition, unsigned limit) {
    for (unsigned i = 0; i < limit; ++i) {
        if (condition()) return true;
        if (!PassGate::instance().step()) return false;
    }
    return condition();
}

// A grant of 10 s whose GRANTED heartbeat is refused with 500: the worker
// gives the grant back and asks for another one 5 s later.  The second
// grant's reply is `second_grant`; heartbeat replies carry no period.
class GrantPeriod : public QuickPasses,
                    public ::testing::WithParamInterface<const char*> {};

TEST_P(GrantPeriod, AGrantWithoutAUsablePeriodHeartbeatsEverySixtySeconds) {
    sas_set_default("heartbeat", R"({"remove":["heartbeatInterval"]})");
    sas_push("grant", R"({"set":{"heartbeatInterval":10}})");
    sas_push("heartbeat", R"({"responseCode":500})");
    run_to_first_sleep();
    ASSERT_EQ(sas_endpoints(), (Endpoints{"registration", "spectrumInquiry", "grant", "heartbeat",
                                          "relinquishment"}));
    sas_push("grant", GetParam());
    ASSERT_TRUE(step_until([] { return heartbeats() == 2; }, 10)) << log_text();
    ASSERT_EQ(stored("operation", "status"), "Authorized");
    ASSERT_TRUE(PassGate::instance().steps(59));
    EXPECT_EQ(heartbeats(), 2u) << "the period of the first grant (10 s) or none was kept";
    ASSERT_TRUE(PassGate::instance().step());
    EXPECT_EQ(heartbeats(), 3u);
}

std::string grant_reply_name(const ::testing::TestParamInfo<const char*>& info) {
    static const char* const kNames[] = {"Zero", "Absent", "Negative"};
    return kNames[info.index];
}

INSTANTIATE_TEST_SUITE_P(
    StandaloneThread, GrantPeriod,
    ::testing::Values(R"({"set":{"heartbeatInterval":0}})", R"({"remove":["heartbeatInterval"]})",
                      R"({"set":{"heartbeatInterval":-5}})"),
    grant_reply_name);

// Authorized on a 10 s grant; every heartbeat reply is `reply`.
class HeartbeatPeriod : public QuickPasses {
protected:
    void authorize_with(const std::string& reply) {
        sas_push("grant", R"({"set":{"heartbeatInterval":10}})");
        sas_set_default("heartbeat", reply);
        authorize();
    }
    // True when the next heartbeat leaves exactly `period` s after the last.
    bool next_heartbeat_after(unsigned period) {
        size_t before = heartbeats();
        if (!PassGate::instance().steps(period - 1) || heartbeats() != before) return false;
        return PassGate::instance().step() && heartbeats() == before + 1;
    }
};

TEST_F(HeartbeatPeriod, AReplyWithPeriodZeroKeepsThePreviousPeriod) {
    authorize_with(R"({"set":{"heartbeatInterval":0}})");
    EXPECT_TRUE(next_heartbeat_after(10));
    EXPECT_TRUE(next_heartbeat_after(10));
}

TEST_F(HeartbeatPeriod, AReplyWithoutAPeriodKeepsThePreviousPeriod) {
    authorize_with(R"({"remove":["heartbeatInterval"]})");
    EXPECT_TRUE(next_heartbeat_after(10));
    EXPECT_TRUE(next_heartbeat_after(10));
}

TEST_F(HeartbeatPeriod, AReplyWithAPeriodSetsIt) {
    authorize_with(R"({"set":{"heartbeatInterval":15}})");
    EXPECT_TRUE(next_heartbeat_after(15));
    EXPECT_TRUE(next_heartbeat_after(15));
}

// The configured maxEirp (23) stays in the store and goes into the grant
// request when the inquiry names no power.
TEST_F(StandaloneThread, InquiryWithoutMaxEirpKeepsTheConfiguredPower) {
    sas_push("spectrumInquiry",
             R"({"set":{"availableChannel":[{"frequencyRange":{"lowFrequency":3550000000,)"
             R"("highFrequency":3700000000},"channelType":"GAA","ruleApplied":"FCC_PART_96"}]}})");
    authorize();
    EXPECT_TRUE(has(sas_request_element("grant", 0), R"("maxEirp":23)"))
        << sas_request_element("grant", 0);
    EXPECT_EQ(stored("sasConfig", "maxEirp"), "23");
    EXPECT_EQ(stored("sasConfig", "powerSpectralDensity"), "23");
}

TEST_F(StandaloneThread, InquiryWithoutAnyChannelKeepsTheConfiguredPower) {
    sas_push("spectrumInquiry", R"({"set":{"availableChannel":[]}})");
    authorize();
    EXPECT_TRUE(has(sas_request_element("grant", 0), R"("maxEirp":23)"))
        << sas_request_element("grant", 0);
    EXPECT_EQ(stored("sasConfig", "maxEirp"), "23");
}

}  // namespace
}  // namespace cbsd::standalone
