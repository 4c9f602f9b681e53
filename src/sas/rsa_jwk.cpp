#include "sas/rsa_jwk.h"

#include <jansson.h>
#include <openssl/bio.h>
#include <openssl/bn.h>
#include <openssl/core_names.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>

#include <climits>
#include <cstdlib>
#include <vector>

namespace cbsd::sas {

namespace {

// JWK member name and the OpenSSL parameter that holds it, in RFC 7518 order.
struct JwkMember {
    const char* name;
    const char* parameter;
};

constexpr JwkMember kRsaMembers[] = {
    {"n", OSSL_PKEY_PARAM_RSA_N},
    {"e", OSSL_PKEY_PARAM_RSA_E},
    {"d", OSSL_PKEY_PARAM_RSA_D},
    {"p", OSSL_PKEY_PARAM_RSA_FACTOR1},
    {"q", OSSL_PKEY_PARAM_RSA_FACTOR2},
    {"dp", OSSL_PKEY_PARAM_RSA_EXPONENT1},
    {"dq", OSSL_PKEY_PARAM_RSA_EXPONENT2},
    {"qi", OSSL_PKEY_PARAM_RSA_COEFFICIENT1},
};

// Base64url without padding (RFC 7515, section 2).
std::string base64url(const std::vector<unsigned char>& bytes) {
    std::string text(4 * ((bytes.size() + 2) / 3) + 1, '\0');
    int length = EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), bytes.data(),
                                 static_cast<int>(bytes.size()));
    text.resize(static_cast<size_t>(length));
    while (!text.empty() && text.back() == '=') text.pop_back();
    for (char& c : text) c = c == '+' ? '-' : c == '/' ? '_' : c;
    return text;
}

// The parameter as unsigned big-endian bytes; empty when the key lacks it.
std::vector<unsigned char> key_parameter(const EVP_PKEY* key, const char* parameter) {
    BIGNUM* number = nullptr;
    if (EVP_PKEY_get_bn_param(key, parameter, &number) != 1) return {};
    std::vector<unsigned char> bytes(static_cast<size_t>(BN_num_bytes(number)));
    BN_bn2bin(number, bytes.data());
    BN_clear_free(number);
    return bytes;
}

// An encrypted key is refused rather than a password asked for on a terminal.
int no_password(char*, int, int, void*) {
    return 0;
}

EVP_PKEY* read_rsa_private_key(const char* pem, size_t length) {
    if (!pem || length == 0 || length > INT_MAX) return nullptr;
    BIO* input = BIO_new_mem_buf(pem, static_cast<int>(length));
    if (!input) return nullptr;
    EVP_PKEY* key = PEM_read_bio_PrivateKey(input, nullptr, no_password, nullptr);
    BIO_free(input);
    if (key && EVP_PKEY_get_base_id(key) != EVP_PKEY_RSA) {
        EVP_PKEY_free(key);
        key = nullptr;
    }
    return key;
}

std::string jwk_text(const EVP_PKEY* key) {
    json_t* jwk = json_object();
    json_object_set_new(jwk, "kty", json_string("RSA"));
    bool complete = true;
    for (const JwkMember& member : kRsaMembers) {
        std::vector<unsigned char> bytes = key_parameter(key, member.parameter);
        complete = complete && !bytes.empty();
        json_object_set_new(jwk, member.name, json_string(base64url(bytes).c_str()));
    }
    std::string text;
    if (char* dumped = complete ? json_dumps(jwk, JSON_COMPACT) : nullptr) {
        text = dumped;
        std::free(dumped);
    }
    json_decref(jwk);
    return text;
}

}  // namespace

std::string rsa_private_jwk(const char* pem, size_t length) {
    EVP_PKEY* key = read_rsa_private_key(pem, length);
    std::string jwk = key ? jwk_text(key) : std::string();
    EVP_PKEY_free(key);
    // Leave no stale errors behind for the TLS transfers on this thread.
    ERR_clear_error();
    return jwk;
}

}  // namespace cbsd::sas
