// One libcurl transfer per SAS message.  The reply is not handed back to the
// caller: the write callback keeps the last delivered chunk in a fixed buffer
// and copies any chunk that carries "Response" to /tmp/sasmsg.json, where the
// reply parsers read it.  The dump counts only when this exchange wrote it and
// the SAS answered HTTP 200: an error page or an empty reply must not let the
// previous exchange's reply be read as this one's.  Only the StandAlone worker
// posts, one exchange at a time, so the process-wide buffer needs no lock.
#include "sas/https.h"

#include "config/device_record.h"
#include "base/log.h"
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

char g_response[kResponseBufferSize];
uint32_t g_responseLength = 0;
// Set when a chunk of the running exchange reached the dump file.
bool g_dumpWritten = false;
// False from the start of an exchange until its own 200 reply is in the dump.
std::atomic<bool> g_dumpFresh{true};
// The Date header of the running exchange's last response, when it had one.
bool g_replyDated = false;
int64_t g_replyDate = 0;

constexpr const char* kResponseMarker = "Response";

// Set for a worker that outlived its stop: its exchanges end at once.
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

// True when the whole chunk reached the file; otherwise the dump is not this
// exchange's reply and the parsers must not take it.
bool save_reply_dump(const char* data, size_t length) {
    FILE* file = std::fopen(kReplyDumpPath, "w");
    if (!file) return false;
    bool whole = std::fwrite(data, 1, length, file) == length;
    return std::fclose(file) == 0 && whole;
}

size_t note_reply_date(char* line, size_t size, size_t count, void*) {
    int64_t date = 0;
    if (date_from_header_line(line, size * count, &date)) {
        g_replyDate = date;
        g_replyDated = true;
    }
    return size * count;
}

// Decides after the transfer whether the dump is this exchange's own reply.
void judge_reply(CURL* curl) {
    long status = 0;
    curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &status);
    bool fresh = status == 200 && g_dumpWritten;
    if (!fresh) base::notice("[SAS] HTTP status %ld, no usable reply in this exchange\n", status);
    g_dumpFresh.store(fresh);
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
                          const char* crlPath, char* errorText) {
    curl_easy_setopt(curl, CURLOPT_URL, url);
    if (body) curl_easy_setopt(curl, CURLOPT_POSTFIELDS, body);
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE, body ? static_cast<long>(std::strlen(body)) : 0L);
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, save_response);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, g_response);
    curl_easy_setopt(curl, CURLOPT_POST, 1L);
    curl_easy_setopt(curl, CURLOPT_VERBOSE, 1L);
    curl_easy_setopt(curl, CURLOPT_HEADER, 0L);
    curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, note_reply_date);
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

void perform(CURL* curl, char* errorText, int32_t* result) {
    CURLcode code = curl_easy_perform(curl);
    if (code != CURLE_OK) log_transfer_error(code, errorText);
    else judge_reply(curl);
    note_tls_result(code, errorText[0] != '\0' ? errorText : curl_easy_strerror(code));
    *result = static_cast<int32_t>(code);
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

size_t save_response(char* data, size_t size, size_t count, void* user) {
    char* buffer = user ? static_cast<char*>(user) : g_response;
    size_t length = size * count;
    // One byte short of the buffer for an oversized chunk, so that it stays
    // terminated; libcurl then aborts the transfer with a write error.
    size_t kept = length <= kResponseBufferSize ? length : kResponseBufferSize - 1;
    std::memset(buffer, 0, kResponseBufferSize);
    if (kept > 0) std::memcpy(buffer, data, kept);
    g_responseLength = static_cast<uint32_t>(kept);
    // A chunk of exactly the buffer size has no terminator: search by length.
    if (memmem(buffer, kept, kResponseMarker, std::strlen(kResponseMarker)) != nullptr)
        g_dumpWritten = save_reply_dump(buffer, kept);
    return kept;
}

int32_t post_json(const char* url, const char* body, const char* caPath, const char* certPath,
                  const char* keyPath, const char* crlPath) {
    char errorText[CURL_ERROR_SIZE];
    errorText[0] = '\0';
    curl_global_init(CURL_GLOBAL_ALL);
    CURL* curl = curl_easy_init();
    curl_slist* headers = nullptr;
    int32_t result = -1;
    if (!curl || !url) {
        base::notice("[SAS] curl[%s], strUrl[%s]\n", curl ? "ok" : "(null)",
                  url ? url : "(null)");
    } else {
        std::memset(g_response, 0, sizeof g_response);
        g_dumpWritten = false;
        g_dumpFresh.store(false);
        g_replyDated = false;
        headers = curl_slist_append(nullptr, "Accept: application/json");
        curl_slist* both = headers ? curl_slist_append(headers, "Content-Type: application/json")
                                   : nullptr;
        if (both) {
            headers = both;
            if (set_transfer_options(curl, url, body, headers, caPath, certPath, keyPath,
                                     crlPath, errorText))
                perform(curl, errorText, &result);
            else
                note_profile_unsupported();
        }
    }
    curl_slist_free_all(headers);
    if (curl) curl_easy_cleanup(curl);
    curl_global_cleanup();
    return result;
}

bool reply_dump_is_fresh() { return g_dumpFresh.load(); }

void abort_exchanges(bool abort) { g_abortExchanges.store(abort); }

bool reply_date(int64_t* epochSeconds) {
    if (!g_replyDated) return false;
    *epochSeconds = g_replyDate;
    return true;
}

int32_t https_post(const char* url, const char* body) {
    config::CertificatePaths paths;
    std::memset(&paths, 0, sizeof paths);
    config::load_cert_paths(&paths);

    if (!file_exists(paths.clientCert)) {
        base::notice_to_syslog("[SAS] client cert file(%s) is not exist.\n", paths.clientCert);
        return -1;
    }
    if (!file_exists(paths.clientKey)) {
        base::notice_to_syslog("[SAS] client key file(%s) is not exist.\n", paths.clientKey);
        return -1;
    }
    if (!ca_allows_exchange(paths.serverCA)) return -1;
    int32_t result = post_json(url, body, paths.serverCA, paths.clientCert, paths.clientKey,
                               paths.crlFile);
    base::notice("[SAS] https_post() return %d\n", result);
    return result;
}

}  // namespace cbsd::sas
