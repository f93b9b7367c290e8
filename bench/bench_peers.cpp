#include "bench_peers.h"

#include <json-c/json.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "fq_nats_client.h"
#include "fq_raii.h"
#include "fqhlp_replies.h"
#include "log.h"

namespace fqbench {

namespace {

// The scan services' stop flag; threads read it until the process ends, so it is not a member.
fq_stop_flag_t s_services_stop{0};
fq_stop_flag_t s_relay_stop{0};

constexpr int64_t s_default_scan_timeout_ms = 30000;

int s_command(json_object* job)
{
    json_object* v = nullptr;
    return job && json_object_object_get_ex(job, "Command", &v) ? json_object_get_int(v) : -1;
}

void s_set_text(fq_const_request_reply_t* rr, json_object* reply)
{
    rr->reply->json_txt = strdup(json_object_to_json_string_ext(reply, JSON_C_TO_STRING_PLAIN));
}

void s_on_relay_stop(int)
{
    s_relay_stop = 1;
}

}  // namespace

int bench_scan_handler(void* handler_config, fq_const_request_reply_t* rr)
{
    (void)handler_config;
    fq_json_ptr job(json_tokener_parse(rr->request->json_txt ? rr->request->json_txt : ""));
    if (s_command(job.get()) == PING_SERVICE)
        return fq_reply_set_OK(&rr->reply->json_txt);
    if (!job || !rr->request->data || rr->request->data_len == 0)
        return fq_reply_set_ERROR(&rr->reply->json_txt, SERVICE_ERROR, "bench scan: job without an object");

    json_object* v = nullptr;
    const int64_t announced = json_object_object_get_ex(job.get(), "ObjectLen", &v) ? json_object_get_int64(v) : -1;
    if (announced != static_cast<int64_t>(rr->request->data_len)) {
        char text[256];
        snprintf(text, sizeof(text), "bench scan: object has %zu bytes, the job says %lld", rr->request->data_len,
                 static_cast<long long>(announced));
        return fq_reply_set_ERROR(&rr->reply->json_txt, SERVICE_ERROR, text);
    }
    const char* name = json_object_object_get_ex(job.get(), "ObjectName", &v) ? json_object_get_string(v) : nullptr;

    fq_json_ptr reply(json_object_new_object());
    json_object* entry = json_object_new_object();
    json_object_object_add(entry, "ReturnCode", json_object_new_int(SCAN_OK));
    json_object_object_add(entry, "File-name", json_object_new_string(name && *name ? name : "object"));
    json_object_object_add(entry, "File-size", json_object_new_int64(announced));
    json_object_object_add(entry, "Object-type", json_object_new_int(-1));
    json_object_object_add(entry, "MIME-type", json_object_new_string("application/octet-stream"));
    json_object* results = json_object_new_array();
    json_object_array_add(results, entry);
    json_object_object_add(reply.get(), "ReturnCode", json_object_new_int(SCAN_OK));
    json_object_object_add(reply.get(), "FilesScanned", json_object_new_int(1));
    json_object_object_add(reply.get(), "Results", results);
    s_set_text(rr, reply.get());
    return 0;
}

int bench_relay_handler(void* handler_config, fq_const_request_reply_t* rr)
{
    auto* cfg = static_cast<fq_connection_config*>(handler_config);
    fq_json_ptr job(json_tokener_parse(rr->request->json_txt ? rr->request->json_txt : ""));
    if (s_command(job.get()) == PING_SERVICE)
        return fq_reply_set_OK(&rr->reply->json_txt);
    json_object* v = nullptr;
    const char* services = job && json_object_object_get_ex(job.get(), "Services", &v) ? json_object_get_string(v)
                                                                                       : nullptr;
    if (!services || !rr->request->staged_data_key || !*rr->request->staged_data_key)
        return fq_reply_set_ERROR(&rr->reply->json_txt, SERVICE_ERROR, "relay: job without services or object");
    int64_t timeout_ms = s_default_scan_timeout_ms;
    if (json_object_object_get_ex(job.get(), "SCANTIMEOUT", &v) && json_object_get_int64(v) > 0)
        timeout_ms = json_object_get_int64(v);

    // The same walk the worker makes: one call per service, the object passed by its key.
    const std::string list = services;
    fq_json_ptr last;
    size_t start = 0;
    while (start <= list.size()) {
        size_t end = list.find(';', start);
        if (end == std::string::npos)
            end = list.size();
        const std::string service = list.substr(start, end - start);
        start = end + 1;
        if (service.empty())
            continue;
        fq_const_request_reply_t* pair = fq_const_request_reply_new();
        if (!pair)
            return fq_reply_set_ERROR(&rr->reply->json_txt, SERVICE_ERROR, "relay: out of memory");
        pair->request->json_txt = rr->request->json_txt;
        pair->request->data = rr->request->data;
        pair->request->data_len = rr->request->data_len;
        pair->request->staged_data_key = rr->request->staged_data_key;
        char err[1024] = "";
        last.reset(fq_connection_send_recv_json_data(cfg, service.c_str(), pair, static_cast<uint64_t>(timeout_ms), 0,
                                                     0, err));
        fq_const_request_reply_free_structs(&pair);
        if (!last)
            return fq_reply_set_ERROR(&rr->reply->json_txt, SERVICE_ERROR, err[0] ? err : "relay: no reply");
        if (!json_object_object_get_ex(last.get(), "ReturnCode", &v) || json_object_get_int(v) != SCAN_OK)
            break;
    }
    if (!last)
        return fq_reply_set_ERROR(&rr->reply->json_txt, SERVICE_ERROR, "relay: no service named");
    s_set_text(rr, last.get());
    return 0;
}

fq_connection_config* bench_connect(const std::string& url)
{
    fq_connection_config* cfg = fq_connection_config_new();
    if (!cfg)
        return nullptr;
    cfg->server_url = strdup(url.c_str());
    if (!cfg->server_url || fq_connection_init(cfg) != 0 || !cfg->_js) {
        fprintf(stderr, "fq-av-bench: cannot connect to %s with JetStream\n", url.c_str());
        bench_disconnect(&cfg);
        return nullptr;
    }
    return cfg;
}

void bench_disconnect(fq_connection_config** cfg)
{
    if (!cfg || !*cfg)
        return;
    fq_connection_deinit(*cfg);
    free((*cfg)->server_url);
    free(*cfg);
    *cfg = nullptr;
}

bool ScanServices::start(const std::string& url, const std::vector<std::string>& names, int threads_per_service,
                         std::string* error)
{
    for (const auto& name : names) {
        fq_connection_config* cfg = bench_connect(url);
        if (!cfg) {
            *error = "scan service " + name + ": no connection";
            return false;
        }
        conns_.push_back(cfg);
        for (int i = 0; i < threads_per_service; ++i) {
            if (fq_connection_start_service_handler_threads(cfg, name.c_str(), bench_scan_handler, nullptr,
                                                            &s_services_stop, 1) != 0) {
                *error = "scan service " + name + ": cannot subscribe";
                return false;
            }
        }
        // The subscriptions are known to the server before the first job is sent.
        natsConnection_FlushTimeout(static_cast<natsConnection*>(cfg->_conn), 5000);
    }
    return true;
}

void ScanServices::stop()
{
    if (conns_.empty())
        return;
    s_services_stop = 1;
    // An idle thread notices the flag within one wait for the next message.
    usleep((FQ_NATS_NEXTMSG_TIMEOUT_MS + 200) * 1000);
    for (auto*& cfg : conns_)
        bench_disconnect(&cfg);
    conns_.clear();
}

int relay_main(const std::string& url, const std::string& subject, int threads)
{
    log_set_level(FQLOG_ERROR);
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = s_on_relay_stop;
    sigemptyset(&sa.sa_mask);
    for (int sig : {SIGTERM, SIGINT})
        sigaction(sig, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    fq_connection_config* cfg = bench_connect(url);
    if (!cfg)
        return 1;
    for (int i = 0; i < threads; ++i) {
        if (fq_connection_start_service_handler_threads(cfg, subject.c_str(), bench_relay_handler, cfg,
                                                        &s_relay_stop, 1) != 0) {
            fprintf(stderr, "relay: cannot subscribe to %s\n", subject.c_str());
            bench_disconnect(&cfg);
            return 1;
        }
    }
    while (!s_relay_stop)
        usleep(100 * 1000);
    usleep((FQ_NATS_NEXTMSG_TIMEOUT_MS + 200) * 1000);
    bench_disconnect(&cfg);
    return 0;
}

}  // namespace fqbench
