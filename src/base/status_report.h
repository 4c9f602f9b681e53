// What the daemon is doing, as its threads last published it: the loop (SAS
// switch, mode, RadioEnable, unreadable store), the worker (state, ids,
// expiry times, the grant, each exchange), the gate switches (each gate as
// last applied) and the failure latches.  Publishing is a short copy under a
// mutex of its own, never a wait on anything else; the ubus object reads a
// copy (status_copy) on its own thread.  Nothing here is written to flash.
#pragma once

#include <cstddef>
#include <cstdint>

namespace cbsd::base {

enum class Gate : uint8_t { kForwarding, kIcmp, kBridge };
inline constexpr size_t kGateCount = 3;
// "forwarding", "icmp", "bridge".
const char* gate_name(Gate gate);

enum class GateState : int8_t { kUnknown = -1, kClosed = 0, kOpen = 1 };

enum class Request : uint8_t {
    kRegistration,
    kSpectrumInquiry,
    kGrant,
    kHeartbeat,
    kRelinquishment,
    kDeregistration,
};
// The request's name in the protocol: "registration", "spectrumInquiry", ...
const char* request_name(Request request);

// Conditions that stay until they end: each is published when it starts and
// when it ends, by the code that logs it once per streak.
enum class Failure : uint8_t {
    kStoreWrite,      // /etc/config/sas cannot be written
    kStoreRead,       // /etc/config/sas cannot be read
    kTlsHandshake,    // the SAS's TLS handshake fails
    kSasCaMissing,    // the SAS's CA file is named but missing
};
inline constexpr size_t kFailureCount = 4;
// "store_write", "store_read", "tls_handshake", "sas_ca_missing".
const char* failure_name(Failure failure);

// The TLS credentials whose expiry the status shows.
enum class Certificate : uint8_t { kClient, kSasCa };
inline constexpr size_t kCertificateCount = 2;
// "client", "sas_ca".
const char* certificate_name(Certificate certificate);

struct CertificateReport {
    bool held = false;  // false until a worker has read it
    char file[64] = {};
    bool readable = false;
    int64_t notAfter = 0;  // epoch seconds, when readable
};

struct ExchangeReport {
    bool held = false;  // false until the first exchange
    Request request = Request::kRegistration;
    int64_t time = 0;       // wall clock, epoch seconds
    bool replied = false;   // false: no usable reply (transport, HTTP status)
    int32_t responseCode = 0;
};

struct GrantReport {
    bool held = false;
    uint32_t lowFrequencyHz = 0;
    uint32_t highFrequencyHz = 0;
    int32_t maxEirp = 0;  // dBm/MHz, as asked for
};

struct StatusReport {
    // Counts the changes that send a state event (state, RadioEnable, SAS
    // switch, mode, gates).
    uint64_t stateChanges = 0;
    bool modeKnown = false;  // false until the loop's first pass
    bool sasEnabled = false;
    bool dpMode = false;
    bool radioEnable = false;
    char state[16] = {};
    char cbsdId[128] = {};
    char grantId[128] = {};
    char grantExpireTime[64] = {};
    char transmitExpireTime[64] = {};
    GateState gates[kGateCount] = {GateState::kUnknown, GateState::kUnknown, GateState::kUnknown};
    ExchangeReport lastExchange;
    // Exchanges in a row without a reply or with a responseCode other than 0.
    uint32_t exchangeFailures = 0;
    int64_t exchangeFailingSince = 0;
    GrantReport grant;
    bool failing[kFailureCount] = {};
    int64_t failingSince[kFailureCount] = {};  // when the failure started
    CertificateReport certificates[kCertificateCount];
};

// stateChanges without the lock: the bus thread looks at it a few times a
// second and sends a state event when it has moved, so that no publisher
// ever composes or sends anything itself.
uint64_t state_change_count();

// The loop, every pass.
void report_mode(bool sasEnabled, bool dpMode, bool radioEnable);
// Whoever writes operation.status.  Unregistered forgets the ids and the
// grant, Registered the grant; their times go with the grant.
void report_state(const char* state);
void report_cbsd_id(const char* cbsdId);
void report_grant(const char* grantId, uint32_t lowFrequencyHz, uint32_t highFrequencyHz,
                  int32_t maxEirp);
void report_grant_expire_time(const char* text);
void report_transmit_expire_time(const char* text);
// Every gate switch, with the state it left the gate in.
void report_gate(Gate gate, bool open);
// Every exchange; responseCode counts only when replied.
void report_exchange(Request request, bool replied, int32_t responseCode);
void report_failure(Failure failure, bool failing);
// The worker as it starts: the file's name, and its notAfter (nullptr when
// the file cannot be read as a certificate).
void report_certificate(Certificate certificate, const char* file, const int64_t* notAfter);

StatusReport status_copy();

// Back to the state before any report (tests).
void reset_status_report();

}  // namespace cbsd::base
