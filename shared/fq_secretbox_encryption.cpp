// Secret-box encryption under a key derived from a pass phrase: the worker's side of an encrypted
// quarantine hand-off and of encrypted event records. Every party derives the same key from the same
// pass phrase (fixed salt and work factors), and each encryption steps the key's running nonce first,
// so no nonce is used twice under one key. Key bytes are wiped before they are freed; calls on one
// key must be serialised by the caller.
#include "fq_secretbox_encryption.h"

#include <sodium.h>
#include <stdlib.h>
#include <string.h>

#include "log.h"

static_assert(FQ_SECRETBOX_KEY_BYTES == crypto_secretbox_KEYBYTES);
static_assert(FQ_SECRETBOX_NONCE_BYTES == crypto_secretbox_NONCEBYTES);
static_assert(FQ_SECRETBOX_MAC_BYTES == crypto_secretbox_MACBYTES);
static_assert(FQ_SECRETBOX_NONCE_HEX_BYTES == 2 * FQ_SECRETBOX_NONCE_BYTES + 1);
static_assert(FQ_SECRETBOX_PWHASH_ALG == crypto_pwhash_ALG_ARGON2ID13);

namespace {

// The salt every party uses. crypto_pwhash reads crypto_pwhash_SALTBYTES (16) of it, so only the
// first half counts; the whole array is passed as it is so that the derived keys never change.
const unsigned char s_salt[32] = {
    0x2f, 0xd6, 0x3d, 0x8b, 0x98, 0x6b, 0xca, 0x08, 0x4f, 0x14, 0x47, 0x75, 0xce, 0x3f, 0x68, 0x71,
    0x9b, 0x05, 0x32, 0x97, 0x96, 0x7b, 0xeb, 0x6b, 0x02, 0xd6, 0x15, 0x9e, 0x0d, 0x85, 0xd2, 0x00,
};
static_assert(sizeof(s_salt) >= crypto_pwhash_SALTBYTES);

void s_free_wiped(unsigned char* p, size_t n)
{
    if (!p)
        return;
    sodium_memzero(p, n);
    free(p);
}

}  // namespace

unsigned char* fq_secretbox_derive_key(const char* password)
{
    if (!password || sodium_init() < 0) {
        log_error("Failed to derive key from password and salt");
        return nullptr;
    }
    auto* key = static_cast<unsigned char*>(malloc(FQ_SECRETBOX_KEY_BYTES));
    if (!key) {
        log_error("Failed to allocate memory for key");
        return nullptr;
    }
    if (crypto_pwhash(key, FQ_SECRETBOX_KEY_BYTES, password, strlen(password), s_salt, FQ_SECRETBOX_PWHASH_OPSLIMIT,
                      FQ_SECRETBOX_PWHASH_MEMLIMIT, FQ_SECRETBOX_PWHASH_ALG) != 0) {
        log_error("Failed to derive key from password and salt");
        s_free_wiped(key, FQ_SECRETBOX_KEY_BYTES);
        return nullptr;
    }
    return key;
}

fq_secretbox_key_t* fq_secretbox_generate_key(const char* password)
{
    auto* k = static_cast<fq_secretbox_key_t*>(calloc(1, sizeof(fq_secretbox_key_t)));
    if (!k) {
        log_error("Failed to allocate memory for secretbox key");
        log_error("Failed to generate secretbox key struct, cleaning up");
        return nullptr;
    }
    k->nonce = static_cast<unsigned char*>(malloc(FQ_SECRETBOX_NONCE_BYTES));
    if (!k->nonce)
        log_error("Failed to allocate memory for nonce");
    k->nonce_hex = static_cast<char*>(malloc(FQ_SECRETBOX_NONCE_HEX_BYTES));
    if (!k->nonce_hex)
        log_error("Failed to allocate memory for nonce hex");
    if (k->nonce && k->nonce_hex && sodium_init() >= 0) {
        randombytes_buf(k->nonce, FQ_SECRETBOX_NONCE_BYTES);
        sodium_bin2hex(k->nonce_hex, FQ_SECRETBOX_NONCE_HEX_BYTES, k->nonce, FQ_SECRETBOX_NONCE_BYTES);
        // Logs its own failure (allocation or derivation).
        k->encryption_key = fq_secretbox_derive_key(password);
    }
    if (!k->encryption_key) {
        log_error("Failed to generate secretbox key struct, cleaning up");
        fq_secretbox_free_key(k);
        return nullptr;
    }
    return k;
}

void fq_secretbox_free_key(fq_secretbox_key_t* secretbox_key)
{
    if (!secretbox_key)
        return;
    s_free_wiped(secretbox_key->encryption_key, FQ_SECRETBOX_KEY_BYTES);
    free(secretbox_key->nonce);
    free(secretbox_key->nonce_hex);
    free(secretbox_key);
}

int fq_secretbox_encrypt_buffer(unsigned char* buffer, size_t buffer_len, fq_secretbox_key_t* secretbox_key,
                                unsigned char** encrypted_buffer, size_t* encrypted_buffer_len)
{
    if (!buffer || buffer_len == 0 || !secretbox_key || !secretbox_key->encryption_key || !secretbox_key->nonce ||
        !secretbox_key->nonce_hex || !encrypted_buffer || !encrypted_buffer_len ||
        buffer_len > SIZE_MAX - FQ_SECRETBOX_MAC_BYTES) {
        log_error("Invalid input");
        return -1;
    }
    *encrypted_buffer = nullptr;
    *encrypted_buffer_len = 0;
    // A fresh nonce for every encryption: the start value is random, so no two objects under
    // one key share one.
    sodium_increment(secretbox_key->nonce, FQ_SECRETBOX_NONCE_BYTES);
    sodium_bin2hex(secretbox_key->nonce_hex, FQ_SECRETBOX_NONCE_HEX_BYTES, secretbox_key->nonce,
                   FQ_SECRETBOX_NONCE_BYTES);

    const size_t out_len = buffer_len + FQ_SECRETBOX_MAC_BYTES;
    auto* out = static_cast<unsigned char*>(malloc(out_len));
    if (!out) {
        log_error("Failed to allocate memory for encrypted buffer");
        return -1;
    }
    if (crypto_secretbox_easy(out, buffer, buffer_len, secretbox_key->nonce, secretbox_key->encryption_key) != 0) {
        log_error("Failed to encrypt buffer");
        free(out);
        return -1;
    }
    *encrypted_buffer = out;
    *encrypted_buffer_len = out_len;
    return 0;
}
