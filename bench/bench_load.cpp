#include "bench_load.h"

#include <json-c/json.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <latch>
#include <thread>

#include "bench_peers.h"
#include "fq_request_reply_types.h"

namespace fqbench {

namespace {

// The scan's time limit in the job, and how long a client waits for the reply.
constexpr uint32_t s_scan_timeout_ms = 30000;
constexpr uint32_t s_request_timeout_ms = 35000;

using s_clock = std::chrono::steady_clock;

bool s_request(fq_connection_config* cfg, const std::string& subject, const std::string& job, int expected_rc,
               std::string* error)
{
    char err[1024] = "";
    json_object* reply = fq_connection_send_recv_json(cfg, subject.c_str(), job.c_str(), s_request_timeout_ms, 0, err);
    if (!reply) {
        *error = subject + ": " + (err[0] ? err : "no reply");
        return false;
    }
    json_object* rc = nullptr;
    const bool ok = json_object_object_get_ex(reply, "ReturnCode", &rc) && json_object_get_int(rc) == expected_rc;
    if (!ok)
        *error = subject + " answered " + std::string(json_object_to_json_string(reply)).substr(0, 400);
    json_object_put(reply);
    return ok;
}

// One job as a client does it: stage, send, wait for the verdict, remove what it staged.
bool s_one_job(fq_connection_config* cfg, const LoadSpec& spec, int client, int n, double* ms, double* request_ms,
               std::string* error)
{
    const auto t0 = s_clock::now();
    const std::string& object = *spec.object;
    char* key = nullptr;
    char err[1024] = "";
    if (fq_connection_stage_scan_data(cfg, object.data(), object.size(), s_scan_timeout_ms, &key, err) != 0 || !key) {
        *error = std::string("staging failed: ") + err;
        free(key);
        return false;
    }
    const std::string name = "bench-" + std::to_string(client) + "-" + std::to_string(n) + ".bin";
    const std::string job = make_scan_job(name, object.size(), spec.services, key);
    const auto sent = s_clock::now();
    bool ok = true;
    if (spec.mode == Mode::Direct) {
        // Without a broker in the middle the client itself walks the services.
        for (const auto& service : spec.services) {
            ok = s_request(cfg, service, job, SCAN_OK, error);
            if (!ok)
                break;
        }
    } else {
        // The worker says SCAN_RECURSIVE_OK for a clean object; the relay passes the service's SCAN_OK on.
        ok = s_request(cfg, spec.target, job, spec.mode == Mode::Worker ? SCAN_RECURSIVE_OK : SCAN_OK, error);
    }
    *request_ms = std::chrono::duration<double, std::milli>(s_clock::now() - sent).count();
    fq_connection_unstage_scan_data(cfg, key);
    free(key);
    *ms = std::chrono::duration<double, std::milli>(s_clock::now() - t0).count();
    return ok;
}

}  // namespace

const char* mode_name(Mode mode)
{
    switch (mode) {
    case Mode::Direct:
        return "direct";
    case Mode::Relay:
        return "relay";
    case Mode::Worker:
        return "worker";
    }
    return "?";
}

void SeriesResult::add(const SeriesResult& other)
{
    jobs += other.jobs;
    failures += other.failures;
    seconds += other.seconds;
    latency_ms.insert(latency_ms.end(), other.latency_ms.begin(), other.latency_ms.end());
    request_ms.insert(request_ms.end(), other.request_ms.begin(), other.request_ms.end());
    in_bytes += other.in_bytes;
    out_bytes += other.out_bytes;
    in_msgs += other.in_msgs;
    if (cpu_ms.size() < other.cpu_ms.size())
        cpu_ms.resize(other.cpu_ms.size(), 0.0);
    for (size_t i = 0; i < other.cpu_ms.size(); ++i)
        cpu_ms[i] += other.cpu_ms[i];
    if (first_failure.empty())
        first_failure = other.first_failure;
}

double SeriesResult::percentile_of(const std::vector<double>& values, double p)
{
    if (values.empty())
        return 0;
    std::vector<double> sorted = values;
    std::sort(sorted.begin(), sorted.end());
    size_t rank = static_cast<size_t>(std::ceil(p * static_cast<double>(sorted.size())));
    rank = std::clamp<size_t>(rank, 1, sorted.size());
    return sorted[rank - 1];
}

std::string make_scan_job(const std::string& name, size_t object_len, const std::vector<std::string>& services,
                          const std::string& key)
{
    std::string list;
    for (const auto& s : services)
        list += (list.empty() ? "" : ";") + s;
    return "{\"Command\": 101, \"ObjectName\": \"" + name + "\", \"ObjectLen\": " + std::to_string(object_len) +
           ", \"Services\": \"" + list +
           "\", \"shmID\": \"0xffffffff\", \"realmID\": \"bench\", \"EventID\": \"bench-event\", \"Hostname\": "
           "\"bench-client\", \"SID\": \"BEN\", \"HTMLDETECTION\": \"OFF\", \"Scan-Servers\": \"all\", "
           "\"XML_MODE\": \"XML\", \"SVG_MODE\": \"SVG\", \"EVENT_ID_DELIMITER\": \"#\", \"SCANTIMEOUT\": " +
           std::to_string(s_scan_timeout_ms) + ", \"_kv_key\": \"" + key + "\"}";
}

Clients::~Clients()
{
    for (auto*& cfg : conns_)
        bench_disconnect(&cfg);
}

bool Clients::connect(const std::string& url, int count, std::string* error)
{
    for (int i = 0; i < count; ++i) {
        fq_connection_config* cfg = bench_connect(url);
        if (!cfg) {
            *error = "client connection failed";
            return false;
        }
        conns_.push_back(cfg);
    }
    return true;
}

bool Clients::run(const LoadSpec& spec, const Broker& broker, SeriesResult* out)
{
    if (spec.clients < 1 || static_cast<size_t>(spec.clients) > conns_.size() || !spec.object)
        return false;

    auto pass = [&](int jobs, SeriesResult* r) {
        std::atomic<int> next{0};
        std::latch go(1);
        std::vector<SeriesResult> per_client(static_cast<size_t>(spec.clients));
        std::vector<std::thread> threads;
        for (int c = 0; c < spec.clients; ++c) {
            threads.emplace_back([&, c] {
                SeriesResult& mine = per_client[static_cast<size_t>(c)];
                go.wait();
                for (;;) {
                    const int n = next.fetch_add(1);
                    if (n >= jobs || interrupted())
                        break;
                    double ms = 0;
                    double request_ms = 0;
                    std::string error;
                    const bool ok = s_one_job(conns_[static_cast<size_t>(c)], spec, c, n, &ms, &request_ms, &error);
                    ++mine.jobs;
                    mine.latency_ms.push_back(ms);
                    mine.request_ms.push_back(request_ms);
                    if (!ok) {
                        ++mine.failures;
                        if (mine.first_failure.empty())
                            mine.first_failure = error;
                    }
                }
            });
        }
        const auto t0 = s_clock::now();
        go.count_down();
        for (auto& t : threads)
            t.join();
        const double seconds = std::chrono::duration<double>(s_clock::now() - t0).count();
        for (const auto& m : per_client)
            r->add(m);
        r->seconds = seconds;
    };

    SeriesResult warm;
    pass(spec.warmup, &warm);
    ServerCounters before;
    ServerCounters after;
    const bool counted = broker.counters(&before);
    std::vector<double> cpu_before;
    for (pid_t pid : spec.watch)
        cpu_before.push_back(proc_cpu_ms(pid));
    SeriesResult measured;
    pass(spec.jobs, &measured);
    for (size_t i = 0; i < spec.watch.size(); ++i)
        measured.cpu_ms.push_back(std::max(0.0, proc_cpu_ms(spec.watch[i]) - cpu_before[i]));
    if (counted && broker.counters(&after)) {
        measured.in_bytes = after.in_bytes - before.in_bytes;
        measured.out_bytes = after.out_bytes - before.out_bytes;
        measured.in_msgs = after.in_msgs - before.in_msgs;
    }
    measured.failures += warm.failures;
    if (measured.first_failure.empty())
        measured.first_failure = warm.first_failure;
    out->add(measured);
    return !interrupted();
}

}  // namespace fqbench
