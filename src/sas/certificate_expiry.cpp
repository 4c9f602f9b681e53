#include "sas/certificate_expiry.h"

#include "base/status_report.h"
#include "base/utc_time.h"
#include "config/certificate_paths.h"
#include "config/device_record.h"

#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdio>
#include <cstring>
#include <ctime>

namespace cbsd::sas {

namespace {

// From the broken-down time alone, as the SAS's times are read.
int64_t epoch_of(const std::tm& t) {
    return base::days_from_civil(t.tm_year + 1900, static_cast<uint32_t>(t.tm_mon + 1),
                                 static_cast<uint32_t>(t.tm_mday)) * 86400 +
           t.tm_hour * 3600 + t.tm_min * 60 + t.tm_sec;
}

void report_one(base::Certificate which, const char* path) {
    int64_t notAfter = 0;
    bool known = path[0] != '\0' && certificate_not_after(path, &notAfter);
    const char* slash = std::strrchr(path, '/');
    base::report_certificate(which, slash ? slash + 1 : path, known ? &notAfter : nullptr);
}

}  // namespace

bool certificate_not_after(const char* path, int64_t* epochSeconds) {
    FILE* file = std::fopen(path, "r");
    if (!file) return false;
    X509* certificate = PEM_read_X509(file, nullptr, nullptr, nullptr);
    std::fclose(file);
    if (!certificate) return false;
    std::tm broken{};
    bool read = ASN1_TIME_to_tm(X509_get0_notAfter(certificate), &broken) == 1;
    X509_free(certificate);
    if (read) *epochSeconds = epoch_of(broken);
    return read;
}

void report_certificates() {
    config::CertificatePaths paths;
    std::memset(&paths, 0, sizeof paths);
    config::load_cert_paths(&paths);
    report_one(base::Certificate::kClient, paths.clientCert);
    report_one(base::Certificate::kSasCa, paths.serverCA);
}

}  // namespace cbsd::sas
