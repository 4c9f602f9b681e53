// The one call through which every SAS message leaves, and what it brings
// back.  The real transport is HTTPS with mutual TLS (sas/https.h); unit tests
// hand the StandAlone worker a scripted one instead.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace cbsd::sas {

// One post's reply, handed to the exchange that posted: nothing of it is kept
// anywhere else, so no exchange can read another exchange's reply.
struct PostReply {
    // 0 when a reply arrived (whatever its HTTP status), a positive CURLcode
    // when the transfer failed, -1 when nothing was sent.
    int32_t result = -1;
    long httpStatus = 0;
    // The SAS's clock when it answered (its reply's Date header), when the
    // reply carried one that parses.
    bool dated = false;
    int64_t date = 0;
    // The bytes /tmp/sasmsg.json received in this exchange: the last chunk
    // that carried "Response"; empty when no chunk did.
    std::string dumped;

    // What the reply parsers may read: the dumped bytes of an HTTP 200 reply,
    // nothing otherwise.  An error page, an error status whose body carries
    // the marker, or an empty reply is no answer to the request.
    std::string_view usable() const {
        return result == 0 && httpStatus == 200 ? std::string_view(dumped) : std::string_view();
    }
};

// Posts the JSON body (null: an empty body) to the URL and returns the reply.
using Transport = std::function<PostReply(const char* url, const char* body)>;

}  // namespace cbsd::sas
