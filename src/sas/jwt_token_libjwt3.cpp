// libjwt 3.x (OpenWrt): a JSON Web Key made from the PEM text, and the token
// builder.
#include "sas/jwt_token.h"

#if CBSD_LIBJWT3

#include "sas/rsa_jwk.h"

#include <jwt.h>
#include <openssl/crypto.h>

#include <cerrno>
#include <cstdlib>
#include <string>

namespace cbsd::sas {

namespace {

// The claims are the members of claimsJson and nothing else: no "iat", as
// with libjwt 1.
void set_claims(jwt_builder_t* builder, const char* claimsJson) {
    jwt_builder_enable_iat(builder, 0);
    jwt_value_t claims{};
    claims.type = JWT_VALUE_JSON;
    claims.name = nullptr;  // merge every member at the top level
    claims.json_val = const_cast<char*>(claimsJson);
    jwt_builder_claim_set(builder, &claims);
}

// Empty key: refused as libjwt 1 refuses it, and the token stays unsigned.
// Unreadable key: no token.  Otherwise the builder signs with it.
void make_with_key(jwt_builder_t* builder, const char* keyText, size_t keyLength,
                   TokenAttempt& attempt) {
    if (keyLength == 0) {
        attempt.keyResult = EINVAL;
        attempt.text = jwt_builder_generate(builder);
        return;
    }
    std::string jwk = rsa_private_jwk(keyText, keyLength);
    jwk_set_t* keys = jwk.empty() ? nullptr : jwks_create(jwk.c_str());
    OPENSSL_cleanse(jwk.data(), jwk.size());
    const jwk_item_t* key = keys && !jwks_error(keys) ? jwks_item_get(keys, 0) : nullptr;
    if (key && !jwks_item_error(key)) {
        attempt.keyResult = jwt_builder_setkey(builder, JWT_ALG_RS256, key);
        if (attempt.keyResult == 0) attempt.text = jwt_builder_generate(builder);
    }
    jwks_free(keys);
}

}  // namespace

TokenAttempt make_rs256_token(const char* claimsJson, const char* keyText, size_t keyLength) {
    TokenAttempt attempt;
    jwt_builder_t* builder = jwt_builder_new();
    if (!builder) {
        attempt.keyResult = ENOMEM;
        return attempt;
    }
    attempt.created = true;
    set_claims(builder, claimsJson);
    make_with_key(builder, keyText, keyLength, attempt);
    jwt_builder_free(builder);
    return attempt;
}

void release_token_text(char* text) {
    std::free(text);
}

}  // namespace cbsd::sas

#endif
