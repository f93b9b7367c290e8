// Staged payloads in the KV store and the registry's KV access. An object travels once: chunked into
// fq-av-scan-data under one key with its metadata record written last, read back whole by whoever
// gets the key, deleted by whoever staged it, and everything written carries a time to live. Bucket
// handles are bound once and cached for all threads. Metadata read from a bucket is untrusted: size
// and chunk count are checked before anything is allocated, and a payload whose chunks do not cover
// it byte for byte is never handed out.
#include <inttypes.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <string>

#include "fq_nats_client.h"
#include "fq_nats_compat.h"
#include "fq_nats_names.h"
#include "fq_raii.h"
#include "log.h"

namespace {

// Goes from 0 to 1 once, when a write with a per-message TTL fails; read and written by all threads.
std::atomic<int> s_kv_msg_ttl_unsupported{0};

// Serialises the first binding of each bucket handle; lookups after that take no lock.
std::mutex s_kv_bind_mu;

// Longest wait for the acknowledgements of one payload's chunks.
constexpr int64_t s_publish_complete_max_ms = 120000;

// Replica catch-up of a read that finds nothing: total sleep, and the longest single sleep.
constexpr int64_t s_get_retry_total_ms = 500;
constexpr int64_t s_get_retry_max_step_ms = 25;

void* s_load(void* const& field)
{
    return std::atomic_ref<void*>(const_cast<void*&>(field)).load(std::memory_order_acquire);
}

void s_store(void*& field, void* value)
{
    std::atomic_ref<void*>(field).store(value, std::memory_order_release);
}

std::string s_last_error_suffix()
{
    const char* last = nats_GetLastError(nullptr);
    if (!last || !*last)
        return "";
    return std::string(" — ") + last;
}

void s_set_error(char* errormsg, const char* text)
{
    if (errormsg)
        snprintf(errormsg, 1024, "%s", text);
}

// Keys reach the bucket's subjects unchanged, so one that the protocol could misread never
// gets that far; the caller sees an ordinary failure.
bool s_key_ok(const char* key, const char* op)
{
    char why[128];
    if (fq_nats_check_name(key, FQ_NAME_KV_KEY, why, sizeof(why)) == 0)
        return true;
    log_error("NATS: refusing KV %s of key '%s': it %s", op, fq_nats_printable(key).c_str(), why);
    return false;
}

// Binds a bucket for a cache field under the bind lock; the field keeps the first handle.
kvStore* s_bind_cached(fq_nats_config* config, void*& field, const char* bucket)
{
    if (void* kv = s_load(field))
        return static_cast<kvStore*>(kv);
    auto* js = static_cast<jsCtx*>(config->_js);
    if (!js)
        return nullptr;
    std::lock_guard<std::mutex> lock(s_kv_bind_mu);
    if (void* kv = s_load(field))
        return static_cast<kvStore*>(kv);
    kvStore* kv = nullptr;
    natsStatus s = js_KeyValue(&kv, js, bucket);
    if (s != NATS_OK) {
        log_error("NATS: KV bucket '%s' not found — fq-av-broker should have created it at startup; is the broker "
                  "running and on the same nats-server?: %s",
                  bucket, natsStatus_GetText(s));
        return nullptr;
    }
    s_store(field, kv);
    return kv;
}

size_t s_chunk_count(size_t size)
{
    const size_t n = (size + FQ_KV_CHUNK_SIZE - 1) / FQ_KV_CHUNK_SIZE;
    return n < 1 ? 1 : n;
}

// Reads and checks a metadata record. Sizes come from the bucket, so they are held to
// what the format allows before anybody allocates by them.
bool s_parse_metadata(const char* key, kvEntry* entry, size_t* chunks, size_t* size)
{
    const char* text = static_cast<const char*>(kvEntry_Value(entry));
    const int len = kvEntry_ValueLen(entry);
    json_tokener* tok = json_tokener_new();
    json_object* parsed = (tok && text && len > 0) ? json_tokener_parse_ex(tok, text, len) : nullptr;
    if (tok)
        json_tokener_free(tok);
    fq_json_ptr meta(parsed);
    if (!meta || !json_object_is_type(meta.get(), json_type_object)) {
        log_error("NATS: KV metadata parse failed for '%s'", key);
        return false;
    }
    json_object* v = nullptr;
    const int64_t c = json_object_object_get_ex(meta.get(), "chunks", &v) ? json_object_get_int64(v) : 0;
    const int64_t sz = json_object_object_get_ex(meta.get(), "size", &v) ? json_object_get_int64(v) : 0;
    if (sz < 0 || sz > FQ_KV_MAX_STAGED_SIZE || c != (int64_t)s_chunk_count((size_t)sz)) {
        log_error("NATS: KV metadata for '%s' rejected: size=%" PRId64 " chunks=%" PRId64
                  " (size must be 0..%" PRId64 " and chunks must match it in %zu-byte chunks)",
                  key, sz, c, FQ_KV_MAX_STAGED_SIZE, FQ_KV_CHUNK_SIZE);
        return false;
    }
    *chunks = (size_t)c;
    *size = (size_t)sz;
    return true;
}

// "<key>-<i>" into buf; false when it would not fit, so that a cut key never names another entry.
bool s_chunk_key(char* buf, size_t n, const char* key, size_t i)
{
    const int w = snprintf(buf, n, "%s-%zu", key, i);
    return w > 0 && (size_t)w < n;
}

bool s_subject(char* buf, size_t n, const char* bucket, const char* key)
{
    const int w = snprintf(buf, n, "$KV.%s.%s", bucket, key);
    return w > 0 && (size_t)w < n;
}

std::string s_metadata_text(size_t chunks, size_t size)
{
    fq_json_ptr meta(json_object_new_object());
    if (!meta)
        return "";
    json_object_object_add(meta.get(), "chunks", json_object_new_int64((int64_t)chunks));
    json_object_object_add(meta.get(), "size", json_object_new_int64((int64_t)size));
    return json_object_to_json_string_ext(meta.get(), JSON_C_TO_STRING_PLAIN);
}

void s_drain(jsCtx* js)
{
    jsPubOptions po;
    jsPubOptions_Init(&po);
    po.MaxWait = s_publish_complete_max_ms;
    js_PublishAsyncComplete(js, &po);
}

}  // namespace

int fq_nats_kv_msg_ttl_unsupported(void)
{
    return s_kv_msg_ttl_unsupported.load();
}

kvStore* get_kvstore(fq_nats_config* config)
{
    if (!config)
        return nullptr;
    return s_bind_cached(config, config->_kv, FQ_KV_SCAN_DATA_BUCKET);
}

kvStore* get_registry_kvstore(fq_nats_config* config)
{
    if (!config)
        return nullptr;
    return s_bind_cached(config, config->_kv_registry, FQ_KV_REGISTRY_BUCKET);
}

kvStore* get_kvstore_for(fq_nats_config* config, const char* bucket)
{
    if (!config || !bucket || !*bucket)
        return nullptr;
    if (strcmp(bucket, FQ_KV_SCAN_DATA_BUCKET) == 0)
        return get_kvstore(config);
    if (strcmp(bucket, FQ_KV_REGISTRY_BUCKET) == 0)
        return get_registry_kvstore(config);

    auto lookup = [&]() -> kvStore* {
        for (int i = 0; i < FQ_NATS_KV_EXTRA_BUCKETS; ++i) {
            void* kv = s_load(config->_kv_extra[i]);
            if (kv && config->_kv_extra_name[i] && strcmp(config->_kv_extra_name[i], bucket) == 0)
                return static_cast<kvStore*>(kv);
        }
        return nullptr;
    };
    if (kvStore* kv = lookup())
        return kv;
    auto* js = static_cast<jsCtx*>(config->_js);
    if (!js)
        return nullptr;

    std::lock_guard<std::mutex> lock(s_kv_bind_mu);
    if (kvStore* kv = lookup())
        return kv;
    int free_slot = -1;
    for (int i = 0; i < FQ_NATS_KV_EXTRA_BUCKETS && free_slot < 0; ++i)
        if (!s_load(config->_kv_extra[i]))
            free_slot = i;
    kvStore* kv = nullptr;
    natsStatus s = js_KeyValue(&kv, js, bucket);
    if (s != NATS_OK) {
        log_error("NATS: KV bucket '%s' not found — fq-av-broker should have created it at startup; is the broker "
                  "running and on the same nats-server?: %s",
                  bucket, natsStatus_GetText(s));
        return nullptr;
    }
    if (free_slot < 0) {
        log_warn("NATS: KV handle cache is full (FQ_NATS_KV_EXTRA_BUCKETS=%d) — no handle kept for bucket '%s'",
                 FQ_NATS_KV_EXTRA_BUCKETS, bucket);
        kvStore_Destroy(kv);
        return nullptr;
    }
    // The name is the caller's literal; it is published before the handle that guards it.
    config->_kv_extra_name[free_slot] = bucket;
    s_store(config->_kv_extra[free_slot], kv);
    return kv;
}

int64_t fq_kv_ttl_ms_for(int64_t timeout_ms)
{
    const int64_t ttl = timeout_ms + timeout_ms / 10;
    return ttl < 1000 ? 1000 : ttl;
}

void generate_unique_key(char* buf, size_t buflen)
{
    if (!buf || buflen == 0)
        return;
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    const unsigned long ns = (unsigned long)ts.tv_sec * 1000000000UL + (unsigned long)ts.tv_nsec;
    snprintf(buf, buflen, "scan-%lx-%lx-%lx", (unsigned long)getpid(), (unsigned long)pthread_self(), ns);
}

int kv_put_with_ttl(fq_nats_config* config, const char* bucket, kvStore* kv, const char* key, const void* data,
                    int len, int64_t ttl_ms)
{
    if (!config || !bucket || !kv || !key || len < 0 || !s_key_ok(key, "put"))
        return -1;
    auto* js = static_cast<jsCtx*>(config->_js);
    if (ttl_ms >= 1 && js && !s_kv_msg_ttl_unsupported.load()) {
        char subject[512];
        natsStatus s = NATS_INVALID_ARG;
        if (s_subject(subject, sizeof(subject), bucket, key))
            s = fq_nats_compat_publish_ttl(js, subject, data, len, ttl_ms, nullptr);
        if (s == NATS_OK)
            return 0;
        const std::string suffix = s_last_error_suffix();
        log_warn("NATS: per-message TTL write for '%s' rejected (%s%s); falling back to bucket TTL. Ensure the KV "
                 "stream has AllowMsgTTL.",
                 key, natsStatus_GetText(s), suffix.c_str());
        s_kv_msg_ttl_unsupported.store(1);
    }
    natsStatus s = kvStore_Put(nullptr, kv, key, data, len);
    if (s != NATS_OK) {
        const std::string suffix = s_last_error_suffix();
        log_error("NATS: KV put '%s' failed: %s%s", key, natsStatus_GetText(s), suffix.c_str());
        return -1;
    }
    return 0;
}

int kv_put_chunks_pipelined(fq_nats_config* config, const char* key, const void* data, size_t data_len,
                            size_t num_chunks, int64_t ttl_ms)
{
    if (!config || !key)
        return -1;
    auto* js = static_cast<jsCtx*>(config->_js);
    kvStore* kv = get_kvstore(config);
    if (!js || !kv)
        return -1;

    const auto* bytes = static_cast<const unsigned char*>(data);
    const uint64_t failures_before = fq_nats_async_publish_failures();
    for (size_t i = 0; i < num_chunks; ++i) {
        const size_t off = i * FQ_KV_CHUNK_SIZE;
        const size_t len = off < data_len ? std::min(FQ_KV_CHUNK_SIZE, data_len - off) : 0;
        char chunk_key[256];
        char subject[512];
        natsStatus s = NATS_INVALID_ARG;
        if (s_chunk_key(chunk_key, sizeof(chunk_key), key, i) &&
            s_subject(subject, sizeof(subject), FQ_KV_SCAN_DATA_BUCKET, chunk_key)) {
            s = ttl_ms > 0 ? fq_nats_compat_publish_ttl_async(js, subject, bytes + off, (int)len, ttl_ms)
                           : js_PublishAsync(js, subject, bytes + off, (int)len, nullptr);
        } else {
            snprintf(subject, sizeof(subject), "$KV.%s.<key too long>", FQ_KV_SCAN_DATA_BUCKET);
        }
        if (s != NATS_OK) {
            const std::string suffix = s_last_error_suffix();
            log_error("NATS: async chunk publish (%s) failed: %s%s", subject, natsStatus_GetText(s), suffix.c_str());
            s_drain(js);
            return -1;
        }
    }

    jsPubOptions po;
    jsPubOptions_Init(&po);
    po.MaxWait = s_publish_complete_max_ms;
    natsStatus s = js_PublishAsyncComplete(js, &po);
    if (s != NATS_OK) {
        const std::string suffix = s_last_error_suffix();
        log_error("NATS: js_PublishAsyncComplete failed for key=%s: %s%s", key, natsStatus_GetText(s), suffix.c_str());
        return -1;
    }
    // A rejected chunk shows only in the error callback. The context is shared, so the
    // failure may be another writer's: failing here as well errs on the safe side.
    if (fq_nats_async_publish_failures() != failures_before) {
        log_error("NATS: a chunk of key=%s (or of a concurrent write) was not acknowledged by the stream", key);
        return -1;
    }

    // The metadata goes last: whoever finds it may expect every chunk to be there.
    const std::string meta = s_metadata_text(num_chunks, data_len);
    if (meta.empty()) {
        log_error("NATS: KV metadata put '%s' failed: %s", key, "out of memory");
        return -1;
    }
    char subject[512];
    if (ttl_ms > 0) {
        s = s_subject(subject, sizeof(subject), FQ_KV_SCAN_DATA_BUCKET, key)
                ? fq_nats_compat_publish_ttl(js, subject, meta.data(), (int)meta.size(), ttl_ms, nullptr)
                : NATS_INVALID_ARG;
    } else {
        s = kvStore_Put(nullptr, kv, key, meta.data(), (int)meta.size());
    }
    if (s != NATS_OK) {
        const std::string suffix = s_last_error_suffix();
        log_error("NATS: KV metadata put '%s' failed: %s%s", key, natsStatus_GetText(s), suffix.c_str());
        return -1;
    }
    return 0;
}

int kvstore_put_chunked(fq_nats_config* config, const char* key, const void* data, size_t data_len, int64_t ttl_ms)
{
    if (!config || !key || (!data && data_len > 0) || !s_key_ok(key, "put"))
        return -1;
    // Without a store nothing can be written, and nothing is learned about TTL support.
    if (!config->_js || !get_kvstore(config))
        return -1;
    const size_t n = s_chunk_count(data_len);
    if (ttl_ms > 0 && !s_kv_msg_ttl_unsupported.load()) {
        if (kv_put_chunks_pipelined(config, key, data, data_len, n, ttl_ms) == 0) {
            log_trace("NATS: KV put: key=%s, size=%zu, chunks=%zu, ttl=%lldms (pipelined)", key, data_len, n,
                      (long long)ttl_ms);
            return 0;
        }
        log_warn("NATS: per-message TTL write for key=%s failed; falling back to bucket TTL. Ensure the KV stream has "
                 "AllowMsgTTL.",
                 key);
        s_kv_msg_ttl_unsupported.store(1);
    }
    // Same keys again, this time relying on the bucket's max age.
    const int rc = kv_put_chunks_pipelined(config, key, data, data_len, n, 0);
    if (rc == 0)
        log_trace("NATS: KV put: key=%s, size=%zu, chunks=%zu (bucket TTL, pipelined)", key, data_len, n);
    return rc;
}

natsStatus kv_get_retry(kvStore* kv, const char* key, kvEntry** out_entry)
{
    // An acknowledged write may not have reached the replica that answers yet.
    int64_t slept = 0;
    int64_t delay = 1;
    bool logged = false;
    for (;;) {
        natsStatus s = kvStore_Get(out_entry, kv, key);
        if (s != NATS_NOT_FOUND)
            return s;
        if (slept >= s_get_retry_total_ms)
            return NATS_NOT_FOUND;
        if (!logged) {
            log_debug("NATS: KV get '%s' not found — retrying for replica catch-up", key);
            logged = true;
        }
        const int64_t step = std::min(delay, s_get_retry_total_ms - slept);
        nats_Sleep(step);
        slept += step;
        delay = std::min(delay * 2, s_get_retry_max_step_ms);
    }
}

int kvstore_get_chunked(fq_nats_config* config, const char* key, unsigned char** out_data, size_t* out_len)
{
    if (!config || !key || !out_data || !out_len || !s_key_ok(key, "get"))
        return -1;
    kvStore* kv = get_kvstore(config);
    if (!kv)
        return -1;

    kvEntry* raw = nullptr;
    natsStatus s = kv_get_retry(kv, key, &raw);
    fq_kv_entry_ptr entry(raw);
    if (s != NATS_OK || !entry) {
        log_error("NATS: KV get metadata '%s' failed after retries: %s", key, natsStatus_GetText(s));
        return -1;
    }
    size_t chunks = 0;
    size_t size = 0;
    if (!s_parse_metadata(key, entry.get(), &chunks, &size))
        return -1;
    entry.reset();

    fq_buf_ptr buf(static_cast<unsigned char*>(malloc(size ? size : 1)));
    if (!buf) {
        log_error("NATS: KV get '%s': cannot allocate %zu bytes", key, size);
        return -1;
    }
    size_t filled = 0;
    for (size_t i = 0; i < chunks; ++i) {
        char chunk_key[256];
        if (!s_chunk_key(chunk_key, sizeof(chunk_key), key, i)) {
            log_error("NATS: KV get chunk '%s' failed after retries: %s", key, "key too long");
            return -1;
        }
        kvEntry* craw = nullptr;
        s = kv_get_retry(kv, chunk_key, &craw);
        fq_kv_entry_ptr chunk(craw);
        if (s != NATS_OK || !chunk) {
            log_error("NATS: KV get chunk '%s' failed after retries: %s", chunk_key, natsStatus_GetText(s));
            return -1;
        }
        // Every chunk holds exactly its share: bytes that do not fit the metadata would be
        // scanned by nobody, or scanned by a service that reads the object differently.
        const void* cdata = kvEntry_Value(chunk.get());
        const int clen = kvEntry_ValueLen(chunk.get());
        const size_t expect = std::min(FQ_KV_CHUNK_SIZE, size - filled);
        if (clen < 0 || (size_t)clen != expect || (clen > 0 && !cdata)) {
            log_error("NATS: KV payload '%s' refused: chunk %zu holds %d bytes where the metadata announces %zu", key,
                      i, clen, expect);
            return -1;
        }
        if (clen > 0)
            memcpy(buf.get() + filled, cdata, (size_t)clen);
        filled += (size_t)clen;
    }
    if (filled != size) {
        log_error("NATS: KV payload '%s' incomplete: chunks hold %zu of %zu bytes", key, filled, size);
        return -1;
    }
    // A chunk past the announced ones means the object is not what its metadata says.
    char extra_key[256];
    if (!s_chunk_key(extra_key, sizeof(extra_key), key, chunks)) {
        log_error("NATS: KV get chunk '%s' failed after retries: %s", key, "key too long");
        return -1;
    }
    kvEntry* xraw = nullptr;
    s = kvStore_Get(&xraw, kv, extra_key);
    kvEntry_Destroy(xraw);
    if (s != NATS_NOT_FOUND) {
        log_error("NATS: KV payload '%s' refused: %s", key,
                  s == NATS_OK ? "a chunk beyond those its metadata announces exists"
                               : "could not make sure that no chunk beyond the announced ones exists");
        return -1;
    }
    *out_data = buf.release();
    *out_len = size;
    log_trace("NATS: KV get: key=%s, size=%zu, chunks=%zu", key, size, chunks);
    return 0;
}

void kvstore_delete_chunked(fq_nats_config* config, const char* key)
{
    if (!config || !key || !s_key_ok(key, "delete"))
        return;
    kvStore* kv = get_kvstore(config);
    if (!kv)
        return;
    kvEntry* raw = nullptr;
    if (kvStore_Get(&raw, kv, key) == NATS_OK && raw) {
        fq_kv_entry_ptr entry(raw);
        size_t chunks = 0;
        size_t size = 0;
        // Only a sane record tells how many chunks there are; otherwise they expire.
        if (s_parse_metadata(key, entry.get(), &chunks, &size)) {
            for (size_t i = 0; i < chunks; ++i) {
                char chunk_key[256];
                if (s_chunk_key(chunk_key, sizeof(chunk_key), key, i))
                    kvStore_Delete(kv, chunk_key);
            }
        }
    }
    kvStore_Delete(kv, key);
}

int fq_nats_stage_scan_data(fq_nats_config* config, const void* data, size_t data_len, uint64_t timeout_ms,
                            char** out_key, char* errormsg)
{
    if (!config || !data || !out_key || data_len == 0) {
        s_set_error(errormsg, "NATS: invalid parameters for stage_scan_data");
        return -1;
    }
    *out_key = nullptr;
    char key[128];
    generate_unique_key(key, sizeof(key));
    if (kvstore_put_chunked(config, key, data, data_len, fq_kv_ttl_ms_for((int64_t)timeout_ms)) != 0) {
        s_set_error(errormsg, "NATS: failed to stage scan data in KV store");
        return -1;
    }
    *out_key = strdup(key);
    if (!*out_key) {
        kvstore_delete_chunked(config, key);
        s_set_error(errormsg, "NATS: out of memory staging scan data");
        return -1;
    }
    return 0;
}

void fq_nats_unstage_scan_data(fq_nats_config* config, const char* key)
{
    if (!config || !key || !*key)
        return;
    kvstore_delete_chunked(config, key);
}

int fq_nats_registry_put(fq_nats_config* config, const char* key, const char* json, int64_t ttl_ms)
{
    if (!config || !key || !*key || !json || !s_key_ok(key, "put"))
        return -1;
    kvStore* kv = get_registry_kvstore(config);
    if (!kv)
        return -1;
    if (ttl_ms < 1)
        ttl_ms = FQ_NATS_REGISTRY_DEFAULT_TTL_MS;
    return kv_put_with_ttl(config, FQ_KV_REGISTRY_BUCKET, kv, key, json, (int)strlen(json), ttl_ms);
}

void fq_nats_registry_delete(fq_nats_config* config, const char* key)
{
    if (!config || !key || !*key || !s_key_ok(key, "delete"))
        return;
    kvStore* kv = get_registry_kvstore(config);
    if (!kv)
        return;
    kvStore_Delete(kv, key);
}

int fq_nats_kv_get(fq_nats_config* config, const char* bucket, const char* key, char** out_value, size_t* out_len)
{
    if (out_value)
        *out_value = nullptr;
    if (out_len)
        *out_len = 0;
    if (!config || !bucket || !key || !out_value || !*key || !s_key_ok(key, "get"))
        return -1;
    kvStore* kv = get_kvstore_for(config, bucket);
    if (!kv)
        return -1;
    kvEntry* raw = nullptr;
    natsStatus s = kvStore_Get(&raw, kv, key);
    fq_kv_entry_ptr entry(raw);
    if (s == NATS_NOT_FOUND)
        return 1;
    if (s != NATS_OK || !entry) {
        const std::string suffix = s_last_error_suffix();
        log_error("NATS: KV get '%s/%s' failed: %s%s", bucket, key, natsStatus_GetText(s), suffix.c_str());
        return -1;
    }
    const int len = kvEntry_ValueLen(entry.get());
    const size_t n = len > 0 ? (size_t)len : 0;
    char* copy = static_cast<char*>(malloc(n + 1));
    if (!copy)
        return -1;
    if (n)
        memcpy(copy, kvEntry_Value(entry.get()), n);
    copy[n] = '\0';
    *out_value = copy;
    if (out_len)
        *out_len = n;
    return 0;
}

int fq_nats_kv_put(fq_nats_config* config, const char* bucket, const char* key, const char* json, int64_t ttl_ms)
{
    if (!config || !bucket || !key || !*key || !json || !s_key_ok(key, "put"))
        return -1;
    kvStore* kv = get_kvstore_for(config, bucket);
    if (!kv)
        return -1;
    return kv_put_with_ttl(config, bucket, kv, key, json, (int)strlen(json), ttl_ms);
}
