#include "daemon/parsed_json.h"
#include "daemon/status_object.h"

#include "base/cbsd_state.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <cstring>
#include <memory>
#include <string>

using namespace cbsd;

namespace {

using test::Json;
using test::parsed;

std::string member_text(json_t* object, const char* key) {
    const char* value = json_string_value(json_object_get(object, key));
    EXPECT_NE(value, nullptr) << key;
    return value ? value : "";
}

// A StandAlone device in Authorized with a grant, its gates open.
base::StatusReport authorized_report() {
    base::StatusReport r;
    r.modeKnown = true;
    r.sasEnabled = true;
    r.radioEnable = true;
    std::strcpy(r.state, "Authorized");
    std::strcpy(r.cbsdId, "cbsd-ferncliff-0042");
    std::strcpy(r.grantId, "grant-17");
    std::strcpy(r.grantExpireTime, "2027-01-16T08:00:00Z");
    std::strcpy(r.transmitExpireTime, "2027-01-15T08:04:00Z");
    for (auto& gate : r.gates) gate = base::GateState::kOpen;
    r.lastExchange = base::ExchangeReport{true, base::Request::kHeartbeat, 1'800'000'000, true, 0};
    r.grant = base::GrantReport{true, 3550000000u, 3560000000u, 20};
    return r;
}

daemon::LiveStatus live_at(int64_t msLeft) {
    daemon::LiveStatus live;
    live.now = 1'800'000'010;
    live.transmitMsLeft = msLeft;
    live.firewallBackend = "nftables";
    return live;
}

}  // namespace

TEST(StatusObject, BeforeAnyReportEveryMemberIsThereAndEmpty) {
    Json status = parsed(daemon::status_json(base::StatusReport{}, daemon::LiveStatus{}));
    EXPECT_EQ(member_text(status.get(), "mode"), "");
    EXPECT_EQ(member_text(status.get(), "state"), "");
    EXPECT_TRUE(json_is_false(json_object_get(status.get(), "sas_enabled")));
    EXPECT_TRUE(json_is_false(json_object_get(status.get(), "RadioEnable")));
    EXPECT_EQ(json_integer_value(json_object_get(status.get(), "transmit_seconds_left")), 0);
    json_t* gates = json_object_get(status.get(), "gates");
    for (const char* gate : {"forwarding", "icmp", "bridge"})
        EXPECT_EQ(member_text(gates, gate), "unknown");
    EXPECT_EQ(json_object_size(json_object_get(status.get(), "last_exchange")), 0u);
    EXPECT_EQ(json_object_size(json_object_get(status.get(), "grant")), 0u);
    EXPECT_EQ(json_array_size(json_object_get(status.get(), "failures")), 0u);
    EXPECT_EQ(member_text(status.get(), "firewall_backend"), "");
}

TEST(StatusObject, AnAuthorizedDeviceWithItsGrantAndLastHeartbeat) {
    Json status = parsed(daemon::status_json(authorized_report(), live_at(229'500)));
    json_t* s = status.get();
    EXPECT_EQ(member_text(s, "mode"), "StandAlone");
    EXPECT_TRUE(json_is_true(json_object_get(s, "sas_enabled")));
    EXPECT_EQ(member_text(s, "state"), "Authorized");
    EXPECT_TRUE(json_is_true(json_object_get(s, "RadioEnable")));
    EXPECT_EQ(member_text(s, "cbsdId"), "cbsd-ferncliff-0042");
    EXPECT_EQ(member_text(s, "grantId"), "grant-17");
    EXPECT_EQ(member_text(s, "grantExpireTime"), "2027-01-16T08:00:00Z");
    EXPECT_EQ(member_text(s, "transmitExpireTime"), "2027-01-15T08:04:00Z");
    EXPECT_EQ(json_integer_value(json_object_get(s, "transmit_seconds_left")), 230);
    EXPECT_EQ(member_text(json_object_get(s, "gates"), "icmp"), "open");
    EXPECT_EQ(member_text(s, "firewall_backend"), "nftables");
    json_t* exchange = json_object_get(s, "last_exchange");
    EXPECT_EQ(member_text(exchange, "request"), "heartbeat");
    EXPECT_EQ(member_text(exchange, "time"), "2027-01-15T08:00:00Z");
    EXPECT_EQ(json_integer_value(json_object_get(exchange, "responseCode")), 0);
    EXPECT_EQ(member_text(exchange, "response_name"), "SUCCESS");
    json_t* grant = json_object_get(s, "grant");
    EXPECT_DOUBLE_EQ(json_real_value(json_object_get(grant, "low_mhz")), 3550.0);
    EXPECT_DOUBLE_EQ(json_real_value(json_object_get(grant, "high_mhz")), 3560.0);
    EXPECT_EQ(json_integer_value(json_object_get(grant, "max_eirp")), 20);
}

TEST(StatusObject, TransmitSecondsLeftRoundUpAndAreZeroWithoutADeadline) {
    base::StatusReport r = authorized_report();
    auto left = [&](int64_t ms) {
        Json status = parsed(daemon::status_json(r, live_at(ms)));
        return json_integer_value(json_object_get(status.get(), "transmit_seconds_left"));
    };
    EXPECT_EQ(left(-1), 0);
    EXPECT_EQ(left(0), 0);
    EXPECT_EQ(left(1), 1);
    EXPECT_EQ(left(60'000), 60);
    EXPECT_EQ(left(60'001), 61);
}

TEST(StatusObject, AnExchangeWithoutReplyHasNoCode) {
    base::StatusReport r = authorized_report();
    r.lastExchange = base::ExchangeReport{true, base::Request::kGrant, 1'800'000'000, false, 0};
    Json status = parsed(daemon::status_json(r, live_at(-1)));
    json_t* exchange = json_object_get(status.get(), "last_exchange");
    EXPECT_EQ(member_text(exchange, "request"), "grant");
    EXPECT_TRUE(json_is_false(json_object_get(exchange, "replied")));
    EXPECT_EQ(json_object_get(exchange, "responseCode"), nullptr);
    EXPECT_EQ(json_object_get(exchange, "response_name"), nullptr);
}

TEST(StatusObject, ACodeOutsideTheTableIsNamedUnknown) {
    base::StatusReport r = authorized_report();
    r.lastExchange = base::ExchangeReport{true, base::Request::kHeartbeat, 1'800'000'000, true, 999};
    Json status = parsed(daemon::status_json(r, live_at(-1)));
    json_t* exchange = json_object_get(status.get(), "last_exchange");
    EXPECT_EQ(json_integer_value(json_object_get(exchange, "responseCode")), 999);
    EXPECT_EQ(member_text(exchange, "response_name"), "UNKNOWN");
}

TEST(StatusObject, TextsFromTheSasAreEscapedNeverSpliced) {
    base::StatusReport r = authorized_report();
    const char* hostile = "\"},\"state\":\"Authorized\\\n\x01";
    std::strcpy(r.cbsdId, hostile);
    Json status = parsed(daemon::status_json(r, live_at(-1)));
    EXPECT_EQ(member_text(status.get(), "cbsdId"), hostile);
    EXPECT_EQ(json_object_size(status.get()), 15u);
}

TEST(StatusObject, TextCutInsideAUtf8CharacterStillGivesJson) {
    base::StatusReport r = authorized_report();
    std::strcpy(r.grantId, "grant-\xc3");  // the first byte of a two-byte character
    Json status = parsed(daemon::status_json(r, live_at(-1)));
    EXPECT_EQ(member_text(status.get(), "grantId"), "grant-?");
}

TEST(StatusObject, FailuresInProgressListedWithTheirStart) {
    base::StatusReport r = authorized_report();
    r.exchangeFailures = 3;
    r.exchangeFailingSince = 1'800'000'000;
    r.failing[static_cast<size_t>(base::Failure::kStoreWrite)] = true;
    r.failingSince[static_cast<size_t>(base::Failure::kStoreWrite)] = 1'800'000'005;
    daemon::LiveStatus live = live_at(-1);
    base::CommandStreak streak{"ubus call ubus_lte getlteinfo", 4, 1'800'000'007};
    live.commandStreaks.push_back(streak);
    Json status = parsed(daemon::status_json(r, live));
    json_t* failures = json_object_get(status.get(), "failures");
    ASSERT_EQ(json_array_size(failures), 3u);
    json_t* exchange = json_array_get(failures, 0);
    EXPECT_EQ(member_text(exchange, "failure"), "sas_exchange");
    EXPECT_EQ(json_integer_value(json_object_get(exchange, "count")), 3);
    EXPECT_EQ(member_text(exchange, "since"), "2027-01-15T08:00:00Z");
    EXPECT_EQ(member_text(json_array_get(failures, 1), "failure"), "store_write");
    EXPECT_EQ(member_text(json_array_get(failures, 1), "since"), "2027-01-15T08:00:05Z");
    json_t* command = json_array_get(failures, 2);
    EXPECT_EQ(member_text(command, "failure"), "command");
    EXPECT_EQ(member_text(command, "command"), "ubus call ubus_lte getlteinfo");
    EXPECT_EQ(json_integer_value(json_object_get(command, "count")), 4);
}

TEST(StatusObject, HistoryEntriesOfEveryKind) {
    using base::HistoryKind;
    std::vector<base::HistoryEntry> entries = {
        {1'800'000'000, 0, HistoryKind::kSas, base::kSasStandAlone, 0, 0},
        {1'800'000'001, 0, HistoryKind::kState, base::kGranted, 0, 0},
        {1'800'000'002, 0, HistoryKind::kRadio, 1, 0, 0},
        {1'800'000'003, 0, HistoryKind::kGates, 0b111101, 0, 0},  // forwarding closed, icmp open, bridge open
        {1'800'000'004, 501, HistoryKind::kRequest, static_cast<uint8_t>(base::Request::kHeartbeat), 1, 0},
        {1'800'000'005, 0, HistoryKind::kRequest, static_cast<uint8_t>(base::Request::kGrant), 0, 0},
        {1'800'000'006, 0, HistoryKind::kSas, base::kSasOff, 0, 0},
    };
    Json root = parsed(daemon::history_json(entries));
    json_t* history = json_object_get(root.get(), "history");
    ASSERT_EQ(json_array_size(history), entries.size());
    json_t* sas = json_array_get(history, 0);
    EXPECT_EQ(member_text(sas, "time"), "2027-01-15T08:00:00Z");
    EXPECT_EQ(member_text(sas, "event"), "sas");
    EXPECT_EQ(member_text(sas, "mode"), "StandAlone");
    EXPECT_EQ(member_text(json_array_get(history, 1), "state"), "Granted");
    EXPECT_TRUE(json_is_true(json_object_get(json_array_get(history, 2), "RadioEnable")));
    json_t* gates = json_object_get(json_array_get(history, 3), "gates");
    EXPECT_EQ(member_text(gates, "forwarding"), "closed");
    EXPECT_EQ(member_text(gates, "icmp"), "open");
    EXPECT_EQ(member_text(gates, "bridge"), "open");
    json_t* refused = json_array_get(history, 4);
    EXPECT_EQ(member_text(refused, "request"), "heartbeat");
    EXPECT_EQ(member_text(refused, "response_name"), "SUSPENDED_GRANT");
    EXPECT_TRUE(json_is_false(json_object_get(json_array_get(history, 5), "replied")));
    json_t* off = json_array_get(history, 6);
    EXPECT_TRUE(json_is_false(json_object_get(off, "sas_enabled")));
    EXPECT_EQ(json_object_get(off, "mode"), nullptr);
}

TEST(StatusObject, AFullHourOfHistoryFitsItsBound) {
    std::vector<base::HistoryEntry> entries(
        base::kHistoryCapacity,
        base::HistoryEntry{1'800'000'000, 0, base::HistoryKind::kRequest,
                           static_cast<uint8_t>(base::Request::kHeartbeat), 1, 0});
    std::string text = daemon::history_json(entries);
    Json root = parsed(text);
    EXPECT_EQ(json_array_size(json_object_get(root.get(), "history")), base::kHistoryCapacity);
    // A full ring, a heartbeat every second for an hour, stays below what one
    // ubus message carries (1 MiB); an hour of heartbeats a minute is ~70 entries.
    EXPECT_LT(text.size(), 600u * 1024u);
}

TEST(StatusObject, CertificatesWithTheirExpiryOnceAWorkerReadThem) {
    base::StatusReport r = authorized_report();
    Json before = parsed(daemon::status_json(r, live_at(-1)));
    EXPECT_EQ(json_object_size(json_object_get(before.get(), "certificates")), 0u);
    r.certificates[0] = base::CertificateReport{true, "cbsd.pem", true, 1'800'000'000};
    r.certificates[1] = base::CertificateReport{true, "ca.pem", false, 0};
    Json status = parsed(daemon::status_json(r, live_at(-1)));
    json_t* certificates = json_object_get(status.get(), "certificates");
    json_t* client = json_object_get(certificates, "client");
    EXPECT_EQ(member_text(client, "file"), "cbsd.pem");
    EXPECT_EQ(member_text(client, "not_after"), "2027-01-15T08:00:00Z");
    json_t* ca = json_object_get(certificates, "sas_ca");
    EXPECT_EQ(member_text(ca, "file"), "ca.pem");
    EXPECT_EQ(member_text(ca, "not_after"), "");
}
