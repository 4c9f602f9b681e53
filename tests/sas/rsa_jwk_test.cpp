#include "sas/rsa_jwk.h"

#include "cpi_key_fixture.h"
#include "support/test_util.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include <cctype>
#include <string>

namespace cbsd::sas {
namespace {

using test::cpi_key_path;
using test::read_file;

// The key's modulus as upper-case hex, from the openssl command.
std::string modulus_hex(const std::string& keyName) {
    std::string out = test::shell("openssl rsa -noout -modulus -in " + cpi_key_path(keyName));
    size_t at = out.find('=');
    return at == std::string::npos ? "" : out.substr(at + 1, out.find_last_not_of("\n") - at);
}

std::string base64url_to_hex(const std::string& text) {
    std::string b64 = text;
    for (char& c : b64) c = c == '-' ? '+' : c == '_' ? '/' : c;
    while (b64.size() % 4) b64 += '=';
    std::string hex = test::shell("printf '%s' '" + b64 + "' | base64 -d | od -An -v -tx1 | tr -d ' \\n'");
    for (char& c : hex) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return hex;
}

class RsaJwkTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(test::make_cpi_keys()); }

    json_t* jwk_of(const std::string& pem) {
        std::string text = rsa_private_jwk(pem.data(), pem.size());
        return text.empty() ? nullptr : json_loads(text.c_str(), 0, nullptr);
    }
};

TEST_F(RsaJwkTest, Pkcs1KeyGivesEveryPrivateMemberAndTheSameModulus) {
    json_t* jwk = jwk_of(read_file(cpi_key_path("rsa_pkcs1.pem")));
    ASSERT_NE(nullptr, jwk);
    EXPECT_STREQ("RSA", json_string_value(json_object_get(jwk, "kty")));
    for (const char* member : {"n", "e", "d", "p", "q", "dp", "dq", "qi"}) {
        const char* value = json_string_value(json_object_get(jwk, member));
        ASSERT_NE(nullptr, value) << member;
        EXPECT_EQ(std::string::npos, std::string(value).find_first_of("+/=")) << member;
    }
    EXPECT_STREQ("AQAB", json_string_value(json_object_get(jwk, "e")));
    EXPECT_EQ(modulus_hex("rsa_pkcs1.pem"),
              base64url_to_hex(json_string_value(json_object_get(jwk, "n"))));
    json_decref(jwk);
}

TEST_F(RsaJwkTest, Pkcs8KeyGivesTheSameJwkAsPkcs1) {
    std::string pkcs1 = read_file(cpi_key_path("rsa_pkcs1.pem"));
    std::string pkcs8 = read_file(cpi_key_path("rsa_pkcs8.pem"));
    EXPECT_FALSE(rsa_private_jwk(pkcs8.data(), pkcs8.size()).empty());
    EXPECT_EQ(rsa_private_jwk(pkcs1.data(), pkcs1.size()), rsa_private_jwk(pkcs8.data(), pkcs8.size()));
}

TEST_F(RsaJwkTest, OnlyTheGivenLengthIsRead) {
    std::string pem = read_file(cpi_key_path("rsa_pkcs1.pem"));
    EXPECT_EQ("", rsa_private_jwk(pem.data(), pem.size() / 2));
    EXPECT_EQ("", rsa_private_jwk(pem.data(), 0));
    EXPECT_EQ("", rsa_private_jwk(nullptr, 10));
}

TEST_F(RsaJwkTest, PublicEcAndEncryptedKeysGiveNothing) {
    for (const char* name : {"rsa_public.pem", "ec.pem"}) {
        std::string pem = read_file(cpi_key_path(name));
        EXPECT_EQ("", rsa_private_jwk(pem.data(), pem.size())) << name;
    }
    // No password is asked for, not even on a terminal.
    std::string encrypted = test::shell("openssl pkey -in " + cpi_key_path("rsa_pkcs8.pem") +
                                        " -aes128 -passout pass:secret");
    ASSERT_NE(std::string::npos, encrypted.find("ENCRYPTED"));
    EXPECT_EQ("", rsa_private_jwk(encrypted.data(), encrypted.size()));
}

}  // namespace
}  // namespace cbsd::sas
