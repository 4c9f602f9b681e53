#include "sas/exchange.h"

#include "base/log.h"
#include "sas/response_codes.h"

#include <cstdio>
#include <memory>
#include <new>

namespace cbsd::sas {

PostReply post_message(const Transport& post, const char* serverUrl, const char* endpoint,
                       size_t capacity, const BodyBuilder& build) {
    std::unique_ptr<char[]> body(new (std::nothrow) char[capacity]);
    if (!body) {
        base::error("[SAS] szPost molloc failed ...\n\n");
        return PostReply{};
    }
    char url[128] = {};
    std::snprintf(url, sizeof url, "%s/%s", serverUrl, endpoint);
    base::notice("[SAS] URL = %s\n", url);
    if (!build(body.get(), capacity)) return PostReply{};
    return post(url, body.get());
}

PostReply run_exchange(const ExchangeLines& lines, const std::function<PostReply()>& post,
                       const std::function<void(std::string_view)>& parse) {
    base::notice("%s", lines.sending.c_str());
    PostReply reply = post();
    if (reply.result != 0)
        base::notice("%s", lines.failed.c_str());
    else
        parse(reply.usable());
    return reply;
}

void report_exchange(base::Request kind, const PostReply& reply, int32_t responseCode) {
    bool replied = reply.result == 0 && responseCode >= 0;
    base::report_exchange(kind, replied, responseCode);
}

void run_logged_exchange(base::Request kind, const char* request, const char* outcome,
                         const std::function<PostReply()>& post,
                         const std::function<int32_t(std::string_view)>& parse) {
    std::string name = request;
    int32_t code = 0;
    PostReply reply = run_exchange(
        {"\n[SAS] send " + name + "...\n", "[SAS] post " + name + " failed\n"}, post,
        [&](std::string_view bytes) { code = parse(bytes); });
    report_exchange(kind, reply, code);
    if (reply.result == 0) log_outcome(outcome, code);
}

void log_outcome(const char* name, int32_t code) {
    if (code == 0)
        base::notice_to_syslog("[SAS] %s successfully\n", name);
    else
        base::notice_to_syslog("[SAS] %s unsuccessfully, responseCode:%d(%s)\n", name, code,
                               responseCode_name(code));
}

}  // namespace cbsd::sas
