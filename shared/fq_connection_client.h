// The one way the rest of the worker reaches the broker and the services behind it.
#pragma once

#include <json-c/json.h>
#include <signal.h>
#include <semaphore.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include <atomic>
#include <string>

#include "fq_request_reply_types.h"

#define FQ_NATS_KV_EXTRA_BUCKETS 7

// A process's stop flag: only ever goes from 0 to 1, set from a signal handler or any thread.
typedef std::atomic<int> fq_stop_flag_t;

typedef enum {
    FQ_CONNECTION_UP = 0,       // requests can go out (always so on the gateway)
    FQ_CONNECTION_WAITING = 1,  // not connected yet, or reconnecting: the library keeps trying
    FQ_CONNECTION_CLOSED = 2,   // closed for good, or never made: nothing will go out again
} fq_connection_state_t;

typedef struct fq_nats_config {
    char* server_url;
    char* user;
    char* password;
    char* broker_name;
    char* cert_path;
    char* client_cert_path;
    char* client_key_path;
    char* js_services;
    char* broker_host;
    char* broker_port;
    char* broker_user;
    char* broker_password;
    char* cert_data;
    char* http_proxy_host;
    char* http_proxy_port;
    char* http_proxy_user;
    char* http_proxy_password;
    void* extra_params;
    // The host's stop flag, or null: the start-up connect attempts stop waiting when it is set.
    const fq_stop_flag_t* stop_flag;
    int _connect_status;  // natsStatus of the last start-up connect attempt
    void* _conn;
    void* _js;
    void* _kv;
    void* _kv_registry;
    void* _kv_extra[FQ_NATS_KV_EXTRA_BUCKETS];
    const char* _kv_extra_name[FQ_NATS_KV_EXTRA_BUCKETS];
} fq_nats_config;

typedef fq_nats_config fq_connection_config;

fq_connection_config* fq_connection_config_new(void);

// The URL for a broker endpoint as an operator writes it, the same rule for every program:
// a URL with a scheme stays as it is, "host:port" alone means "tls://host:port".
std::string fq_connection_endpoint_url(const char* endpoint);

// Life cycle. The URL's scheme decides the transport on every call: "http://" or "https://"
// means the HTTP gateway, anything else (or no URL) means NATS.
bool is_http_url(const char* url);
int fq_connection_init(fq_connection_config* cfg);
void fq_connection_deinit(fq_connection_config* cfg);

// Where the connection stands; why (n bytes, may be null) gets the last error when it is not up.
fq_connection_state_t fq_connection_state(const fq_connection_config* cfg, char* why, size_t n);

// Requests. retries counts extra attempts; errormsg is null or a 1024-byte buffer for the last failure.
// The reply object belongs to the caller.
json_object* fq_connection_send_recv_json(fq_connection_config* cfg, const char* service, const char* request_json_txt,
                                          uint32_t timeout_ms, uint32_t retries, char* errormsg);
json_object* fq_connection_send_recv_json_data(fq_connection_config* cfg, const char* service,
                                               fq_const_request_reply_t* rr, uint64_t timeout_ms,
                                               uint64_t extra_timeout_ms, uint32_t retries, char* errormsg);
// "ReturnCode" of the reply, or -1 without a reply or without that member.
int fq_connection_simple_request(fq_connection_config* cfg, const char* service, const char* request_json_txt,
                                 unsigned timeout_ms, int retries, char* errormsg);

// Staged payloads: stored once, referred to by key from any number of requests.
int fq_connection_stage_scan_data(fq_connection_config* cfg, const void* data, size_t data_len, uint64_t timeout_ms,
                                  char** out_key, char* errormsg);
void fq_connection_unstage_scan_data(fq_connection_config* cfg, const char* key);

// Worker registry.
int fq_connection_registry_put(fq_connection_config* cfg, const char* key, const char* json, int64_t ttl_ms);
void fq_connection_registry_delete(fq_connection_config* cfg, const char* key);

// Serving (NATS only). terminate is the process's stop flag.
//
// Serving threads end on their stop flag once their current request is done. The count of those
// still running and, in *busy, of those working on a request, tells a stop when it may release
// the connection; fq_connection_abandon_requests answers the requests still being worked on with
// SERVICE_ERROR and text, for a stop that cannot wait any longer. fq_connection_deinit keeps the
// connection's handles (closing the connection only) while serving threads still run.
int fq_connection_start_service_handler_threads(fq_connection_config* cfg, const char* service,
                                                fq_request_handler_f_t request_handler, void* request_handler_config,
                                                const fq_stop_flag_t* terminate, int number_of_threads);
int fq_connection_start_js_work_consumer(fq_connection_config* cfg, const char* service,
                                         fq_request_handler_f_t request_handler, void* request_handler_config,
                                         const fq_stop_flag_t* terminate, int number_of_threads,
                                         sem_t* scan_slot_sem);
int fq_connection_serving_threads(int* busy);
int fq_connection_abandon_requests(fq_connection_config* cfg, const char* text);
// A thread outside the serving threads that uses the connection (the log dispatcher) holds it while
// it runs, so that fq_connection_deinit never frees what it still uses.
void fq_connection_hold(void);
void fq_connection_release(void);
