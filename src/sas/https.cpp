// One libcurl transfer per SAS message.  The reply is handed back to the
// caller as one value (sas/transport.h): the write and header callbacks fill
// the PostReply of the running exchange, passed to them as their user pointer.
// Any chunk that carries "Response" is also copied to /tmp/sasmsg.json, which
// tools on the router read; nothing in the daemon reads it back.
#include "sas/https.h"

#include "config/device_record.h"
#include "base/log.h"
#include "base/settings.h"
#include "config/accessors.h"
#include "config/certificate_paths.h"
#include "sas/reply_date.h"
#include "sas/tls_profile.h"

#include <curl/curl.h>
#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <cstring>

namespace cbsd::sas {

namespace {

constexpr const char* kResponseMarker = "Response";

// Set for a worker that outlived its stop: its exchanges end at once.  The
// one process-wide flag of the transport: the stop that sets it runs on
// another thread than the transfer it must end, and knows no exchange.
std::atomic<bool> g_abortExchanges{false};

// libcurl calls this about once a second even while nothing moves (connect,
// handshake, a SAS that holds its answer); non-zero ends the transfer.
int abort_when_asked(void*, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    return g_abortExchanges.load() ? 1 : 0;
}

bool file_exists(const char* path) {
    struct stat st{};
    return path[0] != '\0' && stat(path, &st) == 0;
}

bool file_readable(const char* path) {
    FILE* file = std::fopen(path, "r");
    if (!file) return false;
    std::fclose(file);
    return true;
}

// A copy for the tools that read it; the exchange reads its PostReply.
void save_reply_dump(const char* data, size_t length) {
    FILE* file = std::fopen(kReplyDumpPath, "w");
    if (!file) return;
    std::fwrite(data, 1, length, file);
    std::fclose(file);
}

size_t note_reply_date(char* line, size_t size, size_t count, void* user) {
    auto* reply = static_cast<PostReply*>(user);
    int64_t date = 0;
    if (date_from_header_line(line, size * count, &date)) {
        reply->date = date;
        reply->dated = true;
    }
    return size * count;
}

// Notes the HTTP status; says so when the reply is no answer to use.
void judge_reply(CURL* curl, PostReply* reply) {
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &reply->httpStatus);
    if (reply->httpStatus != 200 || reply->dumped.empty())
        base::notice("[SAS] HTTP status %ld, no usable reply in this exchange\n", reply->httpStatus);
}

void log_transfer_error(CURLcode result, const char* errorText) {
    base::notice("\n[SAS] libcurl: (%d) ", static_cast<int>(result));
    size_t length = std::strlen(errorText);
    if (length > 0) {
        base::notice("%s%s", errorText, errorText[length - 1] != '\n' ? "\n" : "");
    } else {
        base::notice("%s\n", curl_easy_strerror(result));
    }
}

// The options in the order the transfer relies on; the CRL only when it can
// be read, and peer verification only when a CA path was given at all.  False
// when libcurl cannot hold the TLS profile: then nothing may be sent.
bool set_transfer_options(CURL* curl, const char* url, const char* body, curl_slist* headers,
                          const char* caPath, const char* certPath, const char* keyPath,
                          const char* crlPath, char* errorText, PostReply* reply) {
    curl_easy_setopt(curl, CURLOPT_URL, url);
    if (body) curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, body ? static_cast<long>(std::strlen(body)) : 0L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, save_response);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, reply);
    curl_easy_setopt(curl, CURLOPT_POST, 1L);
    // libcurl's trace goes to standard error, which procd hands to the system
    // log line by line (about 40 lines an exchange): only in debug mode (-d).
    curl_easy_setopt(curl, CURLOPT_VERBOSE, base::settings().debug ? 1L : 0L);
    curl_easy_setopt(curl, CURLOPT_HEADER, 0L);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, note_reply_date);
    curl_easy_setopt(curl, CURLOPT_HEADERDATA, reply);
    curl_easy_setopt(curl, CURLOPT_SSLCERT, certPath);
    curl_easy_setopt(curl, CURLOPT_SSLCERTTYPE, "PEM");
    if (crlPath && file_readable(crlPath)) curl_easy_setopt(curl, CURLOPT_CRLFILE, crlPath);
    curl_easy_setopt(curl, CURLOPT_SSLKEY, keyPath);
    curl_easy_setopt(curl, CURLOPT_SSLKEYTYPE, "PEM");
    bool profiled = apply_tls_options(curl, tls_options(config::is_sas_host_verified()));
    bool caSet = caPath != nullptr && caPath[0] != '\0';
    if (caSet) curl_easy_setopt(curl, CURLOPT_CAINFO, caPath);
    curl_easy_setopt(curl, CURLOPT_SSL_VERIFYPEER, caSet ? 1L : 0L);
    curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 10L);
    curl_easy_setopt(curl, CURLOPT_TIMEOUT, 30L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorText);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 10L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, 30L);
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, abort_when_asked);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    return profiled;
}

void perform(CURL* curl, char* errorText, PostReply* reply) {
    CURLcode code = curl_easy_perform(curl);
    if (code != CURLE_OK) log_transfer_error(code, errorText);
    else judge_reply(curl, reply);
    note_tls_result(code, errorText[0] != '\0' ? errorText : curl_easy_strerror(code));
    reply->result = static_cast<int32_t>(code);
}

// With config.requireSasCa "1" a SAS is talked to only when its CA is there;
// otherwise a missing CA is announced and, when none is named, not checked.
bool ca_allows_exchange(const char* caPath) {
    bool present = file_exists(caPath);
    if (config::is_sas_ca_required()) {
        if (!present) note_missing_ca(caPath);
        else note_ca_present();
        return present;
    }
    if (!present)
        base::notice_to_syslog("[SAS] server CA file(%s) is not exist, will not verify server.\n",
                               caPath);
    return true;
}

}  // namespace

size_t kept_chunk_length(size_t length) {
    // One byte short of the buffer for an oversized chunk (the size the dump
    // has always been cut to); libcurl then aborts the transfer.
    return length <= kResponseBufferSize ? length : kResponseBufferSize - 1;
}

bool take_reply_chunk(const char* data, size_t kept, PostReply* reply) {
    // Searched by length: a chunk may hold NUL bytes and has no terminator.
    if (memmem(data, kept, kResponseMarker, std::strlen(kResponseMarker)) == nullptr) return false;
    reply->dumped.assign(data, kept);
    return true;
}

size_t save_response(char* data, size_t size, size_t count, void* reply) {
    size_t kept = kept_chunk_length(size * count);
    if (take_reply_chunk(data, kept, static_cast<PostReply*>(reply))) save_reply_dump(data, kept);
    return kept;
}

PostReply post_json(const char* url, const char* body, const char* caPath, const char* certPath,
                    const char* keyPath, const char* crlPath) {
    char errorText[CURL_ERROR_SIZE];
    errorText[0] = '\0';
    curl_global_init(CURL_GLOBAL_ALL);
    CURL* curl = curl_easy_init();
    curl_slist* headers = nullptr;
    PostReply reply;
    if (!curl || !url) {
        base::notice("[SAS] curl[%s], strUrl[%s]\n", curl ? "ok" : "(null)",
                  url ? url : "(null)");
    } else {
        headers = curl_slist_append(nullptr, "Accept: application/json");
        curl_slist* both = headers ? curl_slist_append(headers, "Content-Type: application/json")
                                   : nullptr;
        if (both) {
            headers = both;
            if (set_transfer_options(curl, url, body, headers, caPath, certPath, keyPath,
                                     crlPath, errorText, &reply))
                perform(curl, errorText, &reply);
            else
                note_profile_unsupported();
        }
    }
    curl_slist_free_all(headers);
    if (curl) curl_easy_cleanup(curl);
    curl_global_cleanup();
    return reply;
}

void abort_exchanges(bool abort) { g_abortExchanges.store(abort); }

PostReply https_post(const char* url, const char* body) {
    config::CertificatePaths paths;
    std::memset(&paths, 0, sizeof paths);
    config::load_cert_paths(&paths);

    if (!file_exists(paths.clientCert)) {
        base::notice_to_syslog("[SAS] client cert file(%s) is not exist.\n", paths.clientCert);
        return PostReply{};
    }
    if (!file_exists(paths.clientKey)) {
        base::notice_to_syslog("[SAS] client key file(%s) is not exist.\n", paths.clientKey);
        return PostReply{};
    }
    if (!ca_allows_exchange(paths.serverCA)) return PostReply{};
    PostReply reply = post_json(url, body, paths.serverCA, paths.clientCert, paths.clientKey,
                                paths.crlFile);
    base::notice("[SAS] https_post() return %d\n", reply.result);
    return reply;
}

const Transport& https_transport() {
    static const Transport transport = https_post;
    return transport;
}

}  // namespace cbsd::sas
