// The `cbsd` object on OpenWrt's real ubusd, read with the real `ubus` CLI:
// what the threads publish comes out of `ubus call cbsd status` and
// `history` as they print it, and `ubus listen cbsd.state` sees a state
// change.  Skipped by name without ../shared/openwrt or without libubus.
#include "base/status_history.h"
#include "base/status_report.h"
#include "bus/bus.h"
#include "daemon/parsed_json.h"
#include "daemon/status_object.h"
#include "support/real_ubus.h"
#include "support/test_util.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <memory>
#include <string>

namespace cbsd::daemon {
namespace {

using test::Json;
using test::parsed;

std::string member(json_t* object, const char* key) {
    const char* value = json_string_value(json_object_get(object, key));
    return value ? value : "(absent)";
}

constexpr const char* kEvents = "/tmp/cbsd-state-events";

class StatusObjectOnTheBus : public ::testing::Test {
protected:
    void SetUp() override {
        CBSD_SKIP_WITHOUT_REAL_UBUS();
        base::reset_status_report();
        ubus_ = std::make_unique<test::RealUbus>();
        ASSERT_TRUE(ubus_->start_ubusd());
        serve_status_object();
        ASSERT_TRUE(bus::start());
        ASSERT_TRUE(test::RealUbus::wait_until(
            [] { return test::shell("ubus list cbsd 2>/dev/null") == "cbsd\n"; }, 5000));
    }
    void TearDown() override {
        bus::stop();
        ubus_.reset();
        base::reset_status_report();
    }

    std::unique_ptr<test::RealUbus> ubus_;
};

TEST_F(StatusObjectOnTheBus, StatusThroughTheRealCliCarriesWhatWasPublished) {
    base::report_mode(true, false, true);
    base::report_state("Authorized");
    base::report_cbsd_id("cbsd \"quoted\"\\ id\t");
    base::report_gate(base::Gate::kForwarding, true);
    base::report_exchange(base::Request::kHeartbeat, true, 501);
    Json status = parsed(test::shell("ubus call cbsd status"));
    EXPECT_EQ(member(status.get(), "state"), "Authorized");
    EXPECT_EQ(member(status.get(), "mode"), "StandAlone");
    EXPECT_TRUE(json_is_true(json_object_get(status.get(), "RadioEnable")));
    EXPECT_EQ(member(status.get(), "cbsdId"), "cbsd \"quoted\"\\ id\t");
    EXPECT_EQ(member(json_object_get(status.get(), "gates"), "forwarding"), "open");
    EXPECT_EQ(member(json_object_get(status.get(), "gates"), "bridge"), "unknown");
    json_t* exchange = json_object_get(status.get(), "last_exchange");
    EXPECT_EQ(json_integer_value(json_object_get(exchange, "responseCode")), 501);
    EXPECT_EQ(member(exchange, "response_name"), "SUSPENDED_GRANT");
}

// The daemon's events in the listener's file (the probes left out).
size_t daemon_events() {
    std::string events = test::read_file(kEvents);
    size_t count = 0;
    for (size_t at = events.find("cbsd.state"); at != std::string::npos;
         at = events.find("cbsd.state", at + 1))
        ++count;
    size_t probes = 0;
    for (size_t at = events.find("probe"); at != std::string::npos; at = events.find("probe", at + 1))
        ++probes;
    return count - probes;
}

TEST_F(StatusObjectOnTheBus, ListenSeesEachStateChangeAndNothingWhileNothingChanges) {
    test::shell(std::string("(ubus -t 5 listen cbsd.state > ") + kEvents + " 2>&1 &)");
    // The listener is there once a probe sent after it has arrived.
    ASSERT_TRUE(test::RealUbus::wait_until(
        [] {
            test::shell("ubus send cbsd.state '{\"probe\": 1}'");
            return test::read_file(kEvents).find("probe") != std::string::npos;
        },
        2000));
    base::report_state("Granted");
    ASSERT_TRUE(test::RealUbus::wait_until([] { return daemon_events() == 1; }, 2000))
        << test::read_file(kEvents);
    EXPECT_NE(test::read_file(kEvents).find("\"state\":\"Granted\""), std::string::npos);
    base::report_state("Granted");  // no change
    base::report_gate(base::Gate::kIcmp, false);
    base::report_state("Authorized");
    ASSERT_TRUE(test::RealUbus::wait_until(
        [] { return test::read_file(kEvents).find("Authorized") != std::string::npos; }, 2000))
        << test::read_file(kEvents);
    std::string events = test::read_file(kEvents);
    EXPECT_NE(events.find("\"icmp\":\"closed\""), std::string::npos) << events;
    // Nothing published meanwhile: no event.
    size_t seen = daemon_events();
    EXPECT_LE(seen, 3u) << events;
    test::RealUbus::wait_until([] { return false; }, 600);
    EXPECT_EQ(daemon_events(), seen) << test::read_file(kEvents);
}

TEST_F(StatusObjectOnTheBus, AFullHistoryRingFitsOneReply) {
    for (size_t i = 0; i < base::kHistoryCapacity; ++i)
        base::report_exchange(base::Request::kHeartbeat, true, 0);
    std::string text = test::shell("ubus call cbsd history");
    Json history = parsed(text);
    EXPECT_EQ(json_array_size(json_object_get(history.get(), "history")), base::kHistoryCapacity)
        << text.substr(0, 200);
}

}  // namespace
}  // namespace cbsd::daemon
