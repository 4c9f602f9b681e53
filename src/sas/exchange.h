// The skeleton every SAS exchange shares: the message is built and posted to
// its endpoint, the exchange is framed by its log lines, and the reply's
// usable bytes go to the exchange's parser.
#pragma once

#include "base/status_report.h"
#include "sas/transport.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace cbsd::sas {

// Fills `body` (capacity bytes); false when nothing may be sent.
using BodyBuilder = std::function<bool(char* body, size_t capacity)>;

// Builds the message into a buffer of `capacity` bytes, logs the URL
// (serverUrl + "/" + endpoint) and posts it.  Nothing is sent (result -1)
// when the buffer cannot be had or the builder refuses.
PostReply post_message(const Transport& post, const char* serverUrl, const char* endpoint,
                       size_t capacity, const BodyBuilder& build);

// The lines that frame one exchange in the log.
struct ExchangeLines {
    std::string sending;  // before the post
    std::string failed;   // when no reply arrived
};

// Logs the sending line and posts; then logs the failure line when no reply
// arrived, or hands the reply's usable bytes to `parse`.  Returns the reply:
// its result says which happened, its date what the SAS's clock said.
PostReply run_exchange(const ExchangeLines& lines, const std::function<PostReply()>& post,
                       const std::function<void(std::string_view)>& parse);

// The skeleton of the give-back drivers (relinquishment, deregistration):
// "send <request>...", the post, "post <request> failed" when no reply came,
// or else the parse and the outcome line (log_outcome) of the code it returns.
// The exchange goes to the status report as `kind`.
void run_logged_exchange(base::Request kind, const char* request, const char* outcome,
                         const std::function<PostReply()>& post,
                         const std::function<int32_t(std::string_view)>& parse);

// Publishes an exchange in the status report: a reply whose code could not be
// read (-1) counts as no reply.
void report_exchange(base::Request kind, const PostReply& reply, int32_t responseCode);

// "[SAS] <name> successfully" for code 0, otherwise
// "[SAS] <name> unsuccessfully, responseCode:<code>(<code's name>)"; both
// also to the system log.
void log_outcome(const char* name, int32_t code);

}  // namespace cbsd::sas
