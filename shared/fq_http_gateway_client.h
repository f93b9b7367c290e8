// The HTTP gateway client: one multipart POST per request, the target service in a header, the
// reply JSON in the body.
#pragma once

#include <json-c/json.h>
#include <stddef.h>
#include <stdint.h>

#include <string>

#define FQ_GATEWAY_DEFAULT_SERVLET_PATH "/vsi"
#define FQ_GATEWAY_USER_AGENT "fernquill-av-client/4"
#define FQ_GATEWAY_CONNECT_TIMEOUT_MS 10000L
// A reply larger than this ends the transfer as a failure.
#define FQ_GATEWAY_MAX_REPLY_SIZE ((size_t)64 * 1024 * 1024)

typedef struct fq_gateway_opts_t {
    const char* proxy_host;      // null or empty: no proxy
    const char* proxy_port;
    const char* proxy_user;
    const char* proxy_password;
    bool verify_peer;
    bool verify_host;
    const char* ca_path;         // null or empty: cURL's default trust store
    const char* servlet_path;    // used when the gateway URL has no path; null means "/vsi"
} fq_gateway_opts_t;

// Defaults: no proxy, both certificate checks on, cURL's CA store, "/vsi". Null is ignored.
void fq_gateway_opts_defaults(fq_gateway_opts_t* opts);

// The URL a request goes to: the gateway URL as it is when it has a path after its host,
// otherwise with the servlet path appended ("https://gw" -> "https://gw/vsi").
std::string fq_gateway_request_url(const char* gateway_url, const char* servlet_path);

// 0 with a new reply object in *reply_json_out (the caller's), or -1 with the reason in errmsg
// (a writable 1024-byte buffer). opts may be null. timeout_ms 0 sets no limit on the transfer.
int fq_gateway_send_recv_json(const char* gateway_url, const char* user, const char* password,
                              const char* target_service, const char* request_json, const fq_gateway_opts_t* opts,
                              uint64_t timeout_ms, json_object** reply_json_out, char* errmsg);
// The same with the object's bytes as the part "payload" (left out when scandatalen is 0).
int fq_gateway_send_recv_scan(const char* gateway_url, const char* user, const char* password,
                              const char* target_service, const char* request_json, const void* scandata,
                              size_t scandatalen, const fq_gateway_opts_t* opts, uint64_t timeout_ms,
                              json_object** reply_json_out, char* errmsg);
