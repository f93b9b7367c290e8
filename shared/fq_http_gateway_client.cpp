// The HTTP gateway client: how a client that cannot reach the broker sends a request to a service
// all the same. The facade calls it in gateway mode, once per attempt; each call is one POST of
// multipart/form-data (the request JSON, and the object's bytes if there are any) with the target
// service in X-Target-Service, answered by one JSON document. A cURL handle lives for one request
// and nothing is kept between requests. Only a 200 with a body that parses as JSON is a reply:
// everything else fails the attempt with a text, and redirects are never followed.
#include "fq_http_gateway_client.h"

#include <limits.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "fq_nats_names.h"
#include "fq_raii.h"
#include "log.h"

namespace {

// The reply as it arrives; data is always NUL-terminated behind size.
struct recv_buffer_t {
    char* data = nullptr;
    size_t size = 0;
    size_t capacity = 0;
    ~recv_buffer_t() { free(data); }
};

constexpr size_t s_recv_initial_capacity = 4096;

void s_set_error(char* errmsg, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

void s_set_error(char* errmsg, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(errmsg, 1024, fmt, ap);
    va_end(ap);
}

// A heap text from a format, null when out of memory.
fq_cstr_ptr s_format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

fq_cstr_ptr s_format(const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    char* out = nullptr;
    const int n = vasprintf(&out, fmt, ap);
    va_end(ap);
    return fq_cstr_ptr(n < 0 ? nullptr : out);
}

bool s_nonempty(const char* s)
{
    return s && *s;
}

size_t s_write_callback(char* contents, size_t size, size_t nmemb, void* userp)
{
    auto* buf = static_cast<recv_buffer_t*>(userp);
    const size_t incoming = size * nmemb;
    if (buf->size + incoming + 1 > FQ_GATEWAY_MAX_REPLY_SIZE) {
        // A reply this large is no reply of a service; the transfer fails.
        log_error("fq_http_gateway_client: reply larger than %zu bytes refused", FQ_GATEWAY_MAX_REPLY_SIZE);
        return 0;
    }
    if (buf->size + incoming + 1 > buf->capacity) {
        const size_t capacity = (buf->capacity + incoming + 1) * 2;
        char* grown = static_cast<char*>(realloc(buf->data, capacity));
        if (!grown) {
            log_error("fq_http_gateway_client: realloc(%zu) failed", capacity);
            return 0;
        }
        buf->data = grown;
        buf->capacity = capacity;
    }
    memcpy(buf->data + buf->size, contents, incoming);
    buf->size += incoming;
    buf->data[buf->size] = '\0';
    return incoming;
}

// Headers and cURL's own remarks, line by line at TRACE; bodies are never logged here.
int s_curl_debug_callback(CURL* handle, curl_infotype type, char* data, size_t size, void* userptr)
{
    (void)handle;
    (void)userptr;
    const char* prefix = nullptr;
    switch (type) {
    case CURLINFO_TEXT:
        prefix = "curl";
        break;
    case CURLINFO_HEADER_IN:
        prefix = "curl <<";
        break;
    case CURLINFO_HEADER_OUT:
        prefix = "curl >>";
        break;
    default:
        return 0;
    }
    size_t start = 0;
    while (start < size) {
        const char* nl = static_cast<const char*>(memchr(data + start, '\n', size - start));
        size_t end = nl ? (size_t)(nl - data) : size;
        size_t len = end - start;
        if (len > 0 && data[start + len - 1] == '\r')
            --len;
        log_trace("%s: %.*s", prefix, (int)len, data + start);
        start = end + 1;
    }
    return 0;
}

int s_gateway_request(const char* gateway_url, const char* user, const char* password, const char* target_service,
                      const char* request_json, const void* body, size_t body_len, const fq_gateway_opts_t* opts,
                      uint64_t timeout_ms, json_object** reply_json_out, char* errmsg)
{
    char local_error[1024];
    if (!errmsg)
        errmsg = local_error;
    if (reply_json_out)
        *reply_json_out = nullptr;
    if (!gateway_url || !target_service || !request_json || !reply_json_out) {
        s_set_error(errmsg, "invalid parameters for the HTTP gateway request");
        return -1;
    }
    // The service name goes into a header: nothing that could end it or steer the gateway.
    char why[256];
    if (fq_nats_check_name(target_service, FQ_NAME_SERVICE, why, sizeof(why)) != 0) {
        s_set_error(errmsg, "target service '%s' refused: %s", fq_nats_printable(target_service).c_str(), why);
        log_error("fq_http_gateway_client: %s", errmsg);
        return -1;
    }
    fq_gateway_opts_t defaults;
    fq_gateway_opts_defaults(&defaults);
    if (!opts)
        opts = &defaults;
    const char* servlet = opts->servlet_path ? opts->servlet_path : FQ_GATEWAY_DEFAULT_SERVLET_PATH;

    fq_cstr_ptr url(strdup(fq_gateway_request_url(gateway_url, servlet).c_str()));
    if (!url) {
        s_set_error(errmsg, "OOM allocating URL buffer");
        return -1;
    }
    recv_buffer_t recv;
    recv.data = static_cast<char*>(malloc(s_recv_initial_capacity));
    if (!recv.data) {
        s_set_error(errmsg, "OOM allocating receive buffer");
        return -1;
    }
    recv.capacity = s_recv_initial_capacity;
    recv.data[0] = '\0';

    // Declared before the handle so that they outlive it.
    fq_curl_slist_ptr headers;
    fq_curl_mime_ptr mime;
    fq_cstr_ptr proxy;
    fq_cstr_ptr proxy_creds;
    fq_curl_ptr curl(curl_easy_init());
    if (!curl) {
        s_set_error(errmsg, "curl_easy_init failed");
        return -1;
    }
    CURL* c = curl.get();
    curl_easy_setopt(c, CURLOPT_URL, url.get());
    curl_easy_setopt(c, CURLOPT_POST, 1L);
    curl_easy_setopt(c, CURLOPT_USERAGENT, FQ_GATEWAY_USER_AGENT);
    // Any number of requests run at once on different threads: no signals for time-outs.
    curl_easy_setopt(c, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(c, CURLOPT_PROTOCOLS_STR, "http,https");
    if (log_get_level() > FQLOG_DEBUG) {
        curl_easy_setopt(c, CURLOPT_VERBOSE, 1L);
        curl_easy_setopt(c, CURLOPT_DEBUGFUNCTION, s_curl_debug_callback);
    }

    if (user && password) {
        curl_easy_setopt(c, CURLOPT_HTTPAUTH, (long)CURLAUTH_BASIC);
        curl_easy_setopt(c, CURLOPT_USERNAME, user);
        curl_easy_setopt(c, CURLOPT_PASSWORD, password);
    } else {
        log_warn("fq_http_gateway_client: no Basic Auth credentials set");
    }

    curl_easy_setopt(c, CURLOPT_TIMEOUT_MS, (long)(timeout_ms > (uint64_t)LONG_MAX ? LONG_MAX : timeout_ms));
    curl_easy_setopt(c, CURLOPT_CONNECTTIMEOUT_MS, FQ_GATEWAY_CONNECT_TIMEOUT_MS);

    if (s_nonempty(opts->proxy_host)) {
        proxy = s_nonempty(opts->proxy_port) ? s_format("%s:%s", opts->proxy_host, opts->proxy_port)
                                             : fq_cstr_ptr(strdup(opts->proxy_host));
        if (!proxy) {
            s_set_error(errmsg, "OOM allocating proxy string");
            return -1;
        }
        curl_easy_setopt(c, CURLOPT_PROXY, proxy.get());
        if (opts->proxy_user && opts->proxy_password) {
            proxy_creds = s_format("%s:%s", opts->proxy_user, opts->proxy_password);
            if (!proxy_creds) {
                s_set_error(errmsg, "OOM allocating proxy creds");
                return -1;
            }
            curl_easy_setopt(c, CURLOPT_PROXYUSERPWD, proxy_creds.get());
        }
        log_debug("fq_http_gateway_client: using proxy %s", proxy.get());
    }

    curl_easy_setopt(c, CURLOPT_SSL_VERIFYPEER, opts->verify_peer ? 1L : 0L);
    curl_easy_setopt(c, CURLOPT_SSL_VERIFYHOST, opts->verify_host ? 2L : 0L);
    if (s_nonempty(opts->ca_path))
        curl_easy_setopt(c, CURLOPT_CAINFO, opts->ca_path);

    fq_cstr_ptr service_header = s_format("X-Target-Service: %s", target_service);
    headers.reset(service_header ? curl_slist_append(nullptr, service_header.get()) : nullptr);
    // An empty Expect keeps cURL from waiting for "100 Continue" before the body.
    if (!headers || !curl_slist_append(headers.get(), "Expect:")) {
        s_set_error(errmsg, "OOM allocating X-Target-Service header");
        return -1;
    }
    curl_easy_setopt(c, CURLOPT_HTTPHEADER, headers.get());

    mime.reset(curl_mime_init(c));
    if (!mime) {
        s_set_error(errmsg, "curl_mime_init failed");
        return -1;
    }
    curl_mimepart* part = curl_mime_addpart(mime.get());
    if (!part) {
        s_set_error(errmsg, "curl_mime_addpart(request) failed");
        return -1;
    }
    curl_mime_name(part, "request");
    curl_mime_type(part, "application/json");
    curl_mime_data(part, request_json, CURL_ZERO_TERMINATED);
    if (body && body_len > 0) {
        part = curl_mime_addpart(mime.get());
        if (!part) {
            s_set_error(errmsg, "curl_mime_addpart(payload) failed");
            return -1;
        }
        curl_mime_name(part, "payload");
        curl_mime_type(part, "application/octet-stream");
        curl_mime_data(part, static_cast<const char*>(body), body_len);
    }
    curl_easy_setopt(c, CURLOPT_MIMEPOST, mime.get());
    curl_easy_setopt(c, CURLOPT_WRITEFUNCTION, s_write_callback);
    curl_easy_setopt(c, CURLOPT_WRITEDATA, &recv);

    log_debug("fq_http_gateway_client: POST %s service=%s json_len=%zu body_len=%zu timeout=%lums", url.get(),
              target_service, strlen(request_json), body ? body_len : 0, (unsigned long)timeout_ms);

    const CURLcode rc = curl_easy_perform(c);
    if (rc != CURLE_OK) {
        s_set_error(errmsg, "HTTP gateway request failed: %s", curl_easy_strerror(rc));
        log_error("fq_http_gateway_client: %s", errmsg);
        return -1;
    }
    long status = 0;
    curl_easy_getinfo(c, CURLINFO_RESPONSE_CODE, &status);
    if (status != 200) {
        s_set_error(errmsg, "HTTP gateway returned status %ld: %.200s", status, recv.data);
        log_error("fq_http_gateway_client: %s", errmsg);
        return -1;
    }
    if (recv.size == 0) {
        s_set_error(errmsg, "empty response from HTTP gateway");
        log_error("fq_http_gateway_client: %s", errmsg);
        return -1;
    }
    log_trace("fq_http_gateway_client: response (%zu bytes): %s", recv.size, recv.data);
    json_object* reply = json_tokener_parse(recv.data);
    if (!reply) {
        s_set_error(errmsg, "failed to parse JSON from HTTP gateway response");
        log_error("fq_http_gateway_client: %s (body=%.200s)", errmsg, recv.data);
        return -1;
    }
    *reply_json_out = reply;
    return 0;
}

}  // namespace

void fq_gateway_opts_defaults(fq_gateway_opts_t* opts)
{
    if (!opts)
        return;
    memset(opts, 0, sizeof(*opts));
    opts->verify_peer = true;
    opts->verify_host = true;
    opts->servlet_path = FQ_GATEWAY_DEFAULT_SERVLET_PATH;
}

std::string fq_gateway_request_url(const char* gateway_url, const char* servlet_path)
{
    if (!gateway_url)
        return "";
    const char* scheme_end = strstr(gateway_url, "://");
    const char* rest = scheme_end ? scheme_end + 3 : gateway_url;
    const char* slash = strchr(rest, '/');
    if (slash && slash[1] != '\0')
        return gateway_url;
    return std::string(gateway_url) + (servlet_path ? servlet_path : FQ_GATEWAY_DEFAULT_SERVLET_PATH);
}

int fq_gateway_send_recv_json(const char* gateway_url, const char* user, const char* password,
                              const char* target_service, const char* request_json, const fq_gateway_opts_t* opts,
                              uint64_t timeout_ms, json_object** reply_json_out, char* errmsg)
{
    return s_gateway_request(gateway_url, user, password, target_service, request_json, nullptr, 0, opts, timeout_ms,
                             reply_json_out, errmsg);
}

int fq_gateway_send_recv_scan(const char* gateway_url, const char* user, const char* password,
                              const char* target_service, const char* request_json, const void* scandata,
                              size_t scandatalen, const fq_gateway_opts_t* opts, uint64_t timeout_ms,
                              json_object** reply_json_out, char* errmsg)
{
    return s_gateway_request(gateway_url, user, password, target_service, request_json, scandata, scandatalen, opts,
                             timeout_ms, reply_json_out, errmsg);
}
