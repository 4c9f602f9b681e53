// One HTTPS POST per SAS message, with mutual TLS.  The reply goes back to
// the caller; the chunk that contains "Response" is also written to
// /tmp/sasmsg.json, for the tools on the router that read it.
#pragma once

#include "sas/transport.h"

#include <cstddef>
#include <cstdint>

namespace cbsd::sas {

inline constexpr const char* kReplyDumpPath = "/tmp/sasmsg.json";
inline constexpr size_t kResponseBufferSize = 20480;

// With the device's credentials as section cert of /etc/config/sas names them.
PostReply https_post(const char* url, const char* body);
PostReply post_json(const char* url, const char* body, const char* caPath, const char* certPath,
                    const char* keyPath, const char* crlPath);
// https_post as the Transport the worker uses unless it is given another.
const Transport& https_transport();
// While set, every exchange ends within about a second of its start or of
// the call, with CURLE_ABORTED_BY_CALLBACK (a transport failure).
void abort_exchanges(bool abort);
// libcurl's write callback; `reply` is the PostReply of the running exchange.
// A chunk that carries "Response" becomes its dumped bytes and is written to
// the dump file.  A chunk over kResponseBufferSize bytes is cut one byte short
// of it, which makes libcurl end the transfer with a write error.
size_t save_response(char* data, size_t size, size_t count, void* reply);
// Its two steps without the file: the bytes of a chunk that are kept, and
// whether they become the reply's dumped bytes (true when they carry
// "Response").
size_t kept_chunk_length(size_t length);
bool take_reply_chunk(const char* data, size_t kept, PostReply* reply);

}  // namespace cbsd::sas
