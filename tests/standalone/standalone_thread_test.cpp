#include "standalone/standalone_thread.h"

#include "base/clock.h"
#include "config/uci_store.h"
#include "base/settings.h"
#include "standalone/transmit_deadline.h"
#include "standalone/worker_control.h"
#include "standalone_fixture.h"
#include "thread_harness.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

namespace cbsd::standalone {
namespace {


TEST_F(StandaloneThread, RegistrationInquiryGrantAndHeartbeatFollowWithoutDelay) {
    authorize();
    EXPECT_EQ(PassGate::now(), 1000u);  // no second passed before the first wait
    EXPECT_EQ(stored("sasConfig", "RadioEnable"), "1");
    EXPECT_EQ(stored("sasConfig", "powerSpectralDensity"), "23");
    EXPECT_FALSE(stored("sasConfig", "grantExpireTime").empty());
    EXPECT_FALSE(stored("sasConfig", "transmitExpireTime").empty());
    EXPECT_EQ(stored("operation", "GrantRenew"), "0");
    EXPECT_TRUE(has(sas_request_element("heartbeat", 0), R"("operationState":"GRANTED")"));
    std::string log = log_text();
    EXPECT_TRUE(has(log, "[SAS] standalone_thread is running.\n"));
    EXPECT_TRUE(has(log, "[SAS] Register successfully\n"));
    EXPECT_TRUE(has(log, "[SAS] SpectrumInquiry successfully\n"));
    EXPECT_TRUE(has(log, "[SAS] Grant successfully\n"));
    EXPECT_TRUE(has(log, "[SAS] Heartbeat successfully\n"));
}

TEST_F(StandaloneThread, HeartbeatsEveryHeartbeatInterval) {
    authorize();
    ASSERT_TRUE(PassGate::instance().steps(59));
    EXPECT_EQ(count_of(sas_endpoints(), "heartbeat"), 1u);
    ASSERT_TRUE(PassGate::instance().step());
    EXPECT_EQ(count_of(sas_endpoints(), "heartbeat"), 2u);
    EXPECT_TRUE(has(sas_request_element("heartbeat", 1), R"("operationState":"AUTHORIZED")"));
}

using test::occurrences;

TEST_F(StandaloneThread, OutcomesGoToTheSystemLogButSendingLinesDoNot) {
    unlink("/etc/lab/syslog.jsonl");
    authorize();
    ASSERT_TRUE(PassGate::instance().steps(60));  // the AUTHORIZED heartbeat
    std::string syslog = test::read_file("/etc/lab/syslog.jsonl");
    std::string log = log_text();
    EXPECT_EQ(occurrences(syslog, "[SAS] Register successfully"), 1u);
    EXPECT_EQ(occurrences(syslog, "[SAS] SpectrumInquiry successfully"), 1u);
    EXPECT_EQ(occurrences(syslog, "[SAS] Grant successfully"), 1u);
    EXPECT_FALSE(has(syslog, "send "));
    EXPECT_FALSE(has(syslog, "standalone_thread is running"));
    // Only the GRANTED heartbeat's success is copied to the system log.
    EXPECT_EQ(occurrences(log, "[SAS] Heartbeat successfully\n"), 2u);
    EXPECT_EQ(occurrences(syslog, "[SAS] Heartbeat successfully"), 1u);
}

// The next inquiry offers the whole band at `maxEirp`.
void offer_band_at(const char* maxEirp) {
    sas_push("spectrumInquiry",
             std::string(R"({"set":{"availableChannel":[{"frequencyRange":{"lowFrequency":3550000000,)"
                         R"("highFrequency":3700000000},"channelType":"GAA","ruleApplied":"FCC_PART_96",)"
                         R"("maxEirp":)") + maxEirp + "}]}}");
}

TEST_F(StandaloneThread, InquiryLowersTheGrantPower) {
    offer_band_at("20");
    authorize();
    EXPECT_TRUE(has(sas_request_element("grant", 0), R"("maxEirp":20)"));
    EXPECT_EQ(stored("sasConfig", "powerSpectralDensity"), "20");
}

TEST_F(StandaloneThread, InquiryNeverRaisesTheGrantPower) {
    offer_band_at("30");
    authorize();
    EXPECT_TRUE(has(sas_request_element("grant", 0), R"("maxEirp":23)"));
    EXPECT_EQ(stored("sasConfig", "powerSpectralDensity"), "23");
}

TEST_F(StandaloneThread, InquiryDeregisterCodeDeregistersAndStartsOverAfterFiveSeconds) {
    sas_push("spectrumInquiry", R"({"responseCode":105})");
    run_to_first_sleep();
    EXPECT_EQ(sas_endpoints(), (Endpoints{"registration", "spectrumInquiry", "deregistration"}));
    ASSERT_NO_FATAL_FAILURE(wait_out(4, 3u));
    Endpoints seen = sas_endpoints();
    ASSERT_GE(seen.size(), 4u);
    EXPECT_EQ(Endpoints(seen.begin(), seen.begin() + 4),
              (Endpoints{"registration", "spectrumInquiry", "deregistration", "registration"}));
    EXPECT_TRUE(has(log_text(), "[SAS] SpectrumInquiry unsuccessfully, responseCode:105(DEREGISTER)\n"));
    EXPECT_EQ(stored("operation", "status"), "Authorized");
}

TEST_F(StandaloneThread, FailedInquiryIsAskedAgainAfterTheBackOff) {
    sas_push("spectrumInquiry", R"({"responseCode":103})");
    run_to_first_sleep();
    EXPECT_EQ(sas_endpoints(), (Endpoints{"registration", "spectrumInquiry"}));
    ASSERT_NO_FATAL_FAILURE(wait_out(14, 2u));
    EXPECT_EQ(sas_endpoints(), (Endpoints{"registration", "spectrumInquiry", "spectrumInquiry",
                                          "grant", "heartbeat"}));
}

TEST_F(StandaloneThread, FailedGrantIsRetriedAloneWithGrowingBackOff) {
    sas_push("grant", R"({"responseCode":400})");
    sas_push("grant", R"({"responseCode":400})");
    run_to_first_sleep();
    EXPECT_EQ(sas_endpoints(), (Endpoints{"registration", "spectrumInquiry", "grant"}));
    EXPECT_TRUE(has(log_text(), "[SAS] Grant unsuccessfully, responseCode:400("));
    ASSERT_TRUE(PassGate::instance().steps(15));
    EXPECT_EQ(sas_endpoints(), (Endpoints{"registration", "spectrumInquiry", "grant", "grant"}));
    ASSERT_NO_FATAL_FAILURE(wait_out(29, 4u));
    EXPECT_EQ(count_of(sas_endpoints(), "grant"), 3u);
    EXPECT_EQ(stored("operation", "status"), "Authorized");
}

TEST_F(StandaloneThread, GrantConflictRelinquishesTheNamedGrantAndAsksAgainAfterFiveSeconds) {
    sas_push("grant", R"({"responseCode":401,"responseData":["grant-old"]})");
    ASSERT_NO_FATAL_FAILURE(run_through_grant_conflict());
    EXPECT_EQ(sas_endpoints(), (Endpoints{"registration", "spectrumInquiry", "grant",
                                          "relinquishment", "grant", "heartbeat"}));
    EXPECT_TRUE(has(sas_request_element("relinquishment", 0), R"("grantId":"grant-old")"));
    EXPECT_EQ(stored("operation", "status"), "Authorized");
}

TEST_F(StandaloneThread, GrantDeregisterCodeDeregisters) {
    sas_push("grant", R"({"responseCode":105})");
    run_to_first_sleep();
    Endpoints seen = sas_endpoints();
    ASSERT_GE(seen.size(), 4u);
    EXPECT_EQ(Endpoints(seen.begin(), seen.begin() + 4),
              (Endpoints{"registration", "spectrumInquiry", "grant", "deregistration"}));
}

TEST_F(StandaloneThread, GrantedHeartbeatRefusalsEndTheGrant) {
    for (int code : {500, 502}) {
        SCOPED_TRACE(code);
        test::ScriptedSas::instance().clear();
        test::write_file(config::kSasConfigPath, test::sas_config_text(url_, "Unregistered"));
        PassGate::instance().reset(false);
        sas_push("heartbeat", R"({"responseCode":)" + std::to_string(code) + "}");
        run_to_first_sleep();
        EXPECT_EQ(sas_endpoints(), (Endpoints{"registration", "spectrumInquiry", "grant",
                                              "heartbeat", "relinquishment"}));
        ASSERT_TRUE(PassGate::instance().steps(5));
        EXPECT_EQ(sas_endpoints(), (Endpoints{"registration", "spectrumInquiry", "grant",
                                              "heartbeat", "relinquishment", "grant",
                                              "heartbeat"}));
        stop_thread();
    }
}

TEST_F(StandaloneThread, GrantedSuspendedHeartbeatWaitsOneMinute) {
    sas_push("heartbeat", R"({"responseCode":501})");
    run_to_first_sleep();
    EXPECT_EQ(stored("operation", "status"), "Granted");
    EXPECT_EQ(stored("sasConfig", "RadioEnable"), "0");
    ASSERT_TRUE(PassGate::instance().steps(59));
    EXPECT_EQ(count_of(sas_endpoints(), "heartbeat"), 1u);
    ASSERT_TRUE(PassGate::instance().step());
    EXPECT_EQ(count_of(sas_endpoints(), "heartbeat"), 2u);
    EXPECT_TRUE(has(sas_request_element("heartbeat", 1), R"("operationState":"GRANTED")"));
    EXPECT_EQ(stored("operation", "status"), "Authorized");
}

TEST_F(StandaloneThread, GrantedOtherHeartbeatRefusalBacksOff) {
    sas_push("heartbeat", R"({"responseCode":103})");
    run_to_first_sleep();
    EXPECT_EQ(stored("operation", "status"), "Granted");
    ASSERT_TRUE(PassGate::instance().steps(14));
    EXPECT_EQ(count_of(sas_endpoints(), "heartbeat"), 1u);
    ASSERT_TRUE(PassGate::instance().step());
    EXPECT_EQ(count_of(sas_endpoints(), "heartbeat"), 2u);
}

// Authorized, then the next heartbeat (60 s later) gets the given reply.
class AuthorizedHeartbeat : public StandaloneThread {
protected:
    void refuse_next_heartbeat(const std::string& reply) {
        authorize();
        sas_push("heartbeat", reply);
        ASSERT_TRUE(PassGate::instance().steps(60));
    }
    static Endpoints after_authorization() {
        Endpoints seen = sas_endpoints();
        return Endpoints(seen.begin() + 4, seen.end());
    }
};

TEST_F(AuthorizedHeartbeat, Code500AsksForANewGrant) {
    refuse_next_heartbeat(R"({"responseCode":500})");
    EXPECT_EQ(after_authorization(), (Endpoints{"heartbeat", "relinquishment"}));
    ASSERT_TRUE(PassGate::instance().steps(4));
    EXPECT_EQ(after_authorization().size(), 2u);
    ASSERT_TRUE(PassGate::instance().step());
    EXPECT_EQ(after_authorization(),
              (Endpoints{"heartbeat", "relinquishment", "grant", "heartbeat"}));
    EXPECT_TRUE(has(log_text(), "[SAS] Heartbeat unsuccessfully, responseCode:500("));
}

// The SAS terminated the grant: transmission stops at once, whatever the
// last transmitExpireTime allowed.
TEST_F(AuthorizedHeartbeat, Code500WithdrawsRadioEnable) {
    authorize();
    sas_push("heartbeat", R"({"responseCode":500})");
    sas_push("grant", R"({"responseCode":400})");  // hold the thread in Registered
    ASSERT_TRUE(PassGate::instance().steps(60));
    expect_silent_in("Registered");
}

TEST_F(AuthorizedHeartbeat, Code502WithdrawsRadioEnable) {
    authorize();
    sas_push("heartbeat", R"({"responseCode":502})");
    sas_push("grant", R"({"responseCode":400})");
    ASSERT_TRUE(PassGate::instance().steps(65));
    EXPECT_EQ(after_authorization(), (Endpoints{"heartbeat", "relinquishment", "grant"}));
    EXPECT_EQ(stored("operation", "status"), "Registered");
    EXPECT_EQ(stored("sasConfig", "RadioEnable"), "0");
}

TEST_F(AuthorizedHeartbeat, Code501SuspendsToGrantedForOneMinute) {
    refuse_next_heartbeat(R"({"responseCode":501})");
    EXPECT_EQ(after_authorization(), (Endpoints{"heartbeat"}));
    EXPECT_EQ(stored("operation", "status"), "Granted");
    // Suspended: no transmission until a heartbeat authorises it again.
    EXPECT_EQ(stored("sasConfig", "RadioEnable"), "0");
    EXPECT_FALSE(transmit_deadline_held(base::monotonic_ms64() + 1000));
    ASSERT_TRUE(PassGate::instance().steps(60));
    EXPECT_EQ(after_authorization(), (Endpoints{"heartbeat", "heartbeat"}));
    EXPECT_TRUE(has(sas_request_element("heartbeat", 2), R"("operationState":"GRANTED")"));
}

TEST_F(AuthorizedHeartbeat, OtherCodeFallsBackToGrantedAndHeartbeatsAfterFiveSeconds) {
    authorize();
    sas_push("heartbeat", R"({"responseCode":103})");
    sas_push("heartbeat", R"({"responseCode":103})");
    ASSERT_TRUE(PassGate::instance().steps(60));
    EXPECT_EQ(after_authorization(), (Endpoints{"heartbeat"}));
    ASSERT_TRUE(PassGate::instance().steps(4));
    EXPECT_EQ(after_authorization().size(), 1u);
    ASSERT_TRUE(PassGate::instance().step());
    EXPECT_EQ(after_authorization(), (Endpoints{"heartbeat", "heartbeat"}));
    EXPECT_TRUE(has(sas_request_element("heartbeat", 2), R"("operationState":"GRANTED")"));
    EXPECT_EQ(stored("operation", "status"), "Granted");
    EXPECT_EQ(stored("sasConfig", "RadioEnable"), "0");
}

TEST_F(AuthorizedHeartbeat, Code105RelinquishesDeregistersAndRegistersAgain) {
    refuse_next_heartbeat(R"({"responseCode":105})");
    EXPECT_EQ(after_authorization(), (Endpoints{"heartbeat", "relinquishment", "deregistration"}));
    EXPECT_EQ(stored("sasConfig", "RadioEnable"), "0");
    ASSERT_TRUE(PassGate::instance().steps(5));
    Endpoints seen = after_authorization();
    ASSERT_GE(seen.size(), 4u);
    EXPECT_EQ(Endpoints(seen.begin(), seen.begin() + 4),
              (Endpoints{"heartbeat", "relinquishment", "deregistration", "registration"}));
}

TEST_F(AuthorizedHeartbeat, NoReplyRetriesEveryFiveSeconds) {
    authorize();
    sas_push("heartbeat", R"({"close":true})");
    ASSERT_TRUE(PassGate::instance().steps(60));
    EXPECT_EQ(after_authorization(), (Endpoints{"heartbeat"}));
    EXPECT_TRUE(has(log_text(), "[SAS] failed to do heartbeat_request(AUTHORIZED)\n"));
    EXPECT_EQ(stored("operation", "status"), "Authorized");
    ASSERT_TRUE(PassGate::instance().steps(4));
    EXPECT_EQ(after_authorization().size(), 1u);
    ASSERT_TRUE(PassGate::instance().step());
    EXPECT_EQ(after_authorization(), (Endpoints{"heartbeat", "heartbeat"}));
}

TEST_F(StandaloneThread, TransmitExpiryStopsTransmissionButTheSamePassStillHeartbeats) {
    sas_push("heartbeat", R"({"set":{"transmitExpireTime":{"$time":-31}}})");
    // The AUTHORIZED heartbeat of the expiring pass is suspended, which keeps
    // the thread waiting in Granted with what the expiry wrote.
    sas_push("heartbeat", R"({"responseCode":501})");
    run_to_first_sleep();
    EXPECT_EQ(sas_endpoints(), (Endpoints{"registration", "spectrumInquiry", "grant",
                                          "heartbeat", "heartbeat"}));
    EXPECT_TRUE(has(sas_request_element("heartbeat", 1), R"("operationState":"AUTHORIZED")"));
    EXPECT_TRUE(has(log_text(), "] is expired.\n"));
    EXPECT_EQ(stored("sasConfig", "transmitExpireTime"), "");
    EXPECT_EQ(stored("sasConfig", "RadioEnable"), "0");
    EXPECT_EQ(stored("operation", "status"), "Granted");
}

TEST_F(StandaloneThread, TransmitDeadlineWithinTheGraceKeepsTransmitting) {
    sas_push("heartbeat", R"({"set":{"transmitExpireTime":{"$time":-20}}})");
    run_to_first_sleep();
    EXPECT_EQ(count_of(sas_endpoints(), "heartbeat"), 1u);
    EXPECT_EQ(stored("sasConfig", "RadioEnable"), "1");
    EXPECT_FALSE(has(log_text(), "transmitExpireTime["));
}

TEST_F(StandaloneThread, GrantExpiryActsInAnyState) {
    // Deregistered by the SAS while a grant time is still stored; the new
    // registration is refused, so the thread waits in Unregistered.
    sas_push("heartbeat", R"({"responseCode":105})");
    sas_push("registration", R"({"responseCode":200})");
    sas_push("grant", R"({"responseCode":400})");
    run_to_first_sleep();
    ASSERT_EQ(stored("operation", "status"), "Unregistered");
    store("sasConfig", "grantExpireTime", "2020-01-01T00:00:00Z");
    size_t registrations = count_of(sas_endpoints(), "registration");
    ASSERT_TRUE(PassGate::instance().step());
    EXPECT_TRUE(has(log_text(), "[SAS] grantExpireTime[2020-01-01T00:00:00Z] is expired.\n"));
    EXPECT_EQ(stored("sasConfig", "grantExpireTime"), "");
    EXPECT_EQ(stored("sasConfig", "RadioEnable"), "0");
    // The expiring pass sends nothing; the next one goes on from Registered
    // at once, and the grant it asked for was refused.
    Endpoints seen = sas_endpoints();
    EXPECT_EQ(count_of(seen, "registration"), registrations);
    EXPECT_EQ(seen.back(), "grant");
    EXPECT_EQ(stored("operation", "status"), "Registered");
}

TEST_F(StandaloneThread, RenewalWindowMarksTheGrantAndTheHeartbeatAsksForRenewal) {
    sas_push("grant", R"({"set":{"grantExpireTime":{"$time":3600}}})");
    run_to_first_sleep();
    EXPECT_EQ(stored("operation", "GrantRenew"), "1");
    EXPECT_TRUE(has(sas_request_element("heartbeat", 0), R"("grantRenew":true)"));
}

TEST_F(StandaloneThread, OutsideTheRenewalWindowNoRenewalIsAsked) {
    sas_push("grant", R"({"set":{"grantExpireTime":{"$time":7300}}})");
    run_to_first_sleep();
    EXPECT_EQ(stored("operation", "GrantRenew"), "0");
    EXPECT_TRUE(has(sas_request_element("heartbeat", 0), R"("grantRenew":false)"));
}

TEST_F(StandaloneThread, TransportFailureWaitsFifteenSeconds) {
    sas_push("registration", R"({"close":true})");
    run_to_first_sleep();
    EXPECT_EQ(sas_endpoints(), (Endpoints{"registration"}));
    EXPECT_TRUE(has(log_text(), "[SAS] failed to do registeration_request()\n"));
    ASSERT_NO_FATAL_FAILURE(wait_out(14, 1u));
    EXPECT_EQ(count_of(sas_endpoints(), "registration"), 2u);
}

TEST_F(StandaloneThread, LteChangeEndsTheBackOff) {
    sas_push("registration", R"({"close":true})");
    sas_push("registration", R"({"close":true})");
    sas_push("registration", R"({"close":true})");
    run_to_first_sleep();
    ASSERT_TRUE(PassGate::instance().steps(15));  // 15 s: second failure, now 30 s
    ASSERT_EQ(count_of(sas_endpoints(), "registration"), 2u);
    set_connected(false);
    ASSERT_TRUE(PassGate::instance().steps(2));  // one waiting pass notices, the next sends
    EXPECT_EQ(count_of(sas_endpoints(), "registration"), 3u);
    // The back-off starts again at 15 s.
    ASSERT_TRUE(PassGate::instance().steps(14));
    EXPECT_EQ(count_of(sas_endpoints(), "registration"), 3u);
    ASSERT_TRUE(PassGate::instance().step());
    EXPECT_EQ(count_of(sas_endpoints(), "registration"), 4u);
}

TEST_F(StandaloneThread, StopWhileUnregisteredSendsNothing) {
    sas_push("registration", R"({"responseCode":200})");
    run_to_first_sleep();
    stop_thread();
    EXPECT_EQ(sas_endpoints(), (Endpoints{"registration"}));
    EXPECT_TRUE(has(log_text(), "[SAS] standalone_thread exit.\n"));
}

TEST_F(StandaloneThread, StopWhileRegisteredOnlyDeregisters) {
    sas_push("grant", R"({"responseCode":400})");
    run_to_first_sleep();
    stop_thread();
    EXPECT_EQ(sas_endpoints(),
              (Endpoints{"registration", "spectrumInquiry", "grant", "deregistration"}));
}

TEST_F(StandaloneThread, StopWhileGrantedRelinquishesThenDeregisters) {
    sas_push("heartbeat", R"({"responseCode":501})");
    run_to_first_sleep();
    stop_thread();
    EXPECT_EQ(sas_endpoints(), (Endpoints{"registration", "spectrumInquiry", "grant", "heartbeat",
                                          "relinquishment", "deregistration"}));
    EXPECT_TRUE(has(sas_request_element("relinquishment", 0), R"("grantId":"grant-)"));
    EXPECT_EQ(stored("operation", "status"), "Granted");  // the stop writes no state
}

// The stop gives the grant back only after RadioEnable "0": the radio does
// not transmit on a grant the SAS no longer counts as held.
TEST_F(StandaloneThread, StopWhileAuthorizedWithdrawsTheRadioThenRelinquishesAndDeregisters) {
    authorize();
    stop_thread();
    EXPECT_EQ(sas_endpoints(), (Endpoints{"registration", "spectrumInquiry", "grant", "heartbeat",
                                          "relinquishment", "deregistration"}));
    EXPECT_EQ(stored("sasConfig", "RadioEnable"), "0");
    EXPECT_FALSE(transmit_deadline_held(base::monotonic_ms64()));
}

TEST_F(StandaloneThread, DebugModePrintsTheTimerLineEveryPass) {
    sas_push("registration", R"({"responseCode":200})");
    base::settings().debug = 1;
    ::testing::internal::CaptureStdout();
    run_to_first_sleep();
    ASSERT_TRUE(PassGate::instance().step());
    std::string out = ::testing::internal::GetCapturedStdout();
    base::settings().debug = 0;
    // Before the registration: timer cleared, secTime 0 lies in the past.
    EXPECT_TRUE(has(out, "===>operTimer: enable=0, timerType=0(ZERO), count=0, secTime=0, "
                         "curTickTime=1000, waitTime=4294966296s\n"));
    // The refused registration armed a 15 s back-off.
    EXPECT_TRUE(has(out, "===>operTimer: enable=1, timerType=3(RESPONSE_ERROR), count=1, "
                         "secTime=1015, curTickTime=1001, waitTime=14s\n"));
    EXPECT_FALSE(has(log_text(), "===>operTimer"));
}

TEST_F(StandaloneThread, EmptyServerUrlEndsTheThreadAndKeepsTheRunningFlag) {
    store("config", "address", "");
    start_thread();
    thread_.join();
    EXPECT_EQ(standalone::worker_running.load(), 1);
    std::string log = log_text();
    EXPECT_TRUE(has(log, "[SAS] sas server URL is invalid.\n"));
    EXPECT_TRUE(has(log, "[SAS] standalone_thread exit.\n"));
    EXPECT_TRUE(sas_endpoints().empty());
    standalone::worker_running.store(0);
}

// The process's stop fences the deadline and closes the gates before it
// stops the worker, which can take seconds on a slow router: meanwhile a
// heartbeat that falls due is not sent, and the stop then gives the grant back.
TEST_F(StandaloneThread, AStoppingProcessSendsNoHeartbeatOnlyTheGiveBack) {
    ASSERT_NO_FATAL_FAILURE(authorize());
    fence_transmit_deadline();
    ASSERT_TRUE(PassGate::instance().steps(130));  // two heartbeat periods
    EXPECT_EQ(sas_endpoints(), (Endpoints{"registration", "spectrumInquiry", "grant", "heartbeat"}));
    stop_thread();
    lift_transmit_deadline_fence();
    EXPECT_EQ(sas_endpoints(), (Endpoints{"registration", "spectrumInquiry", "grant", "heartbeat",
                                          "relinquishment", "deregistration"}));
}

TEST_F(StandaloneThread, UnknownStatusSendsNothing) {
    store("operation", "status", "authorized");
    start_thread();
    EXPECT_FALSE(test::wait_until([] { return !sas_endpoints().empty(); }, 0.5));
    stop_thread();
    EXPECT_TRUE(sas_endpoints().empty());
    EXPECT_TRUE(has(log_text(), "[SAS] standalone_thread exit.\n"));
}

}  // namespace
}  // namespace cbsd::standalone
