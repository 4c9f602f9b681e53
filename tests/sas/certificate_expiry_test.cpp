#include "sas/certificate_expiry.h"

#include "support/test_util.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdio>
#include <string>

namespace cbsd::sas {
namespace {

// A self-signed certificate whose validity ends at notAfter (ASN.1 text).
void write_certificate(const char* path, const char* notAfter) {
    EVP_PKEY* key = EVP_EC_gen("P-256");
    ASSERT_NE(key, nullptr);
    X509* cert = X509_new();
    X509_set_version(cert, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(cert), 7);
    ASN1_TIME_set_string(X509_getm_notBefore(cert), "20250101000000Z");
    ASSERT_EQ(ASN1_TIME_set_string(X509_getm_notAfter(cert), notAfter), 1);
    X509_set_pubkey(cert, key);
    X509_NAME_add_entry_by_txt(X509_get_subject_name(cert), "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("Ferncliff CPE"), -1, -1, 0);
    X509_set_issuer_name(cert, X509_get_subject_name(cert));
    ASSERT_GT(X509_sign(cert, key, EVP_sha256()), 0);
    FILE* file = std::fopen(path, "w");
    ASSERT_NE(file, nullptr);
    PEM_write_X509(file, cert);
    std::fclose(file);
    X509_free(cert);
    EVP_PKEY_free(key);
}

TEST(CertificateExpiry, NotAfterInEpochSecondsPastThe32BitEnd) {
    write_certificate("/tmp/expiry-a.pem", "20270115080000Z");
    int64_t notAfter = 0;
    ASSERT_TRUE(certificate_not_after("/tmp/expiry-a.pem", &notAfter));
    EXPECT_EQ(notAfter, 1'800'000'000);
    write_certificate("/tmp/expiry-b.pem", "20491231235959Z");
    ASSERT_TRUE(certificate_not_after("/tmp/expiry-b.pem", &notAfter));
    EXPECT_EQ(notAfter, 2524607999);
}

TEST(CertificateExpiry, AMissingOrForeignFileHasNone) {
    int64_t notAfter = 42;
    EXPECT_FALSE(certificate_not_after("/tmp/no-such-certificate.pem", &notAfter));
    ASSERT_TRUE(test::write_file("/tmp/not-a-certificate.pem", "-----BEGIN NOTHING-----\n"));
    EXPECT_FALSE(certificate_not_after("/tmp/not-a-certificate.pem", &notAfter));
    EXPECT_FALSE(certificate_not_after("/tmp", &notAfter));
    EXPECT_EQ(notAfter, 42);
}

}  // namespace
}  // namespace cbsd::sas
