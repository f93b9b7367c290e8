// The worker's cache of quarantine encryption keys: one derived key per pass phrase for the life
// of the process, shared by all scan threads, and the encryption that uses the key's running nonce.
#pragma once

#include <stddef.h>

#include "fq_secretbox_encryption.h"

typedef struct fq_worker_config_t fq_worker_config_t;

typedef struct quarantine_key_t {
    char* quarantine_service_key;                 // the pass phrase: the lookup key of the entry
    fq_secretbox_key_t* quarantine_secretbox_key;  // derived from it; its nonce runs on per object
} quarantine_key_t;

// The entry of config->quarantine_encryption_keys for this pass phrase (compared exactly),
// derived and appended if there is none yet. The cache keeps the entry; null on failure.
quarantine_key_t* fq_quarantine_GetKey(const fq_worker_config_t* config, const char* quarantine_service_key);

// Results of fq_quarantine_encrypt.
enum {
    FQ_QUARANTINE_ENCRYPTED = 0,
    FQ_QUARANTINE_ENCRYPT_FAILED = -1,  // the key exists, the encryption refused or failed
    FQ_QUARANTINE_NO_KEY = -2,          // no key could be had for the pass phrase
};

// Encrypts buffer under the cached key of the pass phrase with that key's next nonce, and copies
// that nonce's hex text into nonce_hex. Look-up, nonce step and copy happen under the cache's one
// mutex, so no two objects ever go out under the same nonce. *encrypted_buffer is new heap memory
// of *encrypted_buffer_len = buffer_len + 16 bytes, owned by the caller.
int fq_quarantine_encrypt(const fq_worker_config_t* config, const char* passphrase, const unsigned char* buffer,
                          size_t buffer_len, unsigned char** encrypted_buffer, size_t* encrypted_buffer_len,
                          char nonce_hex[FQ_SECRETBOX_NONCE_HEX_BYTES]);
