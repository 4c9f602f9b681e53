#include "daemon/status_object.h"

#include "base/cbsd_state.h"
#include "base/clock.h"
#include "base/utc_time.h"
#include "bus/bus.h"
#include "gating/firewall_choice.h"
#include "sas/response_codes.h"
#include "standalone/transmit_deadline.h"

#include <jansson.h>

#include <cstdlib>
#include <memory>

namespace cbsd::daemon {

namespace {

constexpr const char* kObjectName = "cbsd";
constexpr const char* kStateEvent = "cbsd.state";
constexpr double kHzPerMhz = 1e6;

using Json = std::unique_ptr<json_t, decltype(&json_decref)>;

// jansson refuses text that is not UTF-8 (a SAS id cut inside a character):
// such text goes in with every byte outside printable ASCII as '?'.
json_t* text(const char* value) {
    if (json_t* string = json_string(value)) return string;
    std::string printable(value);
    for (char& c : printable)
        if (c < 0x20 || c > 0x7e) c = '?';
    return json_string(printable.c_str());
}

json_t* utc(int64_t epochSeconds) {
    char formatted[base::kUtcTextSize];
    base::format_utc_time(epochSeconds, formatted);
    return json_string(formatted);
}

void put(json_t* object, const char* key, json_t* value) { json_object_set_new(object, key, value); }

const char* gate_word(base::GateState state) {
    switch (state) {
        case base::GateState::kOpen: return "open";
        case base::GateState::kClosed: return "closed";
        case base::GateState::kUnknown: break;
    }
    return "unknown";
}

const char* mode_word(const base::StatusReport& r) {
    if (!r.modeKnown) return "";
    return r.dpMode ? "DP" : "StandAlone";
}

json_t* gates_of(const base::GateState (&gates)[base::kGateCount]) {
    json_t* object = json_object();
    for (size_t gate = 0; gate < base::kGateCount; ++gate)
        put(object, base::gate_name(static_cast<base::Gate>(gate)), json_string(gate_word(gates[gate])));
    return object;
}

// request, replied and, for a reply, its code and the code's name.
void put_request(json_t* object, base::Request request, bool replied, int32_t responseCode) {
    put(object, "request", json_string(base::request_name(request)));
    put(object, "replied", json_boolean(replied));
    if (!replied) return;
    put(object, "responseCode", json_integer(responseCode));
    put(object, "response_name", json_string(sas::responseCode_name(responseCode)));
}

json_t* last_exchange_of(const base::ExchangeReport& exchange) {
    json_t* object = json_object();
    if (!exchange.held) return object;
    put_request(object, exchange.request, exchange.replied, exchange.responseCode);
    put(object, "time", utc(exchange.time));
    return object;
}

json_t* failure(const char* name, int64_t since) {
    json_t* object = json_object();
    put(object, "failure", json_string(name));
    put(object, "since", utc(since));
    return object;
}

json_t* failures_of(const base::StatusReport& r, const LiveStatus& live) {
    json_t* list = json_array();
    if (r.exchangeFailures > 0) {
        json_t* streak = failure("sas_exchange", r.exchangeFailingSince);
        put(streak, "count", json_integer(r.exchangeFailures));
        json_array_append_new(list, streak);
    }
    for (size_t kind = 0; kind < base::kFailureCount; ++kind)
        if (r.failing[kind])
            json_array_append_new(
                list, failure(base::failure_name(static_cast<base::Failure>(kind)), r.failingSince[kind]));
    for (const base::CommandStreak& command : live.commandStreaks) {
        json_t* streak = failure("command", command.since);
        put(streak, "command", text(command.name));
        put(streak, "count", json_integer(command.failures));
        json_array_append_new(list, streak);
    }
    return list;
}

json_t* grant_of(const base::GrantReport& grant) {
    json_t* object = json_object();
    if (!grant.held) return object;
    put(object, "low_mhz", json_real(grant.lowFrequencyHz / kHzPerMhz));
    put(object, "high_mhz", json_real(grant.highFrequencyHz / kHzPerMhz));
    put(object, "max_eirp", json_integer(grant.maxEirp));
    return object;
}

json_t* certificates_of(const base::CertificateReport (&certificates)[base::kCertificateCount]) {
    json_t* object = json_object();
    for (size_t which = 0; which < base::kCertificateCount; ++which) {
        const base::CertificateReport& c = certificates[which];
        if (!c.held) continue;
        json_t* one = json_object();
        put(one, "file", text(c.file));
        put(one, "not_after", c.readable ? utc(c.notAfter) : json_string(""));
        put(object, base::certificate_name(static_cast<base::Certificate>(which)), one);
    }
    return object;
}

// Whole seconds, rounded up: 0 only once the deadline has passed.
int64_t seconds_left(int64_t msLeft) { return msLeft <= 0 ? 0 : (msLeft + 999) / 1000; }

std::string dump(json_t* object) {
    Json owned(object, json_decref);
    char* dumped = json_dumps(object, JSON_COMPACT);
    std::string out = dumped ? dumped : "{}";
    std::free(dumped);
    return out;
}

}  // namespace

LiveStatus live_status() {
    LiveStatus live;
    live.now = base::wall_seconds();
    live.transmitMsLeft = standalone::transmit_deadline_ms_left(base::monotonic_ms64());
    live.firewallBackend = gating::chosen_backend_name();
    live.commandStreaks = base::command_streaks();
    return live;
}

std::string status_json(const base::StatusReport& r, const LiveStatus& live) {
    json_t* status = json_object();
    put(status, "mode", json_string(mode_word(r)));
    put(status, "sas_enabled", json_boolean(r.sasEnabled));
    put(status, "state", text(r.state));
    put(status, "RadioEnable", json_boolean(r.radioEnable));
    put(status, "cbsdId", text(r.cbsdId));
    put(status, "grantId", text(r.grantId));
    put(status, "grantExpireTime", text(r.grantExpireTime));
    put(status, "transmitExpireTime", text(r.transmitExpireTime));
    put(status, "transmit_seconds_left", json_integer(seconds_left(live.transmitMsLeft)));
    put(status, "gates", gates_of(r.gates));
    put(status, "firewall_backend", json_string(live.firewallBackend));
    put(status, "last_exchange", last_exchange_of(r.lastExchange));
    put(status, "failures", failures_of(r, live));
    put(status, "grant", grant_of(r.grant));
    put(status, "certificates", certificates_of(r.certificates));
    return dump(status);
}

namespace {

void decode_gates(uint8_t bits, base::GateState (&gates)[base::kGateCount]) {
    for (size_t gate = 0; gate < base::kGateCount; ++gate) {
        bool known = bits & (1u << (2 * gate));
        bool open = bits & (2u << (2 * gate));
        gates[gate] = !known ? base::GateState::kUnknown
                             : open ? base::GateState::kOpen : base::GateState::kClosed;
    }
}

void put_sas(json_t* object, uint8_t value) {
    put(object, "sas_enabled", json_boolean(value != base::kSasOff));
    if (value != base::kSasOff)
        put(object, "mode", json_string(value == base::kSasDp ? "DP" : "StandAlone"));
}

// One entry: its time, its "event" and what it records.
json_t* entry_of(const base::HistoryEntry& entry) {
    json_t* object = json_object();
    put(object, "time", utc(entry.time));
    switch (entry.kind) {
        case base::HistoryKind::kState:
            put(object, "event", json_string("state"));
            put(object, "state", json_string(base::cbsd_state_name(entry.value)));
            break;
        case base::HistoryKind::kSas:
            put(object, "event", json_string("sas"));
            put_sas(object, entry.value);
            break;
        case base::HistoryKind::kRadio:
            put(object, "event", json_string("RadioEnable"));
            put(object, "RadioEnable", json_boolean(entry.value != 0));
            break;
        case base::HistoryKind::kGates: {
            base::GateState gates[base::kGateCount];
            decode_gates(entry.value, gates);
            put(object, "event", json_string("gates"));
            put(object, "gates", gates_of(gates));
            break;
        }
        case base::HistoryKind::kRequest:
            put(object, "event", json_string("request"));
            put_request(object, static_cast<base::Request>(entry.value), entry.flags != 0, entry.code);
            break;
    }
    return object;
}

uint64_t g_announcedChanges = 0;  // bus thread only

}  // namespace

std::string history_json(const std::vector<base::HistoryEntry>& entries) {
    json_t* list = json_array();
    for (const base::HistoryEntry& entry : entries) json_array_append_new(list, entry_of(entry));
    json_t* history = json_object();
    put(history, "history", list);
    return dump(history);
}

void send_state_event_if_changed() {
    uint64_t changes = base::state_change_count();
    if (changes == g_announcedChanges) return;
    g_announcedChanges = changes;
    bus::send_event(kStateEvent, status_json(base::status_copy(), live_status()));
}

void serve_status_object() {
    bus::serve_object(kObjectName,
                      {bus::Method{"status",
                                   [] { return status_json(base::status_copy(), live_status()); }},
                       bus::Method{"history", [] {
                                       return history_json(base::history_copy(base::wall_seconds()));
                                   }}});
    bus::every(kStateEventCheckMs, send_state_event_if_changed);
}

}  // namespace cbsd::daemon
