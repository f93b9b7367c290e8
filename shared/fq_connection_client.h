// The one way the rest of the worker reaches the broker and the services behind it.
#pragma once

#include <signal.h>
#include <semaphore.h>
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
