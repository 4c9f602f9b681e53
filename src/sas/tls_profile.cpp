// The CBRS communications security profile asks for TLS 1.2 or later and a
// short list of AES-GCM suites; a SAS that offers only something else is
// refused in the handshake, before any request leaves the device.  Host-name
// checking stays off unless the operator asks for it (config.verifySasHost),
// as the device has always behaved.
#include "sas/tls_profile.h"

#include "base/log.h"
#include "base/status_report.h"

#include <atomic>

namespace cbsd::sas {

namespace {

// Only the worker posts, but a worker restart runs a new thread: the latches
// are atomics so that a stopping and a starting worker never tear them.
std::atomic<bool> g_handshakeFailing{false};
std::atomic<bool> g_caMissing{false};
// A TLS library without the options stays without them until the next build.
std::atomic<bool> g_profileUnsupported{false};

}  // namespace

TlsOptions tls_options(bool verifyHost) {
    return TlsOptions{CURL_SSLVERSION_TLSv1_2, kProfileCipherList, kProfileTls13Ciphers,
                      verifyHost ? 2L : 0L};
}

bool apply_tls_options(CURL* curl, const TlsOptions& options) {
    bool held = curl_easy_setopt(curl, CURLOPT_SSLVERSION, options.sslVersion) == CURLE_OK;
    held = curl_easy_setopt(curl, CURLOPT_SSL_CIPHER_LIST, options.cipherList) == CURLE_OK && held;
    held = curl_easy_setopt(curl, CURLOPT_TLS13_CIPHERS, options.tls13Ciphers) == CURLE_OK && held;
    return curl_easy_setopt(curl, CURLOPT_SSL_VERIFYHOST, options.verifyHost) == CURLE_OK && held;
}

bool is_tls_failure(CURLcode code) {
    switch (code) {
        case CURLE_SSL_CONNECT_ERROR:
        case CURLE_PEER_FAILED_VERIFICATION:
        case CURLE_SSL_CIPHER:
        case CURLE_SSL_CERTPROBLEM:
        case CURLE_SSL_CACERT_BADFILE:
        case CURLE_SSL_CRL_BADFILE:
        case CURLE_SSL_ISSUER_ERROR:
        case CURLE_SSL_INVALIDCERTSTATUS:
            return true;
        default:
            return false;
    }
}

void note_tls_result(CURLcode code, const char* detail) {
    if (is_tls_failure(code)) {
        if (g_handshakeFailing.exchange(true)) return;
        base::report_failure(base::Failure::kTlsHandshake, true);
        base::error_to_syslog(
            "[SAS] TLS with the SAS refused (libcurl %d: %s): only TLS 1.2 or later with the "
            "AES-GCM suites of the CBRS security profile and a SAS certificate that verifies "
            "are accepted; nothing is sent until a handshake succeeds.\n",
            static_cast<int>(code), detail);
    } else if (code == CURLE_OK && g_handshakeFailing.exchange(false)) {
        base::report_failure(base::Failure::kTlsHandshake, false);
        base::notice_to_syslog("[SAS] TLS with the SAS succeeds again.\n");
    }
}

void note_profile_unsupported() {
    if (!g_profileUnsupported.exchange(true))
        base::error_to_syslog("[SAS] libcurl cannot restrict TLS to the SAS security profile: "
                              "nothing is sent to the SAS.\n");
}

void note_missing_ca(const char* caPath) {
    if (g_caMissing.exchange(true)) return;
    base::report_failure(base::Failure::kSasCaMissing, true);
    base::error_to_syslog(
        "[SAS] no server CA file (%s) and config.requireSasCa is 1: nothing is sent to the "
        "SAS until it is there.\n",
        caPath[0] != '\0' ? caPath : "none configured");
}

void note_ca_present() {
    if (g_caMissing.exchange(false)) base::report_failure(base::Failure::kSasCaMissing, false);
}

}  // namespace cbsd::sas
