// One HTTPS POST per SAS message, with mutual TLS.  The reply chunk that
// contains "Response" is written to /tmp/sasmsg.json, which the reply parsers read.
#pragma once

#include <cstddef>
#include <cstdint>

namespace cbsd::sas {

inline constexpr const char* kReplyDumpPath = "/tmp/sasmsg.json";
inline constexpr size_t kResponseBufferSize = 20480;

// 0 when a reply arrived (whatever its HTTP status), a positive CURLcode when
// the transfer failed, -1 when nothing was sent.
int32_t https_post(const char* url, const char* body);
int32_t post_json(const char* url, const char* body, const char* caPath, const char* certPath,
                  const char* keyPath, const char* crlPath);
// False once an exchange has started and until its own HTTP 200 reply is in
// the dump: a failed, non-200 or empty exchange leaves the dump stale.  True
// before the first exchange, so a dump written by other means is read as is.
bool reply_dump_is_fresh();
// The SAS's clock when it answered the last exchange (its reply's Date
// header), when the reply carried one that parses.
bool reply_date(int64_t* epochSeconds);
// While set, every exchange ends within about a second of its start or of
// the call, with CURLE_ABORTED_BY_CALLBACK (a transport failure).
void abort_exchanges(bool abort);
size_t save_response(char* data, size_t size, size_t count, void* user);

}  // namespace cbsd::sas
