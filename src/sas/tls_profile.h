// The TLS a device speaks with its SAS: version and cipher suites of the CBRS
// communications security profile, the operator's host-name option, and the
// one log line per streak of failed handshakes.
#pragma once

#include <curl/curl.h>

namespace cbsd::sas {

// TLS 1.2 suites the profile allows, in OpenSSL's names: AES-GCM with
// ECDHE-ECDSA, ECDHE-RSA or RSA key exchange, and nothing else.
inline constexpr const char* kProfileCipherList =
    "ECDHE-ECDSA-AES128-GCM-SHA256:ECDHE-ECDSA-AES256-GCM-SHA384:"
    "ECDHE-RSA-AES128-GCM-SHA256:AES128-GCM-SHA256:AES256-GCM-SHA384";
// TLS 1.3 has no key exchange in its suite names (always ephemeral); of its
// suites only the AES-GCM ones keep the profile's cipher, so ChaCha20 is out.
inline constexpr const char* kProfileTls13Ciphers = "TLS_AES_128_GCM_SHA256:TLS_AES_256_GCM_SHA384";

// The libcurl options of the profile, as values, so that they can be checked
// without a transfer.
struct TlsOptions {
    long sslVersion;           // CURLOPT_SSLVERSION: the lowest version offered
    const char* cipherList;    // CURLOPT_SSL_CIPHER_LIST (TLS 1.2)
    const char* tls13Ciphers;  // CURLOPT_TLS13_CIPHERS
    long verifyHost;           // CURLOPT_SSL_VERIFYHOST: 2 checks the name, 0 does not
};

TlsOptions tls_options(bool verifyHost);
// False when libcurl refused one of them (a TLS library that cannot hold the
// profile): the transfer must then not run at all.
bool apply_tls_options(CURL* curl, const TlsOptions& options);

// True for the transfer results that mean the TLS handshake failed or the
// SAS's certificate was not accepted.
bool is_tls_failure(CURLcode code);
// Logs the first handshake failure of a streak in one line, and the end of
// the streak (a reply arrived) in another; the attempts in between add none.
void note_tls_result(CURLcode code, const char* detail);
// Logs once that libcurl refused the profile's options (nothing is sent).
void note_profile_unsupported();
// Logs the first refusal of a streak for want of a SAS CA (config.requireSasCa).
void note_missing_ca(const char* caPath);
void note_ca_present();

}  // namespace cbsd::sas
