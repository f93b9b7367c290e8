// fq-av-gateway: the reference HTTP gateway, the way in for clients that cannot reach the broker.
// It takes one multipart POST per request (the request JSON, the object's bytes if any, the target
// service in X-Target-Service), stages the bytes in fq-av-scan-data, sends the request to that
// service over NATS and returns the service's JSON reply as the body of a 200. It faces the
// internet: the head of a request is judged before its body is read, bodies and the number of
// requests at once are bounded, slow clients are cut off, and a request that could not be forwarded
// or answered never gets a 200: it gets the HTTP status that says why, with a SERVICE_ERROR body.
#include <arpa/inet.h>
#include <errno.h>
#include <microhttpd.h>
#include <nats/nats.h>
#include <netinet/in.h>
#include <sodium.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <new>
#include <string>
#include <vector>

#include "fq_nats_names.h"
#include "fq_raii.h"
#include "fqhlp-string.h"
#include "gateway_request.h"
#include "log.h"
#include "peer_common.h"

namespace {

// What a stop gives requests in work before it pulls the broker connection from under them.
constexpr int64_t s_stop_grace_ms = 1000;

struct Settings {
    std::string listen = "127.0.0.1:8080";
    std::string tls_cert;
    std::string tls_key;
    std::string auth_file;
    std::string services;
    int64_t forward_timeout_ms = 60000;
    int64_t read_timeout_ms = 30000;
};

struct Gateway {
    fqgw::Policy policy;
    fq_connection_config* cfg = nullptr;
    int64_t forward_timeout_ms = 0;
    int64_t read_timeout_ms = 0;
    int max_requests = 0;
    std::atomic<int> in_flight{0};
};

// One HTTP request from its head to its completion.
struct RequestCtx {
    bool has_slot = false;
    bool answered = false;  // a response is queued; anything still arriving is dropped
    int64_t deadline_ms = 0;
    fqgw::Refusal pending;  // the answer once the rest of the body has been dropped
    std::string service;
    std::string boundary;
    std::vector<unsigned char> body;
};

int64_t s_now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

bool s_read_text_file(const std::string& path, std::string* out, std::string* error)
{
    fq_file_ptr f(fopen(path.c_str(), "rb"));
    if (!f) {
        *error = path + ": " + strerror(errno);
        return false;
    }
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), f.get())) > 0) {
        out->append(buf, n);
        if (out->size() > 1024 * 1024) {
            *error = path + ": larger than 1 MiB";
            return false;
        }
    }
    return true;
}

// "user:password" on the first line of the file; only their hash stays in memory.
bool s_load_credentials(const std::string& path, fqgw::Policy* policy, std::string* error)
{
    std::string text;
    if (!s_read_text_file(path, &text, error))
        return false;
    const size_t end = std::min(text.find_first_of("\r\n"), text.size());
    const size_t colon = text.find(':');
    const bool ok = colon != std::string::npos && colon > 0 && colon < end;
    if (ok) {
        std::string user = text.substr(0, colon);
        std::string password = text.substr(colon + 1, end - colon - 1);
        fqgw::set_credentials(policy, user, password);
        sodium_memzero(password.data(), password.size());
    } else {
        *error = path + ": expected one line user:password";
    }
    sodium_memzero(text.data(), text.size());
    return ok;
}

bool s_parse_listen(const std::string& listen, struct sockaddr_storage* addr, bool* ipv6)
{
    const size_t colon = listen.rfind(':');
    if (colon == std::string::npos)
        return false;
    std::string host = listen.substr(0, colon);
    int64_t port = 0;
    if (!peer_parse_int(listen.c_str() + colon + 1, 0, 65535, &port))
        return false;
    memset(addr, 0, sizeof(*addr));
    *ipv6 = host.size() > 2 && host.front() == '[' && host.back() == ']';
    if (*ipv6) {
        auto* a6 = reinterpret_cast<struct sockaddr_in6*>(addr);
        a6->sin6_family = AF_INET6;
        a6->sin6_port = htons((uint16_t)port);
        return inet_pton(AF_INET6, host.substr(1, host.size() - 2).c_str(), &a6->sin6_addr) == 1;
    }
    auto* a4 = reinterpret_cast<struct sockaddr_in*>(addr);
    a4->sin_family = AF_INET;
    a4->sin_port = htons((uint16_t)port);
    return inet_pton(AF_INET, host.c_str(), &a4->sin_addr) == 1;
}

std::vector<std::string> s_split_list(const std::string& csv)
{
    std::vector<std::string> out;
    size_t pos = 0;
    while (pos <= csv.size()) {
        const size_t comma = csv.find(',', pos);
        const std::string item = csv.substr(pos, comma == std::string::npos ? std::string::npos : comma - pos);
        if (!item.empty())
            out.push_back(item);
        if (comma == std::string::npos)
            break;
        pos = comma + 1;
    }
    return out;
}

MHD_Result s_collect_header(void* cls, enum MHD_ValueKind kind, const char* key, const char* value)
{
    (void)kind;
    static_cast<std::vector<fqgw::Header>*>(cls)->push_back({key ? key : "", value ? value : ""});
    return MHD_YES;
}

MHD_Result s_respond(struct MHD_Connection* conn, RequestCtx* ctx, int status, const std::string& body,
                     const char* header = nullptr, const char* header_value = nullptr)
{
    struct MHD_Response* resp =
        MHD_create_response_from_buffer(body.size(), const_cast<char*>(body.data()), MHD_RESPMEM_MUST_COPY);
    if (!resp)
        return MHD_NO;
    MHD_add_response_header(resp, MHD_HTTP_HEADER_CONTENT_TYPE, "application/json");
    if (header)
        MHD_add_response_header(resp, header, header_value);
    const MHD_Result queued = MHD_queue_response(conn, (unsigned)status, resp);
    MHD_destroy_response(resp);
    if (queued == MHD_YES)
        ctx->answered = true;
    return queued;
}

// A refusal: its status, and a body that no client can take for a verdict.
MHD_Result s_refuse(struct MHD_Connection* conn, RequestCtx* ctx, const fqgw::Refusal& r)
{
    const char* service = ctx->service.empty() ? "(no service)" : ctx->service.c_str();
    if (r.status >= 500)
        log_error("fq-av-gateway: %d for %s: %s", r.status, service, r.text.c_str());
    else
        log_warn("fq-av-gateway: %d for %s: %s", r.status, service, r.text.c_str());
    fq_json_ptr body(json_object_new_object());
    if (!body)
        return MHD_NO;
    json_object_object_add(body.get(), "ReturnCode", json_object_new_int(-1000));
    json_object_object_add(body.get(), "Error", json_object_new_string(r.text.c_str()));
    const std::string text = json_object_to_json_string_ext(body.get(), JSON_C_TO_STRING_PLAIN);
    if (r.status == 401)
        return s_respond(conn, ctx, r.status, text, MHD_HTTP_HEADER_WWW_AUTHENTICATE, "Basic realm=\"fq-av-gateway\"");
    if (r.status == 405)
        return s_respond(conn, ctx, r.status, text, MHD_HTTP_HEADER_ALLOW, "POST");
    if (r.status == 503)
        return s_respond(conn, ctx, r.status, text, MHD_HTTP_HEADER_RETRY_AFTER, "1");
    return s_respond(conn, ctx, r.status, text);
}

MHD_Result s_forward(Gateway* gw, struct MHD_Connection* conn, RequestCtx* ctx, const fqgw::Forward& f)
{
    fq_const_rr_ptr rr(fq_const_request_reply_new());
    if (!rr)
        return s_refuse(conn, ctx, {500, "out of memory"});
    rr->request->json_txt = f.request.c_str();
    char err[1024] = "";
    // Staged here rather than by the request, so that it goes again however the forward ends: a
    // service still reading it after a time-out would answer nobody.
    fq_staged_key staging(gw->cfg);
    if (f.payload_len > 0) {
        if (fq_connection_stage_scan_data(gw->cfg, f.payload, f.payload_len, (uint64_t)gw->forward_timeout_ms,
                                          &staging.key, err) != 0 ||
            !staging.key)
            return s_refuse(conn, ctx, {503, std::string("the payload could not be staged: ") +
                                                 (err[0] ? err : "the store refused it")});
        rr->request->staged_data_key = staging.key;
    }
    log_debug("fq-av-gateway: forwarding to %s (%zu bytes of payload)", ctx->service.c_str(), f.payload_len);
    fq_json_ptr reply(fq_connection_send_recv_json_data(gw->cfg, ctx->service.c_str(), rr.get(),
                                                        (uint64_t)gw->forward_timeout_ms, 0, 0, err));
    free(rr->reply->json_txt);
    rr->reply->json_txt = nullptr;
    if (!reply) {
        if (!err[0])
            return s_refuse(conn, ctx, {502, "the reply of " + ctx->service + " was empty or not JSON"});
        return s_refuse(conn, ctx, {strstr(err, "timed out") ? 504 : 502, err});
    }
    const char* text =
        json_object_to_json_string_ext(reply.get(), JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
    if (!text)
        return s_refuse(conn, ctx, {500, "out of memory"});
    return s_respond(conn, ctx, 200, text);
}

MHD_Result s_access(void* cls, struct MHD_Connection* conn, const char* url, const char* method,
                    const char* version, const char* upload_data, size_t* upload_data_size, void** con_cls)
{
    (void)version;
    auto* gw = static_cast<Gateway*>(cls);
    auto* ctx = static_cast<RequestCtx*>(*con_cls);
    if (!ctx) {
        // The head: everything that can be judged before a byte of the body is read.
        ctx = new (std::nothrow) RequestCtx;
        if (!ctx)
            return MHD_NO;
        *con_cls = ctx;
        ctx->deadline_ms = s_now_ms() + gw->read_timeout_ms;
        fqgw::Head head{method ? method : "", url ? url : "", {}};
        MHD_get_connection_values(conn, MHD_HEADER_KIND, s_collect_header, &head.headers);
        if (fqgw::Refusal r = fqgw::check_head(gw->policy, head, &ctx->service, &ctx->boundary))
            return s_refuse(conn, ctx, r);
        if (gw->in_flight.fetch_add(1) >= gw->max_requests) {
            gw->in_flight.fetch_sub(1);
            return s_refuse(conn, ctx, {503, "too many requests at once"});
        }
        ctx->has_slot = true;
        // Checked against --max-body with the head: the body is kept in one allocation.
        if (const char* len = MHD_lookup_connection_value(conn, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH))
            ctx->body.reserve((size_t)strtoull(len, nullptr, 10));
        char why[512] = "";
        if (fq_connection_state(gw->cfg, why, sizeof(why)) != FQ_CONNECTION_UP)
            return s_refuse(conn, ctx, {503, std::string("the broker is not reachable: ") + why});
        return MHD_YES;
    }
    if (ctx->answered) {
        *upload_data_size = 0;
        return MHD_YES;
    }
    if (*upload_data_size > 0) {
        // The server lets us answer only once the body is in: a client too slow for the limit is
        // cut off, and one that sends too much is read to its end without keeping anything.
        if (s_now_ms() > ctx->deadline_ms) {
            log_warn("fq-av-gateway: request for %s did not arrive within %lld ms; connection closed",
                     ctx->service.c_str(), (long long)gw->read_timeout_ms);
            return MHD_NO;
        }
        if (!ctx->pending && ctx->body.size() + *upload_data_size > gw->policy.max_body) {
            ctx->pending = {413, "request body larger than " + std::to_string(gw->policy.max_body) + " bytes"};
            std::vector<unsigned char>().swap(ctx->body);
        }
        if (!ctx->pending)
            ctx->body.insert(ctx->body.end(), upload_data, upload_data + *upload_data_size);
        *upload_data_size = 0;
        return MHD_YES;
    }
    if (ctx->pending)
        return s_refuse(conn, ctx, ctx->pending);
    // The whole body is here.
    fqgw::Forward f;
    if (fqgw::Refusal r = fqgw::read_body(ctx->boundary, ctx->body.data(), ctx->body.size(), &f))
        return s_refuse(conn, ctx, r);
    return s_forward(gw, conn, ctx, f);
}

void s_completed(void* cls, struct MHD_Connection* conn, void** con_cls, enum MHD_RequestTerminationCode toe)
{
    (void)conn;
    (void)toe;
    auto* gw = static_cast<Gateway*>(cls);
    auto* ctx = static_cast<RequestCtx*>(*con_cls);
    if (!ctx)
        return;
    if (ctx->has_slot)
        gw->in_flight.fetch_sub(1);
    delete ctx;
    *con_cls = nullptr;
}

void s_mhd_log(void* cls, const char* fmt, va_list ap)
{
    (void)cls;
    char text[1024];
    vsnprintf(text, sizeof(text), fmt, ap);
    const size_t n = strcspn(text, "\r\n");
    log_warn("fq-av-gateway: http server: %.*s", (int)n, text);
}

}  // namespace

int main(int argc, char** argv)
{
    Settings set;
    int64_t max_body = (int64_t)fqgw::kDefaultMaxBody;
    std::string path = "/vsi";
    peer_program_t program{
        "fq-av-gateway",
        "[options]",
        "An HTTP gateway to the services on the broker. Each request is one POST of multipart/form-data\n"
        "to the path (default /vsi) with the part \"request\" (a JSON object), optionally the part\n"
        "\"payload\" (the object's bytes, staged in fq-av-scan-data), and the header X-Target-Service\n"
        "naming the service; the service's JSON reply is the body of a 200. Failures get their HTTP\n"
        "status and {\"ReturnCode\": -1000, \"Error\": ...}. --threads is the number of requests handled\n"
        "at once; more are answered 503.",
        {
            {"listen", "ADDR:PORT", "address to listen on (default 127.0.0.1:8080; [::1]:8080 for IPv6)",
             [&](const char* v) { return (set.listen = v).size() > 0; }},
            {"path", "PATH", "path of the gateway (default /vsi)",
             [&](const char* v) { return *v == '/' && (path = fqgw::normalise_path(v)).size() > 0; }},
            {"tls-cert", "FILE", "certificate chain (PEM): serve HTTPS; needs --tls-key",
             [&](const char* v) { return (set.tls_cert = v).size() > 0; }},
            {"tls-key", "FILE", "private key (PEM) of the certificate",
             [&](const char* v) { return (set.tls_key = v).size() > 0; }},
            {"auth-file", "FILE", "require Basic authentication with the user:password on its first line",
             [&](const char* v) { return (set.auth_file = v).size() > 0; }},
            {"services", "LIST", "comma-separated services clients may name (default: any)",
             [&](const char* v) { return (set.services = v).size() > 0; }},
            {"max-body", "BYTES", "largest request body, suffix K, M or G (default 32M, largest 2G)",
             [&](const char* v) { return fqhlp_parse_size(v, 1LL << 31, &max_body) && max_body > 0; }},
            {"forward-timeout", "D", "wait this long for the service's reply (default 60s)",
             [&](const char* v) {
                 return peer_parse_duration_ms(v, &set.forward_timeout_ms) && set.forward_timeout_ms > 0;
             }},
            {"read-timeout", "D", "a request must arrive whole within this time (default 30s)",
             [&](const char* v) {
                 return peer_parse_duration_ms(v, &set.read_timeout_ms) && set.read_timeout_ms >= 1000;
             }},
        },
    };
    peer_options_t opts;
    const int rc = peer_parse_command_line(argc, argv, program, &opts);
    if (rc >= 0)
        return rc;

    Gateway gw;
    gw.policy.path = path;
    gw.policy.max_body = (size_t)max_body;
    gw.forward_timeout_ms = set.forward_timeout_ms;
    gw.read_timeout_ms = set.read_timeout_ms;
    gw.max_requests = opts.threads;
    std::string error;
    if (sodium_init() < 0) {
        fprintf(stderr, "fq-av-gateway: libsodium cannot be initialised\n");
        return PEER_EXIT_USAGE;
    }
    for (const std::string& s : s_split_list(set.services)) {
        char why[256];
        if (fq_nats_check_name(s.c_str(), FQ_NAME_SERVICE, why, sizeof(why)) != 0) {
            fprintf(stderr, "fq-av-gateway: --services: '%s' is no service name: %s\n", s.c_str(), why);
            return PEER_EXIT_USAGE;
        }
        gw.policy.services.push_back(s);
    }
    if (!set.auth_file.empty() && !s_load_credentials(set.auth_file, &gw.policy, &error)) {
        fprintf(stderr, "fq-av-gateway: --auth-file %s\n", error.c_str());
        return PEER_EXIT_USAGE;
    }
    const bool tls = !set.tls_cert.empty() || !set.tls_key.empty();
    std::string cert, key;
    if (tls) {
        if (set.tls_cert.empty() || set.tls_key.empty()) {
            fprintf(stderr, "fq-av-gateway: HTTPS needs both --tls-cert and --tls-key\n");
            return PEER_EXIT_USAGE;
        }
        if (MHD_is_feature_supported(MHD_FEATURE_TLS) != MHD_YES) {
            fprintf(stderr, "fq-av-gateway: this libmicrohttpd has no TLS\n");
            return PEER_EXIT_USAGE;
        }
        if (!s_read_text_file(set.tls_cert, &cert, &error) || !s_read_text_file(set.tls_key, &key, &error)) {
            fprintf(stderr, "fq-av-gateway: %s\n", error.c_str());
            return PEER_EXIT_USAGE;
        }
    }
    struct sockaddr_storage addr;
    bool ipv6 = false;
    if (!s_parse_listen(set.listen, &addr, &ipv6)) {
        fprintf(stderr, "fq-av-gateway: --listen '%s' is no ADDR:PORT with a numeric address\n", set.listen.c_str());
        return PEER_EXIT_USAGE;
    }

    const int connected = peer_connect(program, opts, true, &gw.cfg);
    if (connected >= 0)
        return connected;

    // One thread per connection: a forward blocks its thread for up to --forward-timeout. The
    // connection limit bounds those threads; the request limit (503 beyond it) bounds the memory.
    std::vector<struct MHD_OptionItem> mo = {
        {MHD_OPTION_EXTERNAL_LOGGER, (intptr_t)s_mhd_log, nullptr},
        {MHD_OPTION_SOCK_ADDR, 0, &addr},
        {MHD_OPTION_CONNECTION_LIMIT, (intptr_t)(opts.threads * 4 + 16), nullptr},
        {MHD_OPTION_CONNECTION_TIMEOUT, (intptr_t)((set.read_timeout_ms + 999) / 1000), nullptr},
        {MHD_OPTION_NOTIFY_COMPLETED, (intptr_t)s_completed, &gw},
    };
    if (tls) {
        mo.push_back({MHD_OPTION_HTTPS_MEM_CERT, 0, const_cast<char*>(cert.c_str())});
        mo.push_back({MHD_OPTION_HTTPS_MEM_KEY, 0, const_cast<char*>(key.c_str())});
    }
    mo.push_back({MHD_OPTION_END, 0, nullptr});
    unsigned flags = MHD_USE_INTERNAL_POLLING_THREAD | MHD_USE_THREAD_PER_CONNECTION | MHD_USE_ERROR_LOG | MHD_USE_ITC;
    if (tls)
        flags |= MHD_USE_TLS;
    if (ipv6)
        flags |= MHD_USE_IPv6;
    struct MHD_Daemon* daemon =
        MHD_start_daemon(flags, 0, nullptr, nullptr, s_access, &gw, MHD_OPTION_ARRAY, mo.data(), MHD_OPTION_END);
    sodium_memzero(key.data(), key.size());
    if (!daemon) {
        fprintf(stderr, "fq-av-gateway: cannot listen on %s%s\n", set.listen.c_str(),
                tls ? " (or the certificate and key are not usable)" : "");
        peer_disconnect(gw.cfg);
        return PEER_EXIT_USAGE;
    }
    const union MHD_DaemonInfo* info = MHD_get_daemon_info(daemon, MHD_DAEMON_INFO_BIND_PORT);
    const std::string host = set.listen.substr(0, set.listen.rfind(':'));
    log_info("fq-av-gateway: listening on %s://%s:%u%s, forwarding to %s", tls ? "https" : "http", host.c_str(),
             info ? (unsigned)info->port : 0u, path.c_str(), opts.broker.c_str());

    const int status = peer_wait_for_stop(program, gw.cfg, PEER_EXIT_OK);

    // No new connections; requests in work get a moment, then the broker connection is closed
    // under those still waiting for a service, which answers them at once with a failure.
    const MHD_socket listener = MHD_quiesce_daemon(daemon);
    const int64_t deadline = s_now_ms() + s_stop_grace_ms;
    while (gw.in_flight.load() > 0 && s_now_ms() < deadline) {
        struct timespec ts = {0, 20 * 1000000L};
        nanosleep(&ts, nullptr);
    }
    if (gw.in_flight.load() > 0 && gw.cfg->_conn)
        natsConnection_Close(static_cast<natsConnection*>(gw.cfg->_conn));
    MHD_stop_daemon(daemon);
    if (listener != MHD_INVALID_SOCKET)
        close(listener);  // ours since the quiesce, and only once the server's threads are gone
    peer_disconnect(gw.cfg);
    log_info("fq-av-gateway: stopped");
    return status;
}
