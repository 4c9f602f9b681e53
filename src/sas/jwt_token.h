// The RS256 token behind the installer's signed data, made by whichever libjwt
// the build found: 1.x takes the PEM key text itself, 3.x (OpenWrt's) a JSON
// Web Key made from it (CBSD_LIBJWT3, set at configure time).
#pragma once

#include <cstddef>
#include <cstdint>

namespace cbsd::sas {

struct TokenAttempt {
    bool created = false;     // false: libjwt could not make a token object at all
    int32_t keyResult = 0;    // 0, or libjwt's error number for a refused algorithm or key
    char* text = nullptr;     // the token; nullptr when it could not be encoded
};

// A token whose claims are the members of claimsJson, signed RS256 with the
// key in the first keyLength bytes of keyText.  An empty key is refused: the
// token is then unsigned (its signature part is empty).  A key that cannot be
// read gives no token.
TokenAttempt make_rs256_token(const char* claimsJson, const char* keyText, size_t keyLength);

// Releases TokenAttempt::text.
void release_token_text(char* text);

}  // namespace cbsd::sas
