// The quarantine key cache. A job that asks for an encrypted hand-off names a pass phrase; the
// key derived from it costs 64 MiB and a noticeable moment, so each pass phrase is derived once
// per process and kept, with its running nonce, in config->quarantine_encryption_keys. Every scan
// thread may reach it at once. All of it (the list and its cursor, the derivation, each nonce
// step and the read of the nonce that was used) is under s_quarantine_keys_mu: two objects must
// never be encrypted under one nonce. Entries are never removed, and pass phrases never logged.
#include "fq_quarantine_get_key.h"

#include <czmq.h>
#include <sodium.h>
#include <stdlib.h>
#include <string.h>

#include <mutex>

#include "fq_worker.h"
#include "log.h"

namespace {

std::mutex s_quarantine_keys_mu;

void s_free_entry(void* item)
{
    auto* entry = static_cast<quarantine_key_t*>(item);
    if (!entry)
        return;
    if (entry->quarantine_service_key) {
        sodium_memzero(entry->quarantine_service_key, strlen(entry->quarantine_service_key));
        free(entry->quarantine_service_key);
    }
    fq_secretbox_free_key(entry->quarantine_secretbox_key);
    free(entry);
}

// Caller holds s_quarantine_keys_mu. Derivations run one at a time because of it, which also
// keeps the worker from holding 64 MiB per thread when many new pass phrases arrive together.
quarantine_key_t* s_get_key_locked(zlist_t* keys, const char* passphrase)
{
    for (void* item = zlist_first(keys); item; item = zlist_next(keys)) {
        auto* entry = static_cast<quarantine_key_t*>(item);
        if (strcmp(entry->quarantine_service_key, passphrase) == 0)
            return entry;
    }
    auto* entry = static_cast<quarantine_key_t*>(calloc(1, sizeof(quarantine_key_t)));
    if (!entry) {
        log_error("Failed to allocate %s", "new_quarantine_key");
        return nullptr;
    }
    if (!(entry->quarantine_service_key = strdup(passphrase))) {
        log_error("Failed to allocate %s", "new_quarantine_key->quarantine_service_key");
        s_free_entry(entry);
        return nullptr;
    }
    if (!(entry->quarantine_secretbox_key = fq_secretbox_generate_key(passphrase))) {
        log_error("Failed to allocate %s", "new_quarantine_key->quarantine_secretbox_key");
        s_free_entry(entry);
        return nullptr;
    }
    if (zlist_append(keys, entry) != 0) {
        log_error("Failed to allocate %s", "new_quarantine_key");
        s_free_entry(entry);
        return nullptr;
    }
    // The list owns its entries from here: destroying it releases them.
    zlist_freefn(keys, entry, s_free_entry, true);
    return entry;
}

}  // namespace

quarantine_key_t* fq_quarantine_GetKey(const fq_worker_config_t* config, const char* quarantine_service_key)
{
    if (!config || !config->quarantine_encryption_keys || !quarantine_service_key) {
        log_error("Quarantine key cache is not set up");
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(s_quarantine_keys_mu);
    return s_get_key_locked(config->quarantine_encryption_keys, quarantine_service_key);
}

int fq_quarantine_encrypt(const fq_worker_config_t* config, const char* passphrase, const unsigned char* buffer,
                          size_t buffer_len, unsigned char** encrypted_buffer, size_t* encrypted_buffer_len,
                          char nonce_hex[FQ_SECRETBOX_NONCE_HEX_BYTES])
{
    if (!config || !config->quarantine_encryption_keys || !passphrase) {
        log_error("Quarantine key cache is not set up");
        return FQ_QUARANTINE_NO_KEY;
    }
    std::lock_guard<std::mutex> lock(s_quarantine_keys_mu);
    quarantine_key_t* entry = s_get_key_locked(config->quarantine_encryption_keys, passphrase);
    if (!entry)
        return FQ_QUARANTINE_NO_KEY;
    fq_secretbox_key_t* key = entry->quarantine_secretbox_key;
    // The secret-box call takes a writable pointer but only reads the plain bytes.
    if (fq_secretbox_encrypt_buffer(const_cast<unsigned char*>(buffer), buffer_len, key, encrypted_buffer,
                                    encrypted_buffer_len) != 0)
        return FQ_QUARANTINE_ENCRYPT_FAILED;
    memcpy(nonce_hex, key->nonce_hex, FQ_SECRETBOX_NONCE_HEX_BYTES);
    return FQ_QUARANTINE_ENCRYPTED;
}
