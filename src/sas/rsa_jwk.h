// An RSA private key in PEM (PKCS#1 or PKCS#8, unencrypted) as a JSON Web Key,
// the only key form libjwt 3 accepts.
#pragma once

#include <cstddef>
#include <string>

namespace cbsd::sas {

// The JWK ({"kty":"RSA","n":...,"e":...,"d":...,"p":...,"q":...,"dp":...,
// "dq":...,"qi":...}) of the key in the first length bytes of pem; empty when
// those bytes hold no complete RSA private key.
std::string rsa_private_jwk(const char* pem, size_t length);

}  // namespace cbsd::sas
