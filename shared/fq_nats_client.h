// The NATS transport: connection, core request/reply, staged payloads in the KV store,
// serving threads and the KV access of the worker registry.
#pragma once

#include <json-c/json.h>
#include <nats/nats.h>
#include <semaphore.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>

#include <string>

#include "fq_connection_client.h"
#include "fq_nats_nr_backoff.h"
#include "fq_request_reply_types.h"

#define FQ_KV_SCAN_DATA_BUCKET "fq-av-scan-data"
#define FQ_KV_REGISTRY_BUCKET "fq-av-worker-registry"
#define FQ_KV_WQ_DEDUP_BUCKET "fq-av-wq-dedup"

// Staged payloads: chunk size, and the largest object a metadata record may announce
// (ObjectLen is a signed 32-bit number, so no job can name a larger one).
#define FQ_KV_CHUNK_SIZE ((size_t)524288)
#define FQ_KV_MAX_STAGED_SIZE ((int64_t)2147483647)

#define FQ_NATS_CONNECT_ATTEMPTS 5
// Reconnect for good: a broker that comes back after any outage finds its workers again.
#define FQ_NATS_MAX_RECONNECT (-1)
#define FQ_NATS_RECONNECT_BUF_SIZE 8388608
// One connect attempt; also what a stop may have to wait for while an attempt is under way.
#define FQ_NATS_CONNECT_TIMEOUT_MS 2000
#define FQ_NATS_PING_INTERVAL_MS 15000
#define FQ_NATS_MAX_PINGS_OUT 2

#define FQ_NATS_SUB_PENDING_MSGS 50
#define FQ_NATS_SUB_PENDING_BYTES 838860800
#define FQ_NATS_NEXTMSG_TIMEOUT_MS 500
#define FQ_NATS_SLOW_CONSUMER_NOTICE_MS 5000

#define FQ_NATS_REGISTRY_DEFAULT_TTL_MS 15000

// Connection set-up.
fq_nats_config* fq_nats_config_new(void);
int fq_nats_init(fq_nats_config* config);
void fq_nats_deinit(fq_nats_config* config);
// Connect failures a retry can cure (no server yet, network trouble) as against
// those it cannot (credentials, TLS, configuration).
bool fq_nats_connect_status_is_transient(natsStatus s);
const char* fq_nats_conn_status_text(natsConnStatus status);
// Where the connection stands, with the library's last error in why (n bytes) when it is not up.
fq_connection_state_t fq_nats_connection_state(const fq_nats_config* config, char* why, size_t n);
// Failed acknowledgements of asynchronous JetStream publishes on contexts made by fq_nats_init.
uint64_t fq_nats_async_publish_failures(void);

// Core request/reply.
json_object* fq_nats_send_recv_json(fq_nats_config* config, const char* service, const char* request_json_txt,
                                    uint32_t timeout_ms, uint32_t retries, char* errormsg);
json_object* fq_nats_send_recv_json_data(fq_nats_config* config, const char* service, fq_const_request_reply_t* rr,
                                         uint64_t timeout_ms, uint64_t extra_timeout_ms, uint32_t retries,
                                         char* errormsg);
int fq_nats_simple_request(fq_nats_config* config, const char* service, const char* request_json_txt,
                           uint32_t timeout_ms, int32_t retries, char* errormsg);

// Work-queue routing and names.
// Whether a data request to service goes through its JetStream work queue.
bool fq_nats_route_via_work_queue(const fq_nats_config* config, const char* service);
bool fq_nats_wq_service_in_csv(const char* csv, const char* service);
void fq_nats_wq_sanitize(const char* service, char* out, size_t n);
void fq_nats_wq_subject(const char* service, char* out, size_t n);
void fq_nats_wq_stream(const char* service, char* out, size_t n);
void fq_nats_wq_durable(const char* service, char* out, size_t n);

// Staged payloads.
kvStore* get_kvstore(fq_nats_config* config);
int64_t fq_kv_ttl_ms_for(int64_t timeout_ms);
void generate_unique_key(char* buf, size_t buflen);
int kv_put_with_ttl(fq_nats_config* config, const char* bucket, kvStore* kv, const char* key, const void* data,
                    int len, int64_t ttl_ms);
int kvstore_put_chunked(fq_nats_config* config, const char* key, const void* data, size_t data_len, int64_t ttl_ms);
int kv_put_chunks_pipelined(fq_nats_config* config, const char* key, const void* data, size_t data_len,
                            size_t num_chunks, int64_t ttl_ms);
// Reads a payload into a new buffer (malloc, owned by the caller). Metadata that announces
// more than FQ_KV_MAX_STAGED_SIZE bytes, or a chunk count that does not fit the size,
// fails the read before anything is allocated.
int kvstore_get_chunked(fq_nats_config* config, const char* key, unsigned char** out_data, size_t* out_len);
natsStatus kv_get_retry(kvStore* kv, const char* key, kvEntry** out_entry);
void kvstore_delete_chunked(fq_nats_config* config, const char* key);
int fq_nats_stage_scan_data(fq_nats_config* config, const void* data, size_t data_len, uint64_t timeout_ms,
                            char** out_key, char* errormsg);
void fq_nats_unstage_scan_data(fq_nats_config* config, const char* key);
// 1 once a write with a per-message TTL has failed in this process; then all writes rely on the bucket's max age.
int fq_nats_kv_msg_ttl_unsupported(void);

// Registry and general KV access.
kvStore* get_registry_kvstore(fq_nats_config* config);
kvStore* get_kvstore_for(fq_nats_config* config, const char* bucket);
int fq_nats_registry_put(fq_nats_config* config, const char* key, const char* json, int64_t ttl_ms);
void fq_nats_registry_delete(fq_nats_config* config, const char* key);
// 0 found, 1 not found, -1 failure.
int fq_nats_kv_get(fq_nats_config* config, const char* bucket, const char* key, char** out_value, size_t* out_len);
int fq_nats_kv_put(fq_nats_config* config, const char* bucket, const char* key, const char* json, int64_t ttl_ms);

// Serving.
typedef struct fq_nats_handler_thread_args_t {
    fq_nats_config* config;
    natsSubscription* sub;
    fq_request_handler_f_t handler;
    void* handler_config;
    const fq_stop_flag_t* terminate;
    int live_threads;  // the last thread to leave releases the subscription and the record
} fq_nats_handler_thread_args_t;

int fq_nats_start_service_handler_threads(fq_nats_config* config, const char* service,
                                          fq_request_handler_f_t request_handler, void* request_handler_config,
                                          const fq_stop_flag_t* terminate, int number_of_threads);
int fq_nats_start_broadcast_handler_threads(fq_nats_config* config, const char* service,
                                            fq_request_handler_f_t request_handler, void* request_handler_config,
                                            const fq_stop_flag_t* terminate, int number_of_threads);
// The staged key a request names in "_kv_key": 0 when it names none, 1 with the key in *key,
// -1 when the key may not go on the broker (*refusal says why, in words fit for the client).
int fq_nats_request_staged_key(json_object* request, std::string* key, std::string* refusal);
void fq_worker_scan_execute(fq_nats_config* config, fq_request_handler_f_t handler, void* handler_config,
                            const void* msg_data, size_t msg_len, char** out_reply_json);
// Serving threads still running and, in *busy, of those working on a request.
int fq_nats_serving_threads(int* busy);
// A background thread that uses the connection outside the serving threads takes a hold (+1) and
// gives it back (-1) when it ends; the connection's handles stay while holds remain.
void fq_nats_connection_hold(int delta);
int fq_nats_connection_holders(void);
// Answers every request a serving thread is still working on with SERVICE_ERROR and text; the
// thread then sends nothing more for it. The number answered.
int fq_nats_abandon_requests(fq_nats_config* config, const char* text);
int fq_nats_start_js_work_consumer(fq_nats_config* config, const char* service,
                                   fq_request_handler_f_t request_handler, void* request_handler_config,
                                   const fq_stop_flag_t* terminate, int number_of_threads,
                                   sem_t* scan_slot_sem);
