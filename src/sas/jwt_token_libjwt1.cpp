// libjwt 1.x (Debian): PEM key text and jwt_encode_str.
#include "sas/jwt_token.h"

#if !CBSD_LIBJWT3

#include <jwt.h>

#include <cstdlib>

namespace cbsd::sas {

TokenAttempt make_rs256_token(const char* claimsJson, const char* keyText, size_t keyLength) {
    TokenAttempt attempt;
    jwt_t* jwt = nullptr;
    int result = jwt_new(&jwt);
    if (result != 0 || !jwt) {
        attempt.keyResult = result;
        return attempt;
    }
    attempt.created = true;
    jwt_add_grants_json(jwt, claimsJson);
    // A refused key (an empty one) leaves libjwt without an algorithm: it then
    // encodes an unsigned token.
    attempt.keyResult = jwt_set_alg(jwt, JWT_ALG_RS256,
                                    reinterpret_cast<const unsigned char*>(keyText),
                                    static_cast<int>(keyLength));
    attempt.text = jwt_encode_str(jwt);
    jwt_free(jwt);
    return attempt;
}

// libjwt 1.10 has no jwt_free_str yet; its token text comes from malloc.
void release_token_text(char* text) {
    std::free(text);
}

}  // namespace cbsd::sas

#endif
