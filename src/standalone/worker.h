// The StandAlone worker's state across passes, and the frame of one exchange.
// standalone_thread.cpp runs the passes; worker_steps.h holds what several
// exchanges do (status, withdrawal, give-back, pacing); registration_steps.h
// and heartbeat_steps.h hold the exchanges.
#pragma once

#include "base/status_report.h"
#include "config/device_record.h"
#include "sas/exchange.h"
#include "sas/replies.h"
#include "sas/transport.h"
#include "standalone/held_text.h"
#include "standalone/oper_timer.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace cbsd::standalone {

// A grant reply without a usable heartbeat period gets this one.
inline constexpr uint32_t kDefaultHeartbeatInterval = 60;
// Transmission stops only this long after its deadline.
inline constexpr int32_t kTransmitGraceSeconds = 30;

// The message records; later requests are built from the replies kept here.
struct Records {
    std::unique_ptr<config::DeviceRecord> device;
    std::unique_ptr<sas::RegistrationResponse> registration;
    std::unique_ptr<sas::SpectrumInquiryResponse> inquiry;
    std::unique_ptr<sas::GrantResponse> grant;
    std::unique_ptr<sas::HeartbeatResponse> heartbeat;
    std::unique_ptr<sas::RelinquishmentResponse> relinquishment;
    std::unique_ptr<sas::DeregistrationResponse> deregistration;
};

struct Worker {
    // Every exchange of this worker goes through it.
    sas::Transport transport;
    char serverUrl[128] = {};
    char status[32] = {};  // operation.status as read at the start of the pass
    char timeText[32] = {};
    char cbsdId[128] = {};
    char grantId[128] = {};
    OperTimer operTimer{};
    uint32_t heartbeatInterval = kDefaultHeartbeatInterval;
    bool lastLteConnected = true;
    // Refusals answered by starting over, since the last heartbeat success.
    uint32_t refusals = 0;
    // The transmit time whose expiry was acted on, until the next success.
    char expiredTransmit[32] = {};
    // The grant time whose expiry was acted on, should the store keep it.
    char expiredGrant[32] = {};
    // Successes in a row whose transmit time was already past on arrival.
    uint32_t pastOnArrival = 0;
    // Decisions the store could not take, used until a write lands.
    HeldText heldStatus;
    HeldText heldTransmit;
    Records records;
};

// One exchange of the worker: "send <request><detail>...", the post, then
// "failed to do <request><detail or ()>" when no reply came, or else the
// record cleared and the reply parsed into it.  Returns the reply; the
// status report learns of it as `kind`.
template <typename Record>
sas::PostReply exchange(base::Request kind, const char* request, const std::string& detail,
                        const std::function<sas::PostReply()>& post,
                        int32_t (*parse)(std::string_view, Record*), Record* record) {
    std::string name = std::string(request) + "_request";
    int32_t code = -1;
    sas::PostReply reply = sas::run_exchange(
        {"\n[SAS] send " + name + detail + "...\n",
         "[SAS] failed to do " + name + (detail.empty() ? "()" : detail) + "\n"},
        post, [&](std::string_view bytes) {
            *record = Record{};
            parse(bytes, record);
            code = record->responseCode;
        });
    sas::report_exchange(kind, reply, code);
    return reply;
}

}  // namespace cbsd::standalone
