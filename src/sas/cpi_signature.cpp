#include "sas/cpi_signature.h"

#include "sas/jwt_token.h"

#include <openssl/bio.h>
#include <openssl/core_dispatch.h>
#include <openssl/encoder.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pkcs12.h>
#include <openssl/x509.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string>

namespace cbsd::sas {

namespace {

constexpr const char* kTemporaryKeySuffix = "tmp";

// Reads at most capacity - 1 bytes; returns the byte count read.
size_t read_key_file(const char* path, char* buffer, size_t capacity) {
    FILE* file = std::fopen(path, "rb");
    if (!file) return 0;
    size_t count = std::fread(buffer, 1, capacity - 1, file);
    std::fclose(file);
    buffer[count] = '\0';
    return count;
}

// Writes the key as traditional unencrypted PEM, the form libjwt reads.
bool write_rsa_private_key_pem(FILE* file, EVP_PKEY* key) {
    OSSL_ENCODER_CTX* encoder = OSSL_ENCODER_CTX_new_for_pkey(key, OSSL_KEYMGMT_SELECT_KEYPAIR,
                                                              "PEM", "type-specific", nullptr);
    if (!encoder) return false;
    bool written =
        OSSL_ENCODER_CTX_get_num_encoders(encoder) > 0 && OSSL_ENCODER_to_fp(encoder, file) == 1;
    OSSL_ENCODER_CTX_free(encoder);
    return written;
}

void convert_to_pem(char* buffer, size_t capacity, const char* path, EVP_PKEY* key) {
    std::string temporaryPath = std::string(path) + "." + kTemporaryKeySuffix;
    FILE* file = std::fopen(temporaryPath.c_str(), "w+");
    if (!file) {
        std::fprintf(stderr, "Error: failed to open %s.\n\n", temporaryPath.c_str());
        return;
    }
    if (write_rsa_private_key_pem(file, key)) {
        std::fflush(file);
        std::rewind(file);
        size_t count = std::fread(buffer, 1, capacity - 1, file);
        buffer[count] = '\0';
    }
    std::fclose(file);
}

// Copies each token part into its output only when all three fit whole.
bool store_parts(char* const parts[3], CpiSignedData* out) {
    struct Target {
        char* text;
        size_t capacity;
    } targets[3] = {{out->protectedHeader, sizeof out->protectedHeader},
                    {out->encodedCpiSignedData, sizeof out->encodedCpiSignedData},
                    {out->digitalSignature, sizeof out->digitalSignature}};
    for (int i = 0; i < 3; ++i)
        if (std::strlen(parts[i]) >= targets[i].capacity) return false;
    for (int i = 0; i < 3; ++i) std::strcpy(targets[i].text, parts[i]);
    return true;
}

int32_t split_and_store(char* token, CpiSignedData* out) {
    if (!token) {
        std::fputs("Error: jwt encode failed.\n\n", stderr);
        return -1;
    }
    char* parts[3] = {};
    int count = 0;
    split_token(token, ".", parts, 3, &count);
    int32_t result = 0;
    if (count < 3) {
        std::fputs("Error: jwt split failed.\n\n", stderr);
        result = -1;
    } else if (!store_parts(parts, out)) {
        std::fputs("Error: jwt part too long.\n\n", stderr);
        result = -1;
    }
    return result;
}

}  // namespace

void load_pkcs12_key(char* buffer, size_t capacity, const char* path, const char* password) {
    if (!buffer || capacity < 1) return;
    std::memset(buffer, 0, capacity);
    // OpenSSL 3 loads its algorithms and error strings on first use.
    BIO* input = BIO_new_file(path, "rb");
    if (!input) {
        std::fprintf(stderr, "Error: failed to open %s.\n\n", path);
        ERR_clear_error();
        return;
    }
    PKCS12* bundle = d2i_PKCS12_bio(input, nullptr);
    BIO_free(input);
    if (!bundle) {
        std::fprintf(stderr, "Error: read %s error.\n\n", path);
        ERR_clear_error();
        return;
    }
    EVP_PKEY* key = nullptr;
    X509* certificate = nullptr;
    if (!PKCS12_parse(bundle, password ? password : "", &key, &certificate, nullptr)) {
        std::fprintf(stderr, "Error: parse %s error.\n\n", path);
    } else if (!key) {
        std::fprintf(stderr, "Error: failed to get keys from %s.\n\n", path);
    } else if (EVP_PKEY_get_base_id(key) != EVP_PKEY_RSA) {
        std::fputs("Error: failed to get RSA key!\n", stderr);
    } else if (capacity > 1) {
        convert_to_pem(buffer, capacity, path, key);
    }
    EVP_PKEY_free(key);
    X509_free(certificate);
    PKCS12_free(bundle);
    // Leave no stale errors behind for the TLS transfers on this thread.
    ERR_clear_error();
}

void split_token(char* text, const char* delimiter, char** parts, int maxParts, int* count) {
    *count = 0;
    if (!text || !delimiter || !*text || !*delimiter) return;
    char* position = nullptr;
    for (char* part = strtok_r(text, delimiter, &position); part && *count < maxParts;
         part = strtok_r(nullptr, delimiter, &position)) {
        parts[(*count)++] = part;
    }
}

int32_t sign_cpi_data(const char* installationJson, const char* keyPath, const char* password,
                      CpiSignedData* out) {
    std::unique_ptr<char[]> key(new (std::nothrow) char[kCpiKeyCapacity + 1]());
    if (!key) return -1;
    // The key length handed to libjwt is the size of the file as read, also
    // when a PKCS#12 file has been replaced by PEM text of another length; the
    // buffer stays NUL-terminated either way and PEM parsing stops at the end
    // marker.
    size_t fileLength = read_key_file(keyPath, key.get(), kCpiKeyCapacity + 1);
    if (!std::strstr(key.get(), "PRIVATE KEY"))
        load_pkcs12_key(key.get(), kCpiKeyCapacity + 1, keyPath, password);

    TokenAttempt token = make_rs256_token(installationJson, key.get(), fileLength);
    if (!token.created) {
        std::fputs("Error: invalid jwt.\n\n", stderr);
        return token.keyResult != 0 ? token.keyResult : -1;
    }
    // A refused key (an empty file) leaves libjwt without an algorithm: its
    // unsigned token has an empty signature part, so the split below fails
    // and no unsigned data ever leave the device.
    int32_t result = token.keyResult;
    int32_t stored = split_and_store(token.text, out);
    if (stored != 0) result = stored;
    release_token_text(token.text);
    return result;
}

}  // namespace cbsd::sas
