// Secret-box encryption with a key derived from a pass phrase and a running nonce: the worker's
// side of an encrypted quarantine hand-off, and encrypted event records.
#pragma once

#include <stddef.h>

#define FQ_SECRETBOX_KEY_BYTES 32
#define FQ_SECRETBOX_NONCE_BYTES 24
#define FQ_SECRETBOX_NONCE_HEX_BYTES 49
#define FQ_SECRETBOX_MAC_BYTES 16

// Every party that derives a key from the same pass phrase gets the same key: the salt is a
// fixed constant of the system and the work factors below are part of the wire contract.
#define FQ_SECRETBOX_PWHASH_OPSLIMIT 2ULL
#define FQ_SECRETBOX_PWHASH_MEMLIMIT 67108864UL
#define FQ_SECRETBOX_PWHASH_ALG 2

typedef struct fq_secretbox_key_t {
    unsigned char* encryption_key;  // FQ_SECRETBOX_KEY_BYTES
    unsigned char* nonce;           // FQ_SECRETBOX_NONCE_BYTES, a little-endian number
    char* nonce_hex;                // nonce as 48 lower-case hex digits and a NUL
} fq_secretbox_key_t;

// 32 new heap bytes derived from the pass phrase (free with free()), or null.
unsigned char* fq_secretbox_derive_key(const char* password);

// A new key for the pass phrase with a random start nonce, or null.
fq_secretbox_key_t* fq_secretbox_generate_key(const char* password);

// Releases the record and its buffers; accepts null.
void fq_secretbox_free_key(fq_secretbox_key_t* secretbox_key);

// Steps the key's nonce by one and encrypts buffer with it: on success *encrypted_buffer is new
// heap memory of buffer_len + 16 bytes (authenticator first) and nonce_hex names the nonce used.
// 0 or -1. Calls on one key must not overlap: the caller serialises them.
int fq_secretbox_encrypt_buffer(unsigned char* buffer, size_t buffer_len, fq_secretbox_key_t* secretbox_key,
                                unsigned char** encrypted_buffer, size_t* encrypted_buffer_len);
