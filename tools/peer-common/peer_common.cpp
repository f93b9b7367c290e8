// What the reference peers have in common: the command line, the bounded wait for the broker at
// start, serving one subject in a queue group with several threads, and the orderly stop on SIGTERM or
// SIGINT. A peer waits for its serving threads to finish their request before it closes the connection
// they use, and its exit status says why it ended (usage, broker, connection lost).
#include "peer_common.h"

#include "fq_service_manager.h"

#include <dirent.h>
#include <errno.h>
#include <getopt.h>
#include <nats/nats.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#include <time.h>

#include <set>

#include "fq_connection_client.h"
#include "fq_nats_client.h"
#include "fqhlp_replies.h"
#include "log.h"

fq_stop_flag_t peer_stop{0};

namespace {

// How long the serving threads get to finish what they are doing once the stop flag is set:
// each leaves within half a second after its current request.
constexpr int64_t s_stop_grace_ms = 10000;
constexpr int64_t s_probe_pause_ms = 250;

void s_on_stop_signal(int)
{
    peer_stop = 1;
}

int64_t s_now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

// Sleeps, but returns early once a stop was asked for.
void s_pause_ms(int64_t ms)
{
    const int64_t until = s_now_ms() + ms;
    while (!peer_stop) {
        const int64_t left = until - s_now_ms();
        if (left <= 0)
            return;
        const int64_t step = left < 50 ? left : 50;
        struct timespec ts = {0, (long)step * 1000000L};
        nanosleep(&ts, nullptr);
    }
}

void s_install_signals()
{
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = s_on_stop_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

void s_print_option(FILE* out, const char* shortname, const char* name, const char* arg, const char* help)
{
    std::string left = shortname ? std::string("  -") + shortname + ", --" + name : std::string("      --") + name;
    if (arg)
        left += std::string(" ") + arg;
    if (left.size() < 30)
        left.resize(30, ' ');
    else
        left += "  ";
    fprintf(out, "%s%s\n", left.c_str(), help);
}

void s_usage(FILE* out, const peer_program_t& program)
{
    fprintf(out, "Usage: %s %s\n%s\n\nOptions:\n", program.name, program.synopsis, program.description);
    for (const auto& o : program.options)
        s_print_option(out, nullptr, o.name, o.arg, o.help);
    s_print_option(out, "b", "broker", "URL", "broker URL (default nats://127.0.0.1:4222); host:port means tls://host:port");
    s_print_option(out, "u", "user", "NAME", "user name at the broker");
    s_print_option(out, "p", "password", "TEXT", "password at the broker");
    s_print_option(out, "c", "broker-cert", "FILE", "CA certificate that signed the broker's certificate");
    s_print_option(out, "t", "threads", "N", "serving threads, 1..256 (default 4)");
    s_print_option(out, "w", "wait", "D", "wait this long for the broker at start (default 10s)");
    s_print_option(out, "l", "log-level", "N", "0 off .. 6 trace, on stderr (default 4, info)");
    s_print_option(out, "h", "help", nullptr, "this text");
    fprintf(out,
            "\nDurations D are numbers with an optional unit: ms, s (the default), m, h or d.\n"
            "SIGTERM or SIGINT stops the program in order (exit status 0).\n"
            "Exit status: 1 for a usage or set-up error, 2 when the broker cannot be reached or refuses\n"
            "at start, 3 when the connection to the broker is lost for good while serving.\n");
}

// The ids of the process's threads right now.
std::set<long> s_thread_ids()
{
    std::set<long> ids;
    DIR* d = opendir("/proc/self/task");
    if (!d)
        return ids;
    while (struct dirent* e = readdir(d)) {
        char* end = nullptr;
        const long id = strtol(e->d_name, &end, 10);
        if (end != e->d_name && *end == '\0')
            ids.insert(id);
    }
    closedir(d);
    return ids;
}

// One connection attempt without the facade's own retries, so that the wait stays ours.
natsStatus s_probe(const peer_options_t& opts, int64_t timeout_ms, std::string* error)
{
    natsOptions* o = nullptr;
    natsStatus s = natsOptions_Create(&o);
    if (s != NATS_OK) {
        *error = natsStatus_GetText(s);
        return s;
    }
    natsOptions_SetURL(o, opts.broker.c_str());
    natsOptions_SetSendAsap(o, true);
    natsOptions_SetAllowReconnect(o, false);
    natsOptions_SetTimeout(o, timeout_ms);
    if (!opts.user.empty())
        natsOptions_SetUserInfo(o, opts.user.c_str(), opts.password.c_str());
    if (opts.broker.rfind("tls://", 0) == 0 || opts.broker.rfind("wss://", 0) == 0)
        s = natsOptions_SetSecure(o, true);
    if (s == NATS_OK && !opts.ca_file.empty())
        s = natsOptions_LoadCATrustedCertificates(o, opts.ca_file.c_str());
    natsConnection* nc = nullptr;
    if (s == NATS_OK)
        s = natsConnection_Connect(&nc, o);
    if (s != NATS_OK) {
        const char* last = nats_GetLastError(nullptr);
        *error = natsStatus_GetText(s);
        // The library's last error often only repeats the status.
        if (last && *last && !strstr(last, error->c_str()))
            *error += std::string(" — ") + last;
    }
    if (nc) {
        natsConnection_Close(nc);
        natsConnection_Destroy(nc);
    }
    natsOptions_Destroy(o);
    return s;
}

// 0 once the broker answers, 1 if a stop came first, -1 (with the reason) otherwise.
int s_wait_for_broker(const peer_options_t& opts, std::string* error)
{
    const int64_t deadline = s_now_ms() + opts.wait_ms;
    for (;;) {
        const int64_t left = deadline - s_now_ms();
        const int64_t timeout = left < 200 ? 200 : (left > 2000 ? 2000 : left);
        const natsStatus s = s_probe(opts, timeout, error);
        if (s == NATS_OK)
            return 0;
        if (!fq_nats_connect_status_is_transient(s))
            return -1;
        if (s_now_ms() >= deadline)
            return -1;
        s_pause_ms(s_probe_pause_ms);
        if (peer_stop)
            return 1;
    }
}

char* s_dup_or_null(const std::string& s)
{
    return s.empty() ? nullptr : strdup(s.c_str());
}

void s_free_config(fq_connection_config* cfg)
{
    if (!cfg)
        return;
    free(cfg->server_url);
    free(cfg->user);
    free(cfg->password);
    free(cfg->cert_path);
    free(cfg);
}

bool s_connected(fq_connection_config* cfg)
{
    return cfg->_conn && natsConnection_Status(static_cast<natsConnection*>(cfg->_conn)) == NATS_CONN_STATUS_CONNECTED;
}

bool s_closed(fq_connection_config* cfg)
{
    return !cfg->_conn || natsConnection_IsClosed(static_cast<natsConnection*>(cfg->_conn));
}

}  // namespace

bool peer_parse_duration_ms(const char* text, int64_t* out)
{
    if (!text || !*text)
        return false;
    errno = 0;
    char* end = nullptr;
    const double v = strtod(text, &end);
    if (errno != 0 || end == text || !(v >= 0))
        return false;
    double factor;
    if (strcmp(end, "ms") == 0)
        factor = 1;
    else if (strcmp(end, "s") == 0 || *end == '\0')
        factor = 1000;
    else if (strcmp(end, "m") == 0)
        factor = 60000;
    else if (strcmp(end, "h") == 0)
        factor = 3600000;
    else if (strcmp(end, "d") == 0)
        factor = 86400000;
    else
        return false;
    const double ms = v * factor;
    if (ms > 9.2e15)
        return false;
    *out = (int64_t)ms;
    return true;
}

bool peer_parse_int(const char* text, int64_t min, int64_t max, int64_t* out)
{
    if (!text || !*text)
        return false;
    errno = 0;
    char* end = nullptr;
    const long long v = strtoll(text, &end, 10);
    if (errno != 0 || *end != '\0' || v < min || v > max)
        return false;
    *out = v;
    return true;
}

int peer_parse_command_line(int argc, char** argv, const peer_program_t& program, peer_options_t* opts)
{
    fq__progname = program.name;
    enum { OPT_PROGRAM_BASE = 1000 };
    std::vector<struct option> longs = {
        {"broker", required_argument, nullptr, 'b'},  {"user", required_argument, nullptr, 'u'},
        {"password", required_argument, nullptr, 'p'}, {"broker-cert", required_argument, nullptr, 'c'},
        {"threads", required_argument, nullptr, 't'}, {"wait", required_argument, nullptr, 'w'},
        {"log-level", required_argument, nullptr, 'l'}, {"help", no_argument, nullptr, 'h'},
    };
    for (size_t i = 0; i < program.options.size(); ++i)
        longs.push_back({program.options[i].name, program.options[i].arg ? required_argument : no_argument, nullptr,
                         OPT_PROGRAM_BASE + (int)i});
    longs.push_back({nullptr, 0, nullptr, 0});

    optind = 1;
    int c;
    while ((c = getopt_long(argc, argv, "b:u:p:c:t:w:l:h", longs.data(), nullptr)) != -1) {
        bool ok = true;
        int64_t n = 0;
        const char* what = nullptr;
        switch (c) {
        case 'b':
            opts->broker = *optarg ? fq_connection_endpoint_url(optarg) : "";
            ok = !opts->broker.empty();
            what = "broker";
            break;
        case 'u':
            opts->user = optarg;
            break;
        case 'p':
            opts->password = optarg;
            break;
        case 'c':
            opts->ca_file = optarg;
            break;
        case 't':
            ok = peer_parse_int(optarg, 1, 256, &n);
            opts->threads = (int)n;
            what = "threads";
            break;
        case 'w':
            ok = peer_parse_duration_ms(optarg, &opts->wait_ms);
            what = "wait";
            break;
        case 'l':
            ok = peer_parse_int(optarg, 0, 6, &n);
            opts->log_level = (int)n;
            what = "log-level";
            break;
        case 'h':
            s_usage(stdout, program);
            return PEER_EXIT_OK;
        default:
            if (c >= OPT_PROGRAM_BASE && c < OPT_PROGRAM_BASE + (int)program.options.size()) {
                const peer_option_t& o = program.options[(size_t)(c - OPT_PROGRAM_BASE)];
                ok = o.apply(o.arg ? optarg : nullptr);
                what = o.name;
                break;
            }
            fprintf(stderr, "%s: see --help for the options\n", program.name);
            return PEER_EXIT_USAGE;
        }
        if (!ok) {
            fprintf(stderr, "%s: invalid value '%s' for --%s\n", program.name, optarg ? optarg : "", what);
            return PEER_EXIT_USAGE;
        }
    }
    if (optind < argc) {
        fprintf(stderr, "%s: unexpected argument '%s' (see --help)\n", program.name, argv[optind]);
        return PEER_EXIT_USAGE;
    }
    return -1;
}

int peer_connect(const peer_program_t& program, const peer_options_t& opts, bool needs_jetstream,
                 fq_connection_config** out)
{
    *out = nullptr;
    log_set_level(opts.log_level);
    s_install_signals();

    std::string error;
    const int waited = s_wait_for_broker(opts, &error);
    if (waited == 1)
        return PEER_EXIT_OK;
    if (waited != 0) {
        fprintf(stderr, "%s: cannot reach the broker at %s: %s (waited %lld ms)\n", program.name, opts.broker.c_str(),
                error.c_str(), (long long)opts.wait_ms);
        return PEER_EXIT_BROKER;
    }

    fq_connection_config* cfg = fq_connection_config_new();
    if (!cfg) {
        fprintf(stderr, "%s: out of memory\n", program.name);
        return PEER_EXIT_USAGE;
    }
    cfg->server_url = strdup(opts.broker.c_str());
    cfg->user = s_dup_or_null(opts.user);
    cfg->password = s_dup_or_null(opts.password);
    cfg->cert_path = s_dup_or_null(opts.ca_file);
    cfg->stop_flag = &peer_stop;
    if (fq_connection_init(cfg) != 0 || !s_connected(cfg)) {
        fprintf(stderr, "%s: cannot connect to the broker at %s (see the log above)\n", program.name,
                opts.broker.c_str());
        peer_disconnect(cfg);
        return PEER_EXIT_BROKER;
    }
    if (needs_jetstream && !cfg->_js) {
        fprintf(stderr, "%s: the broker at %s has no JetStream, so staged objects cannot be read\n", program.name,
                opts.broker.c_str());
        peer_disconnect(cfg);
        return PEER_EXIT_BROKER;
    }
    *out = cfg;
    return -1;
}

void peer_disconnect(fq_connection_config* cfg)
{
    if (!cfg)
        return;
    fq_connection_deinit(cfg);
    s_free_config(cfg);
}

int peer_wait_for_stop(const peer_program_t& program, fq_connection_config* cfg, int status)
{
    while (!peer_stop) {
        fq_sm_watchdog();
        s_pause_ms(200);
        if (!peer_stop && s_closed(cfg)) {
            log_error("%s: the connection to the broker is closed for good; stopping", program.name);
            status = PEER_EXIT_CONN_LOST;
            peer_stop = 1;
        }
    }
    log_info("%s: stopping", program.name);
    fq_sm_stopping("stopping");
    return status;
}

int peer_serve(const peer_program_t& program, const peer_options_t& opts, const peer_service_t& service)
{
    fq_connection_config* cfg = nullptr;
    const int connected = peer_connect(program, opts, service.needs_jetstream, &cfg);
    if (connected >= 0)
        return connected;

    // The serving threads are detached: they are known by their ids, so that the stop can wait
    // for them before the connection they use goes away.
    const std::set<long> before = s_thread_ids();
    int started = 0;
    for (int i = 0; i < opts.threads; ++i) {
        if (fq_connection_start_service_handler_threads(cfg, service.subject.c_str(), service.handler,
                                                        service.context, &peer_stop, 1) == 0)
            ++started;
    }
    std::set<long> serving;
    for (long id : s_thread_ids())
        if (!before.count(id))
            serving.insert(id);

    int status = PEER_EXIT_OK;
    if (started < opts.threads) {
        fprintf(stderr, "%s: the broker refused the subscription to %s\n", program.name, service.subject.c_str());
        status = PEER_EXIT_BROKER;
        peer_stop = 1;
    } else {
        log_info("%s: serving %s with %d threads", program.name, service.subject.c_str(), started);
        const std::string status = "serving " + service.subject + " with " + std::to_string(started) + " threads";
        fq_sm_ready(status.c_str());
    }

    status = peer_wait_for_stop(program, cfg, status);
    const int64_t deadline = s_now_ms() + s_stop_grace_ms;
    auto still_serving = [&] {
        const std::set<long> now = s_thread_ids();
        for (long id : serving)
            if (now.count(id))
                return true;
        return false;
    };
    while (still_serving() && s_now_ms() < deadline) {
        struct timespec ts = {0, 20 * 1000000L};
        nanosleep(&ts, nullptr);
    }
    if (still_serving()) {
        // A request is still being worked on: leave the connection to the end of the process
        // rather than pull it from under that thread.
        log_warn("%s: serving threads still busy after %lld ms; exiting without closing the connection",
                 program.name, (long long)s_stop_grace_ms);
        return status;
    }
    peer_disconnect(cfg);
    log_info("%s: stopped", program.name);
    return status;
}

json_object* peer_parse_object(const char* text)
{
    if (!text)
        return nullptr;
    json_tokener* tok = json_tokener_new();
    if (!tok)
        return nullptr;
    const size_t len = strlen(text);
    json_object* obj = json_tokener_parse_ex(tok, text, (int)len);
    bool ok = obj && json_tokener_get_error(tok) == json_tokener_success &&
              json_object_is_type(obj, json_type_object);
    if (ok) {
        for (size_t i = json_tokener_get_parse_end(tok); i < len; ++i)
            if (!strchr(" \t\r\n", text[i]))
                ok = false;
    }
    json_tokener_free(tok);
    if (!ok) {
        json_object_put(obj);
        return nullptr;
    }
    return obj;
}

int peer_read_command(json_object* request)
{
    json_object* c = nullptr;
    if (!request || !json_object_object_get_ex(request, "Command", &c))
        return -1;
    return json_object_get_int(c);
}

bool peer_set_reply(fq_const_request_reply_t* rr, json_object* obj)
{
    if (!rr || !rr->reply || !obj)
        return false;
    const char* text = json_object_to_json_string_ext(obj, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
    char* copy = text ? strdup(text) : nullptr;
    if (!copy) {
        log_error("Failed to allocate %s", "reply");
        return false;
    }
    free(rr->reply->json_txt);
    rr->reply->json_txt = copy;
    return true;
}

void peer_set_error(fq_const_request_reply_t* rr, int code, const char* fmt, ...)
{
    char text[1024];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof(text), fmt, ap);
    va_end(ap);
    log_error("%s", text);
    if (!rr || !rr->reply)
        return;
    free(rr->reply->json_txt);
    rr->reply->json_txt = nullptr;
    fq_reply_set_ERROR(&rr->reply->json_txt, code, text);
}
