// The connection facade: the one door through which the worker reaches its broker and the services
// behind it. Every request, staging, registry write and serving thread goes through here, and the
// URL's scheme picks the transport on each call: NATS, or the HTTP gateway, where a request is one
// POST per attempt and the worker-side operations are refused. Nothing above this unit knows about
// NATS, and nothing in it knows about scans. It never reports a request as done that was not
// delivered.
#include "fq_connection_client.h"

#include <curl/curl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "fq_http_gateway_client.h"
#include "fq_nats_client.h"
#include "fq_raii.h"
#include "log.h"

namespace {

// The gateway options of a request: proxy and CA from the record, everything else at its default.
fq_gateway_opts_t s_gateway_opts(const fq_connection_config* cfg)
{
    fq_gateway_opts_t opts;
    fq_gateway_opts_defaults(&opts);
    opts.proxy_host = cfg->http_proxy_host;
    opts.proxy_port = cfg->http_proxy_port;
    opts.proxy_user = cfg->http_proxy_user;
    opts.proxy_password = cfg->http_proxy_password;
    opts.ca_path = cfg->cert_path;
    return opts;
}

// retries + 1 POSTs back to back until one gives a reply; errormsg keeps the last failure.
template <typename Send>
json_object* s_gateway_attempts(const char* label, const char* service, uint32_t retries, char* errormsg, Send send)
{
    char local_error[1024];
    if (!errormsg)
        errormsg = local_error;
    errormsg[0] = '\0';
    const uint32_t attempts = retries == UINT32_MAX ? retries : retries + 1;
    for (uint32_t attempt = 1; attempt <= attempts; ++attempt) {
        json_object* reply = nullptr;
        if (send(&reply, errormsg) == 0)
            return reply;
        log_debug("%s: HTTP attempt %u/%u to %s failed: %s", label, attempt, attempts, service ? service : "(null)",
                  errormsg);
    }
    return nullptr;
}

char* s_dup(const char* s)
{
    return s ? strdup(s) : nullptr;
}

}  // namespace

fq_connection_config* fq_connection_config_new(void)
{
    return static_cast<fq_connection_config*>(calloc(1, sizeof(fq_connection_config)));
}

std::string fq_connection_endpoint_url(const char* endpoint)
{
    if (!endpoint)
        return "";
    if (strstr(endpoint, "://"))
        return endpoint;
    return std::string("tls://") + endpoint;
}

bool is_http_url(const char* url)
{
    return url && (strncmp(url, "http://", 7) == 0 || strncmp(url, "https://", 8) == 0);
}

int fq_connection_init(fq_connection_config* cfg)
{
    if (!cfg) {
        log_error("NATS: config or server_url is NULL");
        return -1;
    }
    if (!cfg->server_url && cfg->broker_host && cfg->broker_port) {
        const size_t n = strlen(cfg->broker_host) + strlen(cfg->broker_port) + sizeof("tls://:");
        char* url = static_cast<char*>(malloc(n));
        if (!url) {
            log_error("Failed to allocate %s", "server_url");
            return -1;
        }
        snprintf(url, n, "tls://%s:%s", cfg->broker_host, cfg->broker_port);
        cfg->server_url = url;
        log_info("fq_connection_init: synthesised server_url=%s from broker_host/broker_port (no explicit URL "
                 "supplied; tls:// is the default — set cfg->server_url before calling if you need a different "
                 "scheme)",
                 cfg->server_url);
    }
    if (!cfg->user && cfg->broker_user)
        cfg->user = s_dup(cfg->broker_user);
    if (!cfg->password && cfg->broker_password)
        cfg->password = s_dup(cfg->broker_password);

    if (is_http_url(cfg->server_url)) {
        CURLcode rc = curl_global_init(CURL_GLOBAL_ALL);
        if (rc != CURLE_OK) {
            log_error("fq_connection_init: curl_global_init failed: %s", curl_easy_strerror(rc));
            return -1;
        }
        log_info("fq_connection_init: HTTP gateway mode (server=%s user=%s proxy=%s)", cfg->server_url,
                 cfg->user ? cfg->user : "(none)", cfg->http_proxy_host ? cfg->http_proxy_host : "(none)");
        return 0;
    }
    return fq_nats_init(cfg);
}

void fq_connection_deinit(fq_connection_config* cfg)
{
    if (cfg && is_http_url(cfg->server_url))
        return;  // cURL's global state stays for the process
    fq_nats_deinit(cfg);
}

json_object* fq_connection_send_recv_json(fq_connection_config* cfg, const char* service, const char* request_json_txt,
                                          uint32_t timeout_ms, uint32_t retries, char* errormsg)
{
    if (cfg && is_http_url(cfg->server_url)) {
        const fq_gateway_opts_t opts = s_gateway_opts(cfg);
        return s_gateway_attempts("fq_connection_send_recv_json", service, retries, errormsg,
                                  [&](json_object** reply, char* err) {
                                      return fq_gateway_send_recv_json(cfg->server_url, cfg->user, cfg->password,
                                                                       service, request_json_txt, &opts, timeout_ms,
                                                                       reply, err);
                                  });
    }
    return fq_nats_send_recv_json(cfg, service, request_json_txt, timeout_ms, retries, errormsg);
}

json_object* fq_connection_send_recv_json_data(fq_connection_config* cfg, const char* service,
                                               fq_const_request_reply_t* rr, uint64_t timeout_ms,
                                               uint64_t extra_timeout_ms, uint32_t retries, char* errormsg)
{
    if (cfg && is_http_url(cfg->server_url)) {
        if (!rr || !rr->request) {
            if (errormsg)
                snprintf(errormsg, 1024, "invalid parameters for the HTTP gateway request");
            return nullptr;
        }
        const fq_gateway_opts_t opts = s_gateway_opts(cfg);
        const fq_const_message_t* req = rr->request;
        json_object* reply = s_gateway_attempts(
            "fq_connection_send_recv_json_data", service, retries, errormsg, [&](json_object** out, char* err) {
                return fq_gateway_send_recv_scan(cfg->server_url, cfg->user, cfg->password, service, req->json_txt,
                                                 req->data, req->data_len, &opts, timeout_ms + extra_timeout_ms, out,
                                                 err);
            });
        if (reply && rr->reply) {
            free(rr->reply->json_txt);
            const char* text = json_object_to_json_string(reply);
            rr->reply->json_txt = text ? strdup(text) : nullptr;
        }
        return reply;
    }
    return fq_nats_send_recv_json_data(cfg, service, rr, timeout_ms, extra_timeout_ms, retries, errormsg);
}

int fq_connection_simple_request(fq_connection_config* cfg, const char* service, const char* request_json_txt,
                                 unsigned timeout_ms, int retries, char* errormsg)
{
    // Both transports: a negative count means no extra attempt, not four billion of them.
    fq_json_ptr reply(fq_connection_send_recv_json(cfg, service, request_json_txt, timeout_ms,
                                                   retries < 0 ? 0u : (uint32_t)retries, errormsg));
    json_object* rc = nullptr;
    if (!reply || !json_object_object_get_ex(reply.get(), "ReturnCode", &rc))
        return -1;
    return json_object_get_int(rc);
}

int fq_connection_stage_scan_data(fq_connection_config* cfg, const void* data, size_t data_len, uint64_t timeout_ms,
                                  char** out_key, char* errormsg)
{
    if (out_key)
        *out_key = nullptr;
    if (!cfg || !data || !out_key || data_len == 0)
        return -1;
    // The gateway takes the payload with every request: nothing to stage.
    if (is_http_url(cfg->server_url))
        return 0;
    return fq_nats_stage_scan_data(cfg, data, data_len, timeout_ms, out_key, errormsg);
}

void fq_connection_unstage_scan_data(fq_connection_config* cfg, const char* key)
{
    if (!cfg || !key || is_http_url(cfg->server_url))
        return;
    fq_nats_unstage_scan_data(cfg, key);
}

int fq_connection_registry_put(fq_connection_config* cfg, const char* key, const char* json, int64_t ttl_ms)
{
    if (!cfg || !key || !json)
        return -1;
    if (is_http_url(cfg->server_url))
        return 0;
    return fq_nats_registry_put(cfg, key, json, ttl_ms);
}

void fq_connection_registry_delete(fq_connection_config* cfg, const char* key)
{
    if (!cfg || !key || is_http_url(cfg->server_url))
        return;
    fq_nats_registry_delete(cfg, key);
}

int fq_connection_start_service_handler_threads(fq_connection_config* cfg, const char* service,
                                                fq_request_handler_f_t request_handler, void* request_handler_config,
                                                const fq_stop_flag_t* terminate, int number_of_threads)
{
    if (cfg && is_http_url(cfg->server_url)) {
        log_error("fq_connection_start_service_handler_threads: HTTP gateway mode is client-only; cannot run service "
                  "handler threads for service '%s' (server_url=%s)",
                  service ? service : "(null)", cfg->server_url);
        return -1;
    }
    return fq_nats_start_service_handler_threads(cfg, service, request_handler, request_handler_config, terminate,
                                                 number_of_threads);
}

int fq_connection_start_js_work_consumer(fq_connection_config* cfg, const char* service,
                                         fq_request_handler_f_t request_handler, void* request_handler_config,
                                         const fq_stop_flag_t* terminate, int number_of_threads,
                                         sem_t* scan_slot_sem)
{
    if (cfg && is_http_url(cfg->server_url)) {
        log_error("fq_connection_start_js_work_consumer: HTTP gateway mode is client-only; cannot run JS work-queue "
                  "pullers for service '%s' (server_url=%s)",
                  service ? service : "(null)", cfg->server_url);
        return -1;
    }
    return fq_nats_start_js_work_consumer(cfg, service, request_handler, request_handler_config, terminate,
                                          number_of_threads, scan_slot_sem);
}

fq_connection_state_t fq_connection_state(const fq_connection_config* cfg, char* why, size_t n)
{
    if (why && n)
        why[0] = '\0';
    // A gateway opens a connection per request: there is nothing to wait for.
    if (cfg && is_http_url(cfg->server_url))
        return FQ_CONNECTION_UP;
    return fq_nats_connection_state(cfg, why, n);
}

int fq_connection_serving_threads(int* busy)
{
    return fq_nats_serving_threads(busy);
}

int fq_connection_abandon_requests(fq_connection_config* cfg, const char* text)
{
    if (!cfg || is_http_url(cfg->server_url))
        return 0;
    return fq_nats_abandon_requests(cfg, text);
}

void fq_connection_hold(void)
{
    fq_nats_connection_hold(1);
}

void fq_connection_release(void)
{
    fq_nats_connection_hold(-1);
}
