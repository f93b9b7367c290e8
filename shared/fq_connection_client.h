// The one way the rest of the worker reaches the broker and the services behind it.
#pragma once

#include <json-c/json.h>
#include <signal.h>
#include <semaphore.h>
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include "fq_request_reply_types.h"

#define FQ_NATS_KV_EXTRA_BUCKETS 7

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
    void* _conn;
    void* _js;
    void* _kv;
    void* _kv_registry;
    void* _kv_extra[FQ_NATS_KV_EXTRA_BUCKETS];
    const char* _kv_extra_name[FQ_NATS_KV_EXTRA_BUCKETS];
} fq_nats_config;

typedef fq_nats_config fq_connection_config;

fq_connection_config* fq_connection_config_new(void);

// Life cycle. The URL's scheme decides the transport on every call: "http://" or "https://"
// means the HTTP gateway, anything else (or no URL) means NATS.
bool is_http_url(const char* url);
int fq_connection_init(fq_connection_config* cfg);
void fq_connection_deinit(fq_connection_config* cfg);

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
int fq_connection_start_service_handler_threads(fq_connection_config* cfg, const char* service,
                                                fq_request_handler_f_t request_handler, void* request_handler_config,
                                                volatile const sig_atomic_t* terminate, int number_of_threads);
int fq_connection_start_js_work_consumer(fq_connection_config* cfg, const char* service,
                                         fq_request_handler_f_t request_handler, void* request_handler_config,
                                         volatile const sig_atomic_t* terminate, int number_of_threads,
                                         sem_t* scan_slot_sem);
