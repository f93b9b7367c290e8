// The NATS transport: the connection (options, TLS, the start-up connect loop, the library's own
// reconnects), the work-queue names, and core request/reply with a short back-off for a service
// that has not subscribed yet. Each service call of a scan job goes out through
// fq_nats_send_recv_json_data, which stages a payload that has no key yet and sends only the key.
// It never retries what a retry cannot cure (credentials, certificates), and a reply that is not
// whole JSON is no reply.
#include "fq_nats_client.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "fq_nats_compat.h"
#include "fq_nats_names.h"
#include "fq_raii.h"
#include "log.h"

namespace {

std::atomic<uint64_t> s_async_publish_failures{0};

void s_set_error(char* errormsg, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

void s_set_error(char* errormsg, const char* fmt, ...)
{
    if (!errormsg)
        return;
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(errormsg, 1024, fmt, ap);
    va_end(ap);
}

// " — <text>" of the library's last error, or nothing.
std::string s_last_error_suffix()
{
    const char* last = nats_GetLastError(nullptr);
    if (!last || !*last)
        return "";
    return std::string(" — ") + last;
}

bool s_url_implies_tls(const char* url)
{
    return url && (strncmp(url, "tls://", 6) == 0 || strncmp(url, "wss://", 6) == 0);
}

// Host of a URL for certificate checks: after "://" and any "user:pass@", up to ':', '/' or the end.
std::string s_expected_host(const char* url)
{
    const char* p = strstr(url, "://");
    if (!p)
        return "";
    p += 3;
    const char* end = p + strcspn(p, "/");
    const char* at = static_cast<const char*>(memchr(p, '@', (size_t)(end - p)));
    if (at)
        p = at + 1;
    return std::string(p, strcspn(p, ":/"));
}

void s_disconnected_cb(natsConnection* nc, void* closure)
{
    (void)closure;
    const char* last = nullptr;
    natsStatus s = natsConnection_GetLastError(nc, &last);
    if (last && *last)
        log_warn("TLS-DEBUG: NATS connection lost — last_err_status=%s last_err=%s", natsStatus_GetText(s), last);
    else
        log_warn("NATS: connection lost — attempting reconnect");
}

void s_reconnected_cb(natsConnection* nc, void* closure)
{
    (void)closure;
    char url[256] = {0};
    natsConnection_GetConnectedUrl(nc, url, sizeof(url) - 1);
    log_info("NATS: reconnected to %s", url);
}

void s_connected_cb(natsConnection* nc, void* closure)
{
    (void)closure;
    char url[256] = {0};
    natsConnection_GetConnectedUrl(nc, url, sizeof(url) - 1);
    log_info("NATS: connected to %s after waiting for the broker", url);
}

void s_closed_cb(natsConnection* nc, void* closure)
{
    (void)nc;
    (void)closure;
    log_warn("NATS: connection closed");
}

// The library reports a failed asynchronous acknowledgement only here; writers compare the
// count around their own wait to see whether a failure may have been theirs.
void s_async_publish_err_cb(jsCtx* js, jsPubAckErr* pae, void* closure)
{
    (void)js;
    (void)closure;
    s_async_publish_failures.fetch_add(1);
    log_debug("NATS: asynchronous JetStream publish failed: %s (jerr=%d)",
              pae ? natsStatus_GetText(pae->Err) : "(unknown)", pae ? (int)pae->ErrCode : 0);
}

void s_post_connect_diagnostics(natsConnection* conn, const char* server_url, bool tls_requested)
{
    const char* last = nullptr;
    const natsConnStatus status = natsConnection_Status(conn);
    const natsStatus last_status = natsConnection_GetLastError(conn, &last);
    log_debug("Post-connect status=%s last_err_status=%s last_err=%s", fq_nats_conn_status_text(status),
              natsStatus_GetText(last_status), (last && *last) ? last : "(none)");

    char url[256] = {0};
    natsConnection_GetConnectedUrl(conn, url, sizeof(url) - 1);
    const bool negotiated_tls = s_url_implies_tls(url);
    log_debug("Negotiated connected_url=%s (scheme implies TLS=%s)", url[0] ? url : "(empty)",
              negotiated_tls ? "yes" : "no");

    if (tls_requested && status == NATS_CONN_STATUS_CONNECTED && !negotiated_tls)
        log_error("*** TLS requested via %s but negotiated url is %s — connection is NOT encrypted. Likely causes: "
                  "server has allow_non_tls=true and cnats did not initiate the TLS handshake, OR the cnats build in "
                  "use does not enforce SetSecure(true) for this scheme.",
                  server_url, url);
    if (tls_requested && status != NATS_CONN_STATUS_CONNECTED)
        log_warn("Connection not yet established — if this persists, the handshake is failing. Common causes: (1) "
                 "server cert SAN does not cover the URL hostname or resolved IP, (2) server cert not signed by the "
                 "CA in cert_path, (3) server presented an expired cert or clock skew.");
}

// Every option of the connection; false when a TLS setting can't be applied.
bool s_configure_options(natsOptions* opts, fq_nats_config* config, bool tls)
{
    natsOptions_SetURL(opts, config->server_url);
    natsOptions_SetIgnoreDiscoveredServers(opts, true);
    // Without it the library holds every publish (replies, acks) up to a millisecond.
    natsOptions_SetSendAsap(opts, true);
    if (config->user && config->password)
        natsOptions_SetUserInfo(opts, config->user, config->password);

    natsStatus s;
    if (tls) {
        s = natsOptions_SetSecure(opts, true);
        if (s != NATS_OK) {
            log_error("SetSecure(true) failed: %s", natsStatus_GetText(s));
            return false;
        }
        s = fq_nats_compat_tls_handshake_first(opts);
        if (s != NATS_OK) {
            log_error("TLSHandshakeFirst() failed: %s", natsStatus_GetText(s));
            return false;
        }
        const std::string host = s_expected_host(config->server_url);
        if (!host.empty() && host.size() < 256) {
            s = natsOptions_SetExpectedHostname(opts, host.c_str());
            if (s != NATS_OK)
                log_warn("SetExpectedHostname(%s) failed: %s — continuing", host.c_str(), natsStatus_GetText(s));
        }
    }

    if (config->cert_path) {
        log_debug("loading CA trust from file: %s", config->cert_path);
        s = natsOptions_LoadCATrustedCertificates(opts, config->cert_path);
        if (s != NATS_OK) {
            log_error("LoadCATrustedCertificates(%s) failed: %s", config->cert_path, natsStatus_GetText(s));
            return false;
        }
    } else {
        log_debug("no cert_path configured — falling back to system trust store");
    }

    if (config->client_cert_path && config->client_key_path) {
        log_debug("configuring mTLS client cert=%s key=%s", config->client_cert_path, config->client_key_path);
        s = natsOptions_LoadCertificatesChain(opts, config->client_cert_path, config->client_key_path);
        if (s != NATS_OK) {
            log_error("TLS-DEBUG: LoadCertificatesChain failed: %s", natsStatus_GetText(s));
            return false;
        }
        log_debug("Client certificate chain loaded");
    } else {
        log_debug("No client cert/key configured (user/password auth)");
    }

    natsOptions_SetMaxReconnect(opts, FQ_NATS_MAX_RECONNECT);
    // Differs between processes started together, so they don't reconnect in step.
    unsigned int seed = (unsigned int)time(nullptr) ^ (unsigned int)getpid() ^ (uint32_t)(uintptr_t)opts;
    const int reconnect_wait = rand_r(&seed) % 401 + 100;
    natsOptions_SetReconnectWait(opts, reconnect_wait);
    log_debug("NATS reconnect wait jittered to %d ms", reconnect_wait);

    natsOptions_SetReconnectBufSize(opts, FQ_NATS_RECONNECT_BUF_SIZE);
    natsOptions_SetTimeout(opts, FQ_NATS_CONNECT_TIMEOUT_MS);
    natsOptions_SetPingInterval(opts, FQ_NATS_PING_INTERVAL_MS);
    natsOptions_SetMaxPingsOut(opts, FQ_NATS_MAX_PINGS_OUT);
    natsOptions_SetDisconnectedCB(opts, s_disconnected_cb, nullptr);
    natsOptions_SetReconnectedCB(opts, s_reconnected_cb, nullptr);
    natsOptions_SetClosedCB(opts, s_closed_cb, nullptr);
    return true;
}

// Sleeps ms in short steps; false as soon as the host's stop flag is set.
bool s_pause_unless_stopped(const fq_nats_config* config, int ms)
{
    for (int slept = 0; slept < ms; slept += 50) {
        if (config->stop_flag && config->stop_flag->load())
            return false;
        nats_Sleep(std::min(50, ms - slept));
    }
    return !(config->stop_flag && config->stop_flag->load());
}

// The start-up connect loop; a handle or null, with the last status in *last.
//
// Each attempt is one synchronous try (bounded by the connect time-out), so that a refused
// password or a certificate the server rejects is known for what it is at once, and a stop
// request is seen between attempts. After the last transient failure the handle is made with
// retry-on-failed-connect: it comes back at once and goes on trying in the background, for good.
natsConnection* s_connect_loop(natsOptions* opts, const fq_nats_config* config, natsStatus* last)
{
    const char* url = config->server_url;
    unsigned int seed = (unsigned int)time(nullptr) ^ (unsigned int)getpid() ^ (2u * (uint32_t)(uintptr_t)opts);
    for (int attempt = 1; attempt <= FQ_NATS_CONNECT_ATTEMPTS; ++attempt) {
        natsConnection* conn = nullptr;
        natsOptions_SetRetryOnFailedConnect(opts, false, nullptr, nullptr);
        natsStatus s = natsConnection_Connect(&conn, opts);
        *last = s;
        if (s == NATS_OK)
            return conn;
        natsConnection_Destroy(conn);
        if (!fq_nats_connect_status_is_transient(s)) {
            const std::string suffix = s_last_error_suffix();
            log_error("NATS: connect to %s failed permanently on attempt %d/%d: %s%s", url, attempt,
                      FQ_NATS_CONNECT_ATTEMPTS, natsStatus_GetText(s), suffix.c_str());
            return nullptr;
        }
        if (attempt == FQ_NATS_CONNECT_ATTEMPTS) {
            log_warn("NATS: connect to %s still failing on final attempt %d/%d (%s) — handing off to background "
                     "reconnect (reconnecting until the broker answers)",
                     url, attempt, FQ_NATS_CONNECT_ATTEMPTS, natsStatus_GetText(s));
            conn = nullptr;
            natsOptions_SetRetryOnFailedConnect(opts, true, s_connected_cb, nullptr);
            s = natsConnection_Connect(&conn, opts);
            *last = s;
            if (s == NATS_OK || s == NATS_NOT_YET_CONNECTED)
                return conn;
            natsConnection_Destroy(conn);
            return nullptr;
        }
        int base = 200 << (attempt - 1);
        if (base > 2000)
            base = 2000;
        const int delay = base + rand_r(&seed) % (base / 2 + 1);
        log_warn("NATS: connect to %s failed transiently on attempt %d/%d (%s) — retrying in %d ms", url, attempt,
                 FQ_NATS_CONNECT_ATTEMPTS, natsStatus_GetText(s), delay);
        if (!s_pause_unless_stopped(config, delay)) {
            log_info("NATS: stop requested while connecting to %s", url);
            return nullptr;
        }
    }
    return nullptr;
}

}  // namespace

uint64_t fq_nats_async_publish_failures(void)
{
    return s_async_publish_failures.load();
}

fq_nats_config* fq_nats_config_new(void)
{
    return fq_connection_config_new();
}

bool fq_nats_connect_status_is_transient(natsStatus s)
{
    // NOT_YET_CONNECTED comes with a live handle that goes on trying by itself.
    return s == NATS_TIMEOUT || s == NATS_NO_SERVER || s == NATS_IO_ERROR || s == NATS_NOT_YET_CONNECTED;
}

const char* fq_nats_conn_status_text(natsConnStatus status)
{
    switch (status) {
    case NATS_CONN_STATUS_CONNECTED:
        return "CONNECTED";
    case NATS_CONN_STATUS_CONNECTING:
        return "CONNECTING";
    case NATS_CONN_STATUS_RECONNECTING:
        return "RECONNECTING";
    case NATS_CONN_STATUS_DISCONNECTED:
        return "DISCONNECTED";
    case NATS_CONN_STATUS_CLOSED:
        return "CLOSED";
    default:
        return "UNKNOWN";
    }
}

int fq_nats_init(fq_nats_config* config)
{
    if (!config || !config->server_url) {
        log_error("NATS: config or server_url is NULL");
        return -1;
    }
    log_debug("cnats library runtime version: %s", nats_GetVersion());

    natsOptions* raw = nullptr;
    natsStatus s = natsOptions_Create(&raw);
    if (s != NATS_OK) {
        log_error("NATS: failed to create options: %s", natsStatus_GetText(s));
        return -1;
    }
    fq_nats_opts_ptr opts(raw);

    const bool tls = s_url_implies_tls(config->server_url);
    log_debug("server_url=%s (scheme implies TLS=%s)", config->server_url, tls ? "yes" : "no");
    if (!s_configure_options(opts.get(), config, tls))
        return -1;

    natsStatus last = NATS_OK;
    natsConnection* conn = s_connect_loop(opts.get(), config, &last);
    config->_connect_status = (int)last;
    opts.reset();
    if (!conn) {
        log_error("NATS: failed to obtain connection handle to %s after %d attempts: %s", config->server_url,
                  FQ_NATS_CONNECT_ATTEMPTS, natsStatus_GetText(last));
        return -1;
    }
    config->_conn = conn;
    s_post_connect_diagnostics(conn, config->server_url, tls);

    jsOptions jo;
    jsOptions_Init(&jo);
    jo.PublishAsync.ErrHandler = s_async_publish_err_cb;
    jsCtx* js = nullptr;
    s = natsConnection_JetStream(&js, conn, &jo);
    if (s == NATS_OK && natsConnection_Status(conn) == NATS_CONN_STATUS_CONNECTED) {
        // The context is local; a broker without JetStream shows only when asked. Nobody
        // answering the API is a definite no; anything else may pass and is left to later calls.
        jsAccountInfo* ai = nullptr;
        const natsStatus probe = js_GetAccountInfo(&ai, js, nullptr, nullptr);
        jsAccountInfo_Destroy(ai);
        if (probe == NATS_NO_RESPONDERS) {
            jsCtx_Destroy(js);
            s = probe;
        }
    }
    if (s != NATS_OK) {
        log_warn("NATS: JetStream init failed: %s — binary data transfer will not work", natsStatus_GetText(s));
        js = nullptr;
    }
    config->_js = js;

    if (config->js_services && *config->js_services)
        log_warn("NATS: js_services=%s is set, but this build sends every request over core request/reply",
                 config->js_services);

    char url[256] = {0};
    natsConnection_GetConnectedUrl(conn, url, sizeof(url) - 1);
    log_info("NATS: connected to %s (user=%s, jetstream=%s)", url, config->user ? config->user : "(none)",
             js ? "yes" : "no");
    return 0;
}

fq_connection_state_t fq_nats_connection_state(const fq_nats_config* config, char* why, size_t n)
{
    if (why && n)
        why[0] = '\0';
    auto* conn = config ? static_cast<natsConnection*>(config->_conn) : nullptr;
    if (!conn) {
        if (why && n)
            snprintf(why, n, "no connection");
        return FQ_CONNECTION_CLOSED;
    }
    const natsConnStatus status = natsConnection_Status(conn);
    if (status == NATS_CONN_STATUS_CONNECTED)
        return FQ_CONNECTION_UP;
    const char* last = nullptr;
    natsStatus s = natsConnection_GetLastError(conn, &last);
    if (s == NATS_OK && config->_connect_status != NATS_OK && config->_connect_status != NATS_NOT_YET_CONNECTED) {
        // Nothing newer from the library: the start-up attempts' own reason still holds.
        s = (natsStatus)config->_connect_status;
        last = nullptr;
    }
    if (why && n)
        snprintf(why, n, "%s%s%s", fq_nats_conn_status_text(status), s != NATS_OK ? ": " : "",
                 s != NATS_OK ? (last && *last ? last : natsStatus_GetText(s)) : "");
    return status == NATS_CONN_STATUS_CLOSED ? FQ_CONNECTION_CLOSED : FQ_CONNECTION_WAITING;
}

void fq_nats_deinit(fq_nats_config* config)
{
    if (!config)
        return;
    int busy = 0;
    if ((fq_nats_serving_threads(&busy) > 0 || fq_nats_connection_holders() > 0) && config->_conn) {
        // A thread still holds the connection and the bucket handles: close the connection, which
        // fails whatever it sends next, and leave the handles to the end of the process.
        natsConnection_Close(static_cast<natsConnection*>(config->_conn));
        log_warn("NATS: closed the connection with %d serving thread(s) (%d busy) and %d other user(s) still running; "
                 "its handles stay until the process ends",
                 fq_nats_serving_threads(nullptr), busy, fq_nats_connection_holders());
        return;
    }
    if (config->_kv_registry) {
        kvStore_Destroy(static_cast<kvStore*>(config->_kv_registry));
        config->_kv_registry = nullptr;
    }
    for (int i = 0; i < FQ_NATS_KV_EXTRA_BUCKETS; ++i) {
        if (config->_kv_extra[i]) {
            kvStore_Destroy(static_cast<kvStore*>(config->_kv_extra[i]));
            config->_kv_extra[i] = nullptr;
            config->_kv_extra_name[i] = nullptr;
        }
    }
    if (config->_kv) {
        kvStore_Destroy(static_cast<kvStore*>(config->_kv));
        config->_kv = nullptr;
    }
    if (config->_js) {
        jsCtx_Destroy(static_cast<jsCtx*>(config->_js));
        config->_js = nullptr;
    }
    if (config->_conn) {
        natsConnection_Close(static_cast<natsConnection*>(config->_conn));
        natsConnection_Destroy(static_cast<natsConnection*>(config->_conn));
        config->_conn = nullptr;
    }
    log_info("NATS: disconnected");
}

// ---- work-queue names and routing ----

bool fq_nats_route_via_work_queue(const fq_nats_config* config, const char* service)
{
    // The JetStream producer is not part of this build: every data request goes over
    // core request/reply. When it comes, this is where js_services decides.
    (void)config;
    (void)service;
    return false;
}

bool fq_nats_wq_service_in_csv(const char* csv, const char* service)
{
    if (!csv || !*csv || !service)
        return false;
    const size_t want = strlen(service);
    const char* p = csv;
    while (*p) {
        while (*p == ',' || *p == ' ' || *p == '\t')
            ++p;
        if (!*p)
            break;
        const char* start = p;
        while (*p && *p != ',')
            ++p;
        const char* end = p;
        while (end > start && (end[-1] == ' ' || end[-1] == '\t'))
            --end;
        if ((size_t)(end - start) == want && memcmp(start, service, want) == 0)
            return true;
    }
    return false;
}

void fq_nats_wq_sanitize(const char* service, char* out, size_t n)
{
    if (!out || n == 0)
        return;
    size_t i = 0;
    for (; service && service[i] && i + 1 < n; ++i)
        out[i] = service[i] == '.' ? '_' : service[i];
    out[i] = '\0';
}

void fq_nats_wq_subject(const char* service, char* out, size_t n)
{
    snprintf(out, n, "jobs.%s", service ? service : "");
}

void fq_nats_wq_stream(const char* service, char* out, size_t n)
{
    char clean[200];
    fq_nats_wq_sanitize(service, clean, sizeof(clean));
    snprintf(out, n, "JOBS_%s", clean);
}

void fq_nats_wq_durable(const char* service, char* out, size_t n)
{
    char clean[200];
    fq_nats_wq_sanitize(service, clean, sizeof(clean));
    snprintf(out, n, "WORK_%s", clean);
}

// ---- core request/reply ----

namespace {

// Parses a reply body; null (and a log line) when it is empty or not JSON.
json_object* s_parse_reply(natsMsg* msg, const char* service, bool trace_payload)
{
    const char* data = natsMsg_GetData(msg);
    const int len = natsMsg_GetDataLength(msg);
    if (!data || len <= 0) {
        log_warn("NATS: received empty reply from %s", service);
        return nullptr;
    }
    if (trace_payload)
        log_trace("NATS: received reply from %s (%d bytes):\n%.*s", service, len, len, data);
    json_tokener* tok = json_tokener_new();
    if (!tok) {
        log_error("NATS: failed to parse reply JSON from %s: %s", service, "out of memory");
        return nullptr;
    }
    json_object* obj = json_tokener_parse_ex(tok, data, len);
    const enum json_tokener_error jerr = json_tokener_get_error(tok);
    if (!obj || jerr != json_tokener_success) {
        // A text that ends before the JSON does (json_tokener_continue) is no reply either.
        log_error("NATS: failed to parse reply JSON from %s: %s", service,
                  json_tokener_error_desc(jerr == json_tokener_success ? json_tokener_continue : jerr));
        json_object_put(obj);
        obj = nullptr;
    }
    json_tokener_free(tok);
    return obj;
}

// Nothing goes on the connection under a name the protocol could misread: the refusal is
// logged once here and handed to the caller as its failure text.
bool s_name_refused(const char* name, fq_nats_name_kind kind, const char* what, char* errormsg)
{
    char why[128];
    if (fq_nats_check_name(name, kind, why, sizeof(why)) == 0)
        return false;
    const std::string shown = fq_nats_printable(name);
    log_error("NATS: refusing %s '%s': it %s", what, shown.c_str(), why);
    s_set_error(errormsg, "NATS: refusing %s '%s': it %s", what, shown.c_str(), why);
    return true;
}

// A request body with "_kv_key" added; the text unchanged when it isn't JSON.
std::string s_body_with_key(const char* json_txt, const char* key)
{
    fq_json_ptr obj(json_tokener_parse(json_txt));
    if (!obj || !json_object_is_type(obj.get(), json_type_object))
        return json_txt;
    json_object_object_add(obj.get(), "_kv_key", json_object_new_string(key));
    return json_object_to_json_string_ext(obj.get(), 0);
}

}  // namespace

json_object* fq_nats_send_recv_json(fq_nats_config* config, const char* service, const char* request_json_txt,
                                    uint32_t timeout_ms, uint32_t retries, char* errormsg)
{
    if (!config || !config->_conn || !service || !request_json_txt) {
        s_set_error(errormsg, "NATS: invalid parameters for send_recv_json");
        return nullptr;
    }
    if (s_name_refused(service, FQ_NAME_SERVICE, "the service name", errormsg))
        return nullptr;
    auto* conn = static_cast<natsConnection*>(config->_conn);
    log_trace("NATS: sending request to %s (timeout: %ums):\n%s", service, timeout_ms, request_json_txt);

    uint64_t attempts = (uint64_t)retries + 1;
    fq_nats_nr_state_t st;
    fq_nats_nr_init(&st);
    while (attempts > 0) {
        natsMsg* raw = nullptr;
        const int64_t t = fq_nats_nr_attempt_timeout_ms(&st, timeout_ms);
        natsStatus s = natsConnection_RequestString(&raw, conn, service, request_json_txt, t);
        fq_nats_msg_ptr reply(raw);
        if (s == NATS_NO_RESPONDERS && fq_nats_nr_should_retry(&st, timeout_ms, service))
            continue;
        if (s == NATS_OK && reply)
            return s_parse_reply(reply.get(), service, true);
        if (s == NATS_TIMEOUT) {
            log_debug("NATS: request to %s timed out after %ums", service, timeout_ms);
            s_set_error(errormsg, "NATS: request to %s timed out", service);
        } else {
            log_error("NATS: request to %s failed: %s", service, natsStatus_GetText(s));
            s_set_error(errormsg, "NATS: request to %s failed: %s", service, natsStatus_GetText(s));
        }
        --attempts;
        if (attempts > 0)
            log_debug("NATS: retrying %s... retries left: %d", service, (int)(attempts - 1));
    }
    return nullptr;
}

json_object* fq_nats_send_recv_json_data(fq_nats_config* config, const char* service, fq_const_request_reply_t* rr,
                                         uint64_t timeout_ms, uint64_t extra_timeout_ms, uint32_t retries,
                                         char* errormsg)
{
    if (!config || !config->_conn || !service || !rr || !rr->request || !rr->request->json_txt) {
        s_set_error(errormsg, "NATS: invalid parameters for send_recv_json_data");
        return nullptr;
    }
    if (s_name_refused(service, FQ_NAME_SERVICE, "the service name", errormsg))
        return nullptr;
    if (rr->request->staged_data_key && *rr->request->staged_data_key &&
        s_name_refused(rr->request->staged_data_key, FQ_NAME_KV_KEY, "the staged key", errormsg))
        return nullptr;
    auto* conn = static_cast<natsConnection*>(config->_conn);
    const fq_const_message_t* req = rr->request;
    const uint64_t total_ms = timeout_ms + extra_timeout_ms;

    // The payload travels through the KV store; only its key goes into the request.
    const char* key = nullptr;
    char own_key[128] = "";
    bool owns_key = false;
    if (req->staged_data_key && *req->staged_data_key) {
        key = req->staged_data_key;
    } else if (req->data && req->data_len > 0) {
        generate_unique_key(own_key, sizeof(own_key));
        if (kvstore_put_chunked(config, own_key, req->data, req->data_len, fq_kv_ttl_ms_for((int64_t)total_ms)) !=
            0) {
            s_set_error(errormsg, "NATS: failed to store binary data in KV store");
            return nullptr;
        }
        key = own_key;
        owns_key = true;
    }
    const std::string body = key ? s_body_with_key(req->json_txt, key) : std::string(req->json_txt);

    const bool use_js = fq_nats_route_via_work_queue(config, service);
    (void)use_js;  // no producer in this build: always core
    uint64_t attempts = (uint64_t)retries + 1;

    json_object* result = nullptr;
    fq_nats_nr_state_t st;
    fq_nats_nr_init(&st);
    while (attempts > 0) {
        natsMsg* raw = nullptr;
        const int64_t t = fq_nats_nr_attempt_timeout_ms(&st, (int64_t)total_ms);
        natsStatus s = natsConnection_RequestString(&raw, conn, service, body.c_str(), t);
        fq_nats_msg_ptr reply(raw);
        if (s == NATS_NO_RESPONDERS && fq_nats_nr_should_retry(&st, (int64_t)timeout_ms, service))
            continue;
        if (s == NATS_OK && reply) {
            result = s_parse_reply(reply.get(), service, false);
            break;
        }
        if (s == NATS_TIMEOUT) {
            log_debug("NATS: request to %s timed out after %lums", service, (unsigned long)total_ms);
            s_set_error(errormsg, "NATS: request to %s timed out", service);
        } else {
            log_error("NATS: request to %s failed: %s", service, natsStatus_GetText(s));
            s_set_error(errormsg, "NATS: request to %s failed: %s", service, natsStatus_GetText(s));
        }
        --attempts;
        if (attempts > 0)
            log_debug("NATS: retrying %s... retries left: %d", service, (int)(attempts - 1));
    }

    // Without a reply the receiver may still be reading: the entry's TTL removes it then.
    if (owns_key && result)
        kvstore_delete_chunked(config, own_key);
    if (rr->reply && rr->reply->json_txt) {
        free(rr->reply->json_txt);
        rr->reply->json_txt = nullptr;
    }
    return result;
}

int fq_nats_simple_request(fq_nats_config* config, const char* service, const char* request_json_txt,
                           uint32_t timeout_ms, int32_t retries, char* errormsg)
{
    // A negative count means no extra attempt, not four billion of them.
    const uint32_t extra = retries < 0 ? 0u : (uint32_t)retries;
    fq_json_ptr reply(fq_nats_send_recv_json(config, service, request_json_txt, timeout_ms, extra, errormsg));
    if (!reply)
        return -1;
    json_object* rc = nullptr;
    if (!json_object_object_get_ex(reply.get(), "ReturnCode", &rc))
        return -1;
    return json_object_get_int(rc);
}
