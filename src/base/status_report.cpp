#include "base/status_report.h"

#include "base/cbsd_state.h"
#include "base/clock.h"
#include "base/status_history.h"

#include <atomic>
#include <cstring>
#include <mutex>

namespace cbsd::base {

namespace {

// Held only for a copy or a compare of a few hundred bytes: the loop, the
// worker and the guard publish, the bus thread copies.
std::mutex g_reportLock;
StatusReport g_report;
std::atomic<uint64_t> g_stateChanges{0};

using Hold = std::lock_guard<std::mutex>;

// A text the SAS or the store supplied, cut to the field.
template <size_t Width>
bool set_text(char (&field)[Width], const char* text) {
    const char* value = text ? text : "";
    if (std::strncmp(field, value, Width - 1) == 0) return false;
    std::strncpy(field, value, Width - 1);
    field[Width - 1] = '\0';
    return true;
}

uint8_t state_id(const char* state) {
    for (const CbsdState* row = CbsdStateTable; row->id != 0; ++row)
        if (std::strcmp(row->name, state) == 0) return static_cast<uint8_t>(row->id);
    return 0;
}

uint8_t gate_bits(const StatusReport& report) {
    uint8_t bits = 0;
    for (size_t gate = 0; gate < kGateCount; ++gate) {
        if (report.gates[gate] == GateState::kUnknown) continue;
        bits |= static_cast<uint8_t>(1u << (2 * gate));
        if (report.gates[gate] == GateState::kOpen) bits |= static_cast<uint8_t>(2u << (2 * gate));
    }
    return bits;
}

void forget_grant(StatusReport& report) {
    report.grantId[0] = '\0';
    report.grantExpireTime[0] = '\0';
    report.transmitExpireTime[0] = '\0';
    report.grant = GrantReport{};
}

// Unregistered holds nothing the SAS gave, Registered no grant.
void forget_what_the_state_lacks(StatusReport& report, uint8_t id) {
    if (id == kUnregistered) report.cbsdId[0] = '\0';
    if (id == kUnregistered || id == kRegistered) forget_grant(report);
}

// Under the lock: the count and the report move together.
void count_state_change(StatusReport& report) {
    ++report.stateChanges;
    g_stateChanges.store(report.stateChanges);
}

uint8_t sas_value(bool sasEnabled, bool dpMode) {
    if (!sasEnabled) return kSasOff;
    return dpMode ? kSasDp : kSasStandAlone;
}

}  // namespace

const char* gate_name(Gate gate) {
    switch (gate) {
        case Gate::kForwarding: return "forwarding";
        case Gate::kIcmp: return "icmp";
        case Gate::kBridge: return "bridge";
    }
    return "";
}

const char* request_name(Request request) {
    switch (request) {
        case Request::kRegistration: return "registration";
        case Request::kSpectrumInquiry: return "spectrumInquiry";
        case Request::kGrant: return "grant";
        case Request::kHeartbeat: return "heartbeat";
        case Request::kRelinquishment: return "relinquishment";
        case Request::kDeregistration: return "deregistration";
    }
    return "";
}

const char* failure_name(Failure failure) {
    switch (failure) {
        case Failure::kStoreWrite: return "store_write";
        case Failure::kStoreRead: return "store_read";
        case Failure::kTlsHandshake: return "tls_handshake";
        case Failure::kSasCaMissing: return "sas_ca_missing";
    }
    return "";
}

const char* certificate_name(Certificate certificate) {
    return certificate == Certificate::kClient ? "client" : "sas_ca";
}

uint64_t state_change_count() { return g_stateChanges.load(); }

// The SAS switch and the mode count as one entry of the history.
void report_mode(bool sasEnabled, bool dpMode, bool radioEnable) {
    Hold hold(g_reportLock);
    StatusReport& r = g_report;
    bool modeChanged = !r.modeKnown || r.sasEnabled != sasEnabled || r.dpMode != dpMode;
    bool radioChanged = !r.modeKnown || r.radioEnable != radioEnable;
    r.modeKnown = true;
    r.sasEnabled = sasEnabled;
    r.dpMode = dpMode;
    r.radioEnable = radioEnable;
    if (modeChanged) record_history(HistoryKind::kSas, sas_value(sasEnabled, dpMode));
    if (radioChanged) record_history(HistoryKind::kRadio, radioEnable ? 1 : 0);
    if (modeChanged || radioChanged) count_state_change(r);
}

void report_state(const char* state) {
    Hold hold(g_reportLock);
    bool changed = set_text(g_report.state, state);
    uint8_t id = state_id(g_report.state);
    forget_what_the_state_lacks(g_report, id);
    if (!changed) return;
    record_history(HistoryKind::kState, id);
    count_state_change(g_report);
}

void report_cbsd_id(const char* cbsdId) {
    Hold hold(g_reportLock);
    set_text(g_report.cbsdId, cbsdId);
}

void report_grant(const char* grantId, uint32_t lowFrequencyHz, uint32_t highFrequencyHz,
                  int32_t maxEirp) {
    Hold hold(g_reportLock);
    set_text(g_report.grantId, grantId);
    g_report.grant = GrantReport{true, lowFrequencyHz, highFrequencyHz, maxEirp};
}

void report_grant_expire_time(const char* text) {
    Hold hold(g_reportLock);
    set_text(g_report.grantExpireTime, text);
}

void report_transmit_expire_time(const char* text) {
    Hold hold(g_reportLock);
    set_text(g_report.transmitExpireTime, text);
}

void report_gate(Gate gate, bool open) {
    Hold hold(g_reportLock);
    GateState& slot = g_report.gates[static_cast<size_t>(gate)];
    GateState now = open ? GateState::kOpen : GateState::kClosed;
    if (slot == now) return;
    slot = now;
    record_history(HistoryKind::kGates, gate_bits(g_report));
    count_state_change(g_report);
}

void report_exchange(Request request, bool replied, int32_t responseCode) {
    int64_t now = wall_seconds();
    Hold hold(g_reportLock);
    StatusReport& r = g_report;
    r.lastExchange = ExchangeReport{true, request, now, replied, replied ? responseCode : 0};
    if (replied && responseCode == 0) {
        r.exchangeFailures = 0;
        r.exchangeFailingSince = 0;
    } else if (r.exchangeFailures++ == 0) {
        r.exchangeFailingSince = now;
    }
    record_history(HistoryKind::kRequest, static_cast<uint8_t>(request), replied ? 1 : 0,
                   r.lastExchange.responseCode);
}

void report_failure(Failure failure, bool failing) {
    int64_t now = wall_seconds();
    Hold hold(g_reportLock);
    size_t slot = static_cast<size_t>(failure);
    if (failing && !g_report.failing[slot]) g_report.failingSince[slot] = now;
    g_report.failing[slot] = failing;
}

void report_certificate(Certificate certificate, const char* file, const int64_t* notAfter) {
    Hold hold(g_reportLock);
    CertificateReport& slot = g_report.certificates[static_cast<size_t>(certificate)];
    slot.held = true;
    set_text(slot.file, file);
    slot.readable = notAfter != nullptr;
    slot.notAfter = notAfter ? *notAfter : 0;
}

StatusReport status_copy() {
    Hold hold(g_reportLock);
    return g_report;
}

void reset_status_report() {
    {
        Hold hold(g_reportLock);
        g_report = StatusReport{};
        g_stateChanges.store(0);
    }
    reset_history();
}

}  // namespace cbsd::base
