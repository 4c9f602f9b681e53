// A device stops transmitting before it gives its grant back, and an
// expired grant is never heartbeated.
#include "base/clock.h"
#include "base/gate_state.h"
#include "standalone/transmit_deadline.h"
#include "standalone_fixture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

namespace cbsd::standalone {
namespace {

// Plays the supervision loop: once RadioEnable "0" is stored it waits a
// little, notes what the SAS has received so far, and closes the gates.
class GateCloser {
public:
    explicit GateCloser(int delayMs) {
        base::publish_gates_closed(false);
        thread_ = std::thread([this, delayMs] {
            // Bounded, so that a worker that never withdraws fails the test
            // instead of hanging it.
            auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(60);
            while (!quit_.load() && stored("sasConfig", "RadioEnable") != "0") {
                if (std::chrono::steady_clock::now() > giveUp) return;
                std::this_thread::sleep_for(std::chrono::milliseconds(5));
            }
            if (quit_.load()) return;
            std::this_thread::sleep_for(std::chrono::milliseconds(delayMs));
            seenWhenClosed_ = sas_endpoints();
            base::publish_gates_closed(true);
        });
    }
    ~GateCloser() {
        quit_.store(true);
        if (thread_.joinable()) thread_.join();
    }
    Endpoints seen_when_closed() {
        if (thread_.joinable()) thread_.join();
        return seenWhenClosed_;
    }

private:
    std::atomic<bool> quit_{false};
    Endpoints seenWhenClosed_;
    std::thread thread_;
};

class CeaseTransmission : public QuickPasses {
public:
    // Authorized, with the gates open, and the next heartbeat refused.
    void refuse_next_heartbeat_while_open(int code) {
        authorize();
        base::publish_gates_closed(false);
        sas_push("heartbeat", R"({"responseCode":)" + std::to_string(code) + "}");
        sas_push("grant", R"({"responseCode":400})");  // stay in Registered afterwards
        sas_push("registration", R"({"responseCode":200})");
    }
};

// Refuses the next heartbeat with `code` while a stand-in loop closes the
// gates 300 ms after the "0": returns what the SAS had received by then.
Endpoints seen_when_the_gates_closed(CeaseTransmission& test, int code) {
    test.refuse_next_heartbeat_while_open(code);
    GateCloser closer(300);
    EXPECT_TRUE(PassGate::instance().steps(60));
    return closer.seen_when_closed();
}

TEST_F(CeaseTransmission, TerminatedGrantIsGivenBackOnlyAfterTheGatesClosed) {
    Endpoints atClose = seen_when_the_gates_closed(*this, 500);
    EXPECT_EQ(count_of(atClose, "heartbeat"), 2u);
    EXPECT_EQ(count_of(atClose, "relinquishment"), 0u);
    EXPECT_EQ(count_of(sas_endpoints(), "relinquishment"), 1u);
}

TEST_F(CeaseTransmission, DeregistrationLeavesOnlyAfterTheGatesClosed) {
    Endpoints atClose = seen_when_the_gates_closed(*this, 105);
    EXPECT_EQ(count_of(atClose, "relinquishment"), 0u);
    EXPECT_EQ(count_of(atClose, "deregistration"), 0u);
    EXPECT_EQ(count_of(sas_endpoints(), "relinquishment"), 1u);
    EXPECT_EQ(count_of(sas_endpoints(), "deregistration"), 1u);
}

TEST_F(CeaseTransmission, TheLoopHasItsTurnBeforeTheGuard) {
    refuse_next_heartbeat_while_open(501);
    ASSERT_TRUE(PassGate::instance().steps(60));
    EXPECT_EQ(stored("sasConfig", "RadioEnable"), "0");
    int64_t left = transmit_deadline_ms_left(base::monotonic_ms64());
    // Brought forward to the end of the loop's turn, not dropped: the guard
    // acts only if the loop has not closed the gates by then.
    EXPECT_GE(left, 0);
    EXPECT_LE(left, 400);
}

TEST_F(CeaseTransmission, GatesThatStayOpenHoldTheGrantBackAtMostThreeSeconds) {
    refuse_next_heartbeat_while_open(500);
    ASSERT_TRUE(PassGate::instance().steps(59));
    auto started = std::chrono::steady_clock::now();
    ASSERT_TRUE(PassGate::instance().step());  // the refused heartbeat
    auto waited = std::chrono::steady_clock::now() - started;
    EXPECT_EQ(count_of(sas_endpoints(), "relinquishment"), 1u);
    EXPECT_GE(waited, std::chrono::milliseconds(2900));
    EXPECT_LT(waited, std::chrono::milliseconds(6000));
    EXPECT_TRUE(has(log_text(), "[SAS] traffic is not stopped yet, giving the grant back anyway.\n"));
}

TEST_F(QuickPasses, AnExpiredGrantIsNeverHeartbeated) {
    authorize();
    store("sasConfig", "grantExpireTime", "2020-01-01T00:00:00Z");
    // Were the pass to heartbeat anyway, this success would authorise again.
    sas_push("grant", R"({"responseCode":400})");
    ASSERT_TRUE(PassGate::instance().step());
    Endpoints seen = sas_endpoints();
    ASSERT_EQ(seen.size(), 5u);
    EXPECT_EQ(seen.back(), "grant");
    EXPECT_EQ(stored("operation", "status"), "Registered");
    EXPECT_EQ(stored("sasConfig", "RadioEnable"), "0");
}

}  // namespace
}  // namespace cbsd::standalone
