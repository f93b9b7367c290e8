// fq-av-bench: drives scan jobs through a real broker three ways in one run — straight to the scan
// service ("direct"), through a minimal relay ("relay") and through the real worker ("worker") — and
// prints throughput, latency, bytes per job and the worker's peak memory. Not a test: nothing
// here decides pass or fail of a build, and ctest never runs it.
#include <nats/nats.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <fstream>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "bench_env.h"
#include "bench_load.h"
#include "bench_peers.h"
#include "bench_queue.h"
#include "fq_provision.h"
#include "fq_raii.h"
#include "log.h"
#include "nats_server.h"
#include "process_util.h"

#ifndef FQ_WORKER_BINARY
#define FQ_WORKER_BINARY "fq-av-scanproxy"
#endif

namespace {

using namespace fqbench;

const char s_relay_subject[] = "fq-av-benchrelay";
const char s_worker_subject[] = "fq-av-scanproxy";
const std::vector<std::string> s_service_names = {"fq-av-benchscan", "fq-av-benchscan2", "fq-av-benchscan3"};

struct Options {
    std::vector<size_t> sizes = {4096, 1048576};
    std::vector<int> clients = {1, 8};
    std::vector<int> service_counts = {1, 3};
    int jobs = 0;  // 0: by object size
    int rounds = 3;
    int worker_threads = 16;
    bool quick = false;
    bool queue = false;  // the queue series instead of the scan series
    std::vector<Mode> modes = {Mode::Direct, Mode::Relay, Mode::Worker};
    std::string perf_dir;  // perf record of the worker and the relay, when set
    std::string worker = FQ_WORKER_BINARY;
    std::string relay;  // empty: this program itself
    std::string command;  // as given, for the report
};

void s_usage(FILE* out)
{
    fprintf(out,
            "usage: fq-av-bench [options]\n"
            "  --jobs N            measured jobs per series (default: 3750 at 4 KiB, 600 at 1 MiB, scaled between)\n"
            "  --sizes LIST        object sizes, e.g. 4k,1m (default 4k,1m)\n"
            "  --clients LIST      client threads per series, e.g. 1,8 (default 1,8)\n"
            "  --services LIST     services named per job, from 1 to 3 (default 1,3)\n"
            "  --rounds N          each series split into N rounds, modes interleaved (default 3)\n"
            "  --worker-threads N  threads of the worker and of the relay (default 16)\n"
            "  --worker PATH       worker binary (default %s)\n"
            "  --relay PATH        relay program, called with --relay-serve URL SUBJECT THREADS (default: this one)\n"
            "  --modes LIST        of direct,relay,worker (default all three)\n"
            "  --perf DIR          record the worker and the relay with perf into DIR while the series run\n"
            "  --quick             a tenth of the jobs, one round: a smoke run\n"
            "  --queue             the queue series: pushes/s, delivery rate, scan latency with the log\n"
            "                      dispatcher delivering a backlog against idle (--jobs: scans per mode,\n"
            "                      default 3000)\n",
            FQ_WORKER_BINARY);
}

bool s_parse_size(const std::string& text, size_t* out)
{
    char* end = nullptr;
    const double v = strtod(text.c_str(), &end);
    if (end == text.c_str() || v <= 0)
        return false;
    std::string unit(end);
    std::transform(unit.begin(), unit.end(), unit.begin(), ::tolower);
    double mult = 1;
    if (unit == "k" || unit == "kib" || unit == "kb")
        mult = 1024;
    else if (unit == "m" || unit == "mib" || unit == "mb")
        mult = 1024 * 1024;
    else if (!unit.empty() && unit != "b")
        return false;
    *out = static_cast<size_t>(v * mult);
    return *out > 0;
}

std::vector<std::string> s_split(const std::string& text)
{
    std::vector<std::string> parts;
    std::stringstream ss(text);
    std::string part;
    while (std::getline(ss, part, ','))
        if (!part.empty())
            parts.push_back(part);
    return parts;
}

bool s_parse_ints(const std::string& text, int lo, int hi, std::vector<int>* out)
{
    out->clear();
    for (const auto& p : s_split(text)) {
        char* end = nullptr;
        const long v = strtol(p.c_str(), &end, 10);
        if (*end || v < lo || v > hi)
            return false;
        out->push_back(static_cast<int>(v));
    }
    return !out->empty();
}

// 0 on success, 1 for --help, -1 on a bad option.
int s_parse_options(int argc, char** argv, Options* o)
{
    o->command = "fq-av-bench";
    for (int i = 1; i < argc; ++i)
        o->command += std::string(" ") + argv[i];
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&](std::string* v) {
            if (i + 1 >= argc)
                return false;
            *v = argv[++i];
            return true;
        };
        std::string v;
        std::vector<int> ints;
        if (a == "--help" || a == "-h") {
            return 1;
        } else if (a == "--quick") {
            o->quick = true;
        } else if (a == "--queue") {
            o->queue = true;
        } else if (a == "--jobs" && value(&v) && s_parse_ints(v, 1, 10000000, &ints) && ints.size() == 1) {
            o->jobs = ints[0];
        } else if (a == "--rounds" && value(&v) && s_parse_ints(v, 1, 100, &ints) && ints.size() == 1) {
            o->rounds = ints[0];
        } else if (a == "--worker-threads" && value(&v) && s_parse_ints(v, 1, 256, &ints) && ints.size() == 1) {
            o->worker_threads = ints[0];
        } else if (a == "--clients" && value(&v) && s_parse_ints(v, 1, 64, &ints)) {
            o->clients = ints;
        } else if (a == "--services" && value(&v) && s_parse_ints(v, 1, 3, &ints)) {
            o->service_counts = ints;
        } else if (a == "--worker" && value(&v)) {
            o->worker = v;
        } else if (a == "--relay" && value(&v)) {
            o->relay = v;
        } else if (a == "--perf" && value(&v)) {
            o->perf_dir = v;
        } else if (a == "--modes" && value(&v)) {
            o->modes.clear();
            for (const auto& p : s_split(v)) {
                if (p == "direct")
                    o->modes.push_back(Mode::Direct);
                else if (p == "relay")
                    o->modes.push_back(Mode::Relay);
                else if (p == "worker")
                    o->modes.push_back(Mode::Worker);
                else {
                    fprintf(stderr, "fq-av-bench: bad mode: %s\n", p.c_str());
                    return -1;
                }
            }
            if (o->modes.empty())
                return -1;
        } else if (a == "--sizes" && value(&v)) {
            o->sizes.clear();
            for (const auto& p : s_split(v)) {
                size_t n = 0;
                if (!s_parse_size(p, &n)) {
                    fprintf(stderr, "fq-av-bench: bad size: %s\n", p.c_str());
                    return -1;
                }
                o->sizes.push_back(n);
            }
            if (o->sizes.empty())
                return -1;
        } else {
            fprintf(stderr, "fq-av-bench: bad option or value: %s\n", a.c_str());
            return -1;
        }
    }
    if (o->quick)
        o->rounds = 1;
    return 0;
}

int s_jobs_for(const Options& o, size_t size)
{
    int jobs = o.jobs;
    if (jobs == 0) {
        // About the same wall time per series at every size on a two-core machine.
        const double per_job_ms = 1.3 + 7.0 * static_cast<double>(size) / 1048576.0;
        jobs = std::clamp(static_cast<int>(5000.0 / per_job_ms), 100, 4000);
        if (o.quick)
            jobs = std::max(20, jobs / 10);
    }
    return std::max(jobs, o.rounds);
}

std::string s_size_text(size_t size)
{
    if (size % 1048576 == 0)
        return std::to_string(size / 1048576) + " MiB";
    if (size % 1024 == 0)
        return std::to_string(size / 1024) + " KiB";
    return std::to_string(size) + " B";
}

std::string s_fmt(const char* fmt, double v)
{
    char buf[64];
    snprintf(buf, sizeof(buf), fmt, v);
    return buf;
}

std::string s_loadavg()
{
    std::ifstream in("/proc/loadavg");
    std::string a, b, c;
    in >> a >> b >> c;
    return a + " " + b + " " + c;
}

std::string s_self_exe()
{
    char buf[4096];
    const ssize_t n = readlink("/proc/self/exe", buf, sizeof(buf) - 1);
    if (n <= 0)
        return "";
    buf[n] = '\0';
    return buf;
}

// A ping answered with ReturnCode 0 on subject, within limit; false early if the child died.
bool s_wait_serving(natsConnection* nc, const std::string& subject, const ChildGuard& child, int limit_ms)
{
    return fqtest::wait_until(
               [&] {
                   if (!child.alive() || interrupted())
                       return true;
                   natsMsg* reply = nullptr;
                   const bool ok = natsConnection_RequestString(&reply, nc, subject.c_str(), "{\"Command\": 3}", 500) ==
                                       NATS_OK &&
                                   reply && strstr(natsMsg_GetData(reply), "\"ReturnCode\": 0");
                   natsMsg_Destroy(reply);
                   return ok;
               },
               std::chrono::milliseconds(limit_ms)) &&
           child.alive() && !interrupted();
}

struct SeriesKey {
    int services;
    size_t size;
    int clients;
    bool operator<(const SeriesKey& o) const
    {
        return std::tie(size, services, clients) < std::tie(o.size, o.services, o.clients);
    }
};

struct MemoryMark {
    size_t size;
    long worker_hwm_kib;
    long relay_hwm_kib;
    long broker_hwm_kib;
    long bench_hwm_kib;
};

std::string s_mib(long kib)
{
    return kib < 0 ? "n/a" : s_fmt("%.1f MiB", static_cast<double>(kib) / 1024.0);
}

// Removes the named semaphore that guards the worker's trace file; it outlives the worker.
struct TraceSemaphore {
    std::string path;
    ~TraceSemaphore()
    {
        std::string name = "fq_log_" + path;
        std::replace(name.begin(), name.end(), '/', '_');
        sem_unlink(name.c_str());
    }
};

void s_print_report(const Options& o, const std::map<SeriesKey, std::map<Mode, SeriesResult>>& results,
                    const std::vector<MemoryMark>& memory, long worker_start_rss_kib, int worker_status,
                    const std::string& load_before, const std::string& load_after, double wall_s)
{
    char host[256] = "";
    gethostname(host, sizeof(host) - 1);
    const std::time_t now = std::time(nullptr);
    char date[64];
    strftime(date, sizeof(date), "%Y-%m-%d %H:%M UTC", gmtime(&now));
    printf("# fq-av-bench, %s\n\n", date);
    printf("- command: `%s`\n", o.command.c_str());
    printf("- machine: %u cores (nproc), load average before %s, after %s\n",
           std::thread::hardware_concurrency(), load_before.c_str(), load_after.c_str());
    printf("- %s, nats.c %s, worker %s with --worker-threads %d, relay with %d handler threads\n",
           Broker::version().c_str(), nats_GetVersion(), o.worker.c_str(), o.worker_threads, o.worker_threads);
    printf("- each series: %d round(s), modes interleaved per round; whole run %.0f s\n", o.rounds, wall_s);
    printf("- latency: one client's wait for one job: stage the object, send the job, get the verdict, remove "
           "the object\n\n");

    printf("## Series\n\n");
    printf("Latency of a job: stage, send, verdict, unstage. Latency of the request: send to verdict.\n\n");
    printf("| services | size | clients | mode | jobs | failed | jobs/s | job p50 ms | job p99 ms | request p50 ms | "
           "request p99 ms | published B/job | delivered B/job | published msgs/job |\n");
    printf("|---:|---:|---:|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n");
    for (const auto& [key, modes] : results) {
        for (const auto& [mode, r] : modes) {
            if (r.jobs == 0)
                continue;
            printf("| %d | %s | %d | %s | %d | %d | %.0f | %.2f | %.2f | %.2f | %.2f | %.0f | %.0f | %.1f |\n",
                   key.services, s_size_text(key.size).c_str(), key.clients, mode_name(mode), r.jobs, r.failures,
                   r.jobs_per_s(), r.percentile(0.50), r.percentile(0.99), r.request_percentile(0.50),
                   r.request_percentile(0.99), static_cast<double>(r.in_bytes) / r.jobs,
                   static_cast<double>(r.out_bytes) / r.jobs, static_cast<double>(r.in_msgs) / r.jobs);
        }
    }

    printf("\n## CPU time per job in ms (measured jobs only; the bench process holds the clients and the scan "
           "services)\n\n");
    printf("| services | size | clients | mode | nats-server | relay | worker | bench |\n");
    printf("|---:|---:|---:|---|---:|---:|---:|---:|\n");
    for (const auto& [key, modes] : results) {
        for (const auto& [mode, r] : modes) {
            if (r.jobs == 0 || r.cpu_ms.size() < 4)
                continue;
            printf("| %d | %s | %d | %s | %.3f | %.3f | %.3f | %.3f |\n", key.services, s_size_text(key.size).c_str(),
                   key.clients, mode_name(mode), r.cpu_ms[0] / r.jobs, r.cpu_ms[1] / r.jobs, r.cpu_ms[2] / r.jobs,
                   r.cpu_ms[3] / r.jobs);
        }
    }

    printf("\n## Worker against the relay\n\n");
    printf("Targets: worker p50 latency <= 1.10 x relay and jobs/s >= 0.90 x relay. The verdict is given for the "
           "latency of the whole job and for that of the request alone (staging and removal are the same in every "
           "mode).\n\n");
    printf("| services | size | clients | job p50 w/r | request p50 w/r | request p99 w/r | jobs/s w/r | "
           "request p50 worker/direct | request p50 relay/direct | targets (job) | targets (request) |\n");
    printf("|---:|---:|---:|---:|---:|---:|---:|---:|---:|---|---|\n");
    int missed_job = 0;
    int missed_request = 0;
    for (const auto& [key, modes] : results) {
        auto d = modes.find(Mode::Direct);
        auto r = modes.find(Mode::Relay);
        auto w = modes.find(Mode::Worker);
        if (r == modes.end() || w == modes.end() || !r->second.jobs || !w->second.jobs)
            continue;
        const SeriesResult& rr = r->second;
        const SeriesResult& wr = w->second;
        const bool have_direct = d != modes.end() && d->second.jobs;
        const double job = wr.percentile(0.5) / rr.percentile(0.5);
        const double req = wr.request_percentile(0.5) / rr.request_percentile(0.5);
        const double req99 = wr.request_percentile(0.99) / rr.request_percentile(0.99);
        const double thr = wr.jobs_per_s() / rr.jobs_per_s();
        const bool met_job = job <= 1.10 && thr >= 0.90;
        const bool met_req = req <= 1.10 && thr >= 0.90;
        missed_job += met_job ? 0 : 1;
        missed_request += met_req ? 0 : 1;
        printf("| %d | %s | %d | %.3f | %.3f | %.3f | %.3f | %s | %s | %s | %s |\n", key.services,
               s_size_text(key.size).c_str(), key.clients, job, req, req99, thr,
               have_direct ? s_fmt("%.2f", wr.request_percentile(0.5) / d->second.request_percentile(0.5)).c_str()
                           : "n/a",
               have_direct ? s_fmt("%.2f", rr.request_percentile(0.5) / d->second.request_percentile(0.5)).c_str()
                           : "n/a",
               met_job ? "met" : "MISSED", met_req ? "met" : "MISSED");
    }

    printf("\n## Bytes published per job (the object must cross the broker once, whatever the number of "
           "services)\n\n");
    printf("| size | mode | 1 service: B/job | over the object | 3 services: B/job | over the object | "
           "3 minus 1 |\n");
    printf("|---:|---|---:|---:|---:|---:|---:|\n");
    // Published bytes per job by (mode, services, size), averaged over the client counts: the
    // bytes of a job don't depend on them.
    std::map<std::tuple<Mode, int, size_t>, double> per_job;
    for (size_t size : o.sizes) {
        for (Mode mode : {Mode::Direct, Mode::Relay, Mode::Worker}) {
            for (int services : o.service_counts) {
                int64_t bytes = 0;
                int jobs = 0;
                for (const auto& [key, modes] : results) {
                    auto it = modes.find(mode);
                    if (key.size == size && key.services == services && it != modes.end()) {
                        bytes += it->second.in_bytes;
                        jobs += it->second.jobs;
                    }
                }
                if (jobs > 0)
                    per_job[{mode, services, size}] = static_cast<double>(bytes) / jobs;
            }
            auto one = per_job.find({mode, 1, size});
            auto three = per_job.find({mode, 3, size});
            if (one == per_job.end() || three == per_job.end())
                continue;
            const double obj = static_cast<double>(size);
            printf("| %s | %s | %.0f | %.0f | %.0f | %.0f | %.0f |\n", s_size_text(size).c_str(), mode_name(mode),
                   one->second, one->second - obj, three->second, three->second - obj, three->second - one->second);
        }
    }
    // The copies of the object in what a job publishes: the growth of the bytes per job from the
    // smallest to the largest object, over the growth of the object. Small JSON does not grow with it.
    const size_t small = *std::min_element(o.sizes.begin(), o.sizes.end());
    const size_t large = *std::max_element(o.sizes.begin(), o.sizes.end());
    if (large >= 16 * small) {
        printf("\nCopies of the object published per job (bytes per job at %s minus at %s, over %zu):\n\n",
               s_size_text(large).c_str(), s_size_text(small).c_str(), large - small);
        bool once = true;
        for (Mode mode : {Mode::Direct, Mode::Relay, Mode::Worker}) {
            for (int services : o.service_counts) {
                auto a = per_job.find({mode, services, small});
                auto b = per_job.find({mode, services, large});
                if (a == per_job.end() || b == per_job.end())
                    continue;
                const double copies = (b->second - a->second) / static_cast<double>(large - small);
                printf("- %s, %d service(s): %.3f\n", mode_name(mode), services, copies);
                if (mode == Mode::Worker && (copies < 0.98 || copies > 1.02))
                    once = false;
            }
        }
        printf("\nThe worker publishes the object once per job, with one service and with three: %s\n",
               once ? "yes" : "NO");
    }

    printf("\n## Memory\n\n");
    printf("- worker VmRSS when ready: %s\n", s_mib(worker_start_rss_kib).c_str());
    for (const auto& m : memory)
        printf("- after the %s series: worker VmHWM %s, relay VmHWM %s (nats-server %s, bench process %s)\n",
               s_size_text(m.size).c_str(), s_mib(m.worker_hwm_kib).c_str(), s_mib(m.relay_hwm_kib).c_str(),
               s_mib(m.broker_hwm_kib).c_str(), s_mib(m.bench_hwm_kib).c_str());
    printf("- worker exit status after SIGTERM: %d\n", worker_status);
    printf("\nTargets missed in %d (job latency) and %d (request latency) of the compared series.\n", missed_job,
           missed_request);
}


// The real worker on <dir>/base, serving once the call returns true; false after a message.
bool s_start_worker(const Options& o, const std::string& url, const fqtest::TempDir& dir, natsConnection* peer,
                    const std::string& trace, ChildGuard& worker)
{
    const std::string base = dir / "base";
    mkdir(base.c_str(), 0755);
    mkdir((base + "/fq-av-scanproxy").c_str(), 0755);
    mkdir((base + "/run").c_str(), 0755);
    worker.reset(spawn_child({o.worker, "--basedir", base, "--broker", url, "--console-mode", "--worker-threads",
                              std::to_string(o.worker_threads), "--tracelevel", "0", "--tracefile", trace},
                             dir / "worker.log"));
    if (s_wait_serving(peer, s_worker_subject, worker, 30000))
        return true;
    fprintf(stderr, "fq-av-bench: the worker did not come up: %s\n", fqtest::read_file(dir / "worker.log").c_str());
    return false;
}

// The queue series: pushes per second, delivery rate, and the scan latency of the core road while
// the worker's log dispatcher is busy against while it is idle, in interleaved rounds.
int s_run_queue(const Options& o, const fqtest::TempDir& dir, const Broker& broker, const std::string& load_before)
{
    const std::string url = broker.url();
    fq_nats_conn_ptr peer(broker.server().connect_peer());
    if (!peer) {
        fprintf(stderr, "fq-av-bench: no peer connection\n");
        return 1;
    }
    const std::string record = queue_sample_record();
    const int pushes = o.quick ? 2000 : 10000;

    std::map<int, std::vector<double>> push_rates;
    for (int round = 0; round < (o.quick ? 1 : 3); ++round)
        for (int threads : {1, 4})
            push_rates[threads].push_back(queue_push_rate(
                dir / ("push-" + std::to_string(round) + "-" + std::to_string(threads)), threads, pushes, record));
    for (auto& [threads, rates] : push_rates) {
        std::sort(rates.begin(), rates.end());
        fprintf(stderr, "pushes/s from %d thread(s): %.0f (median of %zu)\n", threads, rates[rates.size() / 2],
                rates.size());
    }
    fq_connection_config* cfg = bench_connect(url);
    mkdir((dir / "deliver").c_str(), 0755);
    const int deliveries = o.quick ? 1000 : 5000;
    const double delivery = cfg ? queue_delivery_rate(dir / "deliver", cfg, peer.get(), deliveries, record) : 0;
    bench_disconnect(&cfg);
    fprintf(stderr, "records delivered/s: %.0f\n", delivery);

    // Scans through the worker while its sinks answer on this process's connection.
    fqtest::Responder control(peer.get(), "fq-av-worker-control",
                              [](const std::string&) { return std::string("{\"ReturnCode\": 0}"); });
    std::atomic<long> sunk{0};
    auto sink = [&](const std::string&) {
        ++sunk;
        return std::optional<std::string>("{\"ReturnCode\": 0}");
    };
    fqtest::Responder logs(peer.get(), "fq-av-log", sink);
    fqtest::Responder events(peer.get(), "fq-av-events-dispatch", sink);
    ScanServices services;
    std::string error;
    if (!services.start(url, {s_service_names[0]}, 4, &error)) {
        fprintf(stderr, "fq-av-bench: peers: %s\n", error.c_str());
        return 1;
    }
    TraceSemaphore trace_sem{dir / "worker-trace.log"};
    ChildGuard worker;
    if (!s_start_worker(o, url, dir, peer.get(), trace_sem.path, worker))
        return 1;
    Clients clients;
    if (!clients.connect(url, 1, &error)) {
        fprintf(stderr, "fq-av-bench: %s\n", error.c_str());
        return 1;
    }
    const std::string object(4096, 'q');
    const std::string rundir = dir / "base/run";
    const int rounds = o.quick ? 2 : 6;
    const int jobs = (o.jobs ? o.jobs : (o.quick ? 300 : 3000)) / (rounds / 2);
    SeriesResult idle, busy;
    double busy_seconds = 0;
    long busy_sunk = 0;
    for (int round = 0; round < rounds && worker.alive() && !interrupted(); ++round) {
        const bool is_busy = round % 2 == 1;
        // Busy: a backlog near the queue's limit, which the dispatcher is delivering before the first
        // measured job and still at the last.
        const long sunk_before = sunk.load();
        if (is_busy && (queue_fill(rundir, record, 9500) != 9500 ||
                        !fqtest::wait_until([&] { return sunk.load() > sunk_before + 100; }, std::chrono::seconds(30)))) {
            fprintf(stderr, "fq-av-bench: the worker's dispatcher does not deliver from %s\n", rundir.c_str());
            return 1;
        }
        const int depth = queue_depth(rundir);
        LoadSpec spec;
        spec.mode = Mode::Worker;
        spec.object = &object;
        spec.services = {s_service_names[0]};
        spec.target = s_worker_subject;
        spec.jobs = jobs;
        spec.warmup = 20;
        spec.watch = {broker.pid(), worker.pid(), worker.pid(), getpid()};
        SeriesResult r;
        const long sunk_start = sunk.load();
        if (!clients.run(spec, broker, &r))
            return 1;
        const int left = queue_depth(rundir);
        (is_busy ? busy : idle).add(r);
        if (is_busy) {
            busy_seconds += r.seconds;
            busy_sunk += sunk.load() - sunk_start;
        }
        fprintf(stderr, "round %d (%s): request p50 %.3f ms, %d failed, %d records in the queue before, %d after\n",
                round, is_busy ? "busy" : "idle", r.request_percentile(0.5), r.failures, depth, left);
        if (is_busy && left == 0)
            fprintf(stderr, "  the backlog ran out before the round ended: use fewer --jobs\n");
        // The next idle round starts with an empty queue.
        fqtest::wait_until([&] { return fqtest::list_dir(rundir + "/fq-av-scanproxy.pq/data").empty(); },
                         std::chrono::seconds(60));
    }
    const int worker_status = worker.terminate(15000);

    char date[64];
    const std::time_t now = std::time(nullptr);
    strftime(date, sizeof(date), "%Y-%m-%d %H:%M UTC", gmtime(&now));
    printf("# fq-av-bench queue series, %s\n\n", date);
    printf("- command: `%s`\n", o.command.c_str());
    printf("- machine: %u cores, load average before %s, after %s\n", std::thread::hardware_concurrency(),
           load_before.c_str(), s_loadavg().c_str());
    printf("- record: %zu bytes (a ready record); queue with the worker's limits (10,000 entries)\n\n",
           record.size());
    printf("| measure | value | target |\n|---|---:|---|\n");
    for (auto& [threads, rates] : push_rates)
        printf("| pushes/s, %d thread(s), %d records, median of %zu | %.0f | >= 10,000 |\n", threads, pushes,
               rates.size(), rates[rates.size() / 2]);
    printf("| records delivered/s, one dispatcher, %d records, sinks on the broker | %.0f | >= 1,000 |\n", deliveries,
           delivery);
    printf("| records delivered/s by the worker during the busy rounds | %.0f | |\n",
           busy_seconds > 0 ? busy_sunk / busy_seconds : 0.0);
    printf("| scan request p50 ms, dispatcher idle (%d jobs) | %.3f | |\n", idle.jobs, idle.request_percentile(0.5));
    printf("| scan request p50 ms, dispatcher busy (%d jobs) | %.3f | |\n", busy.jobs, busy.request_percentile(0.5));
    printf("| scan request p99 ms, idle / busy | %.3f / %.3f | |\n", idle.request_percentile(0.99),
           busy.request_percentile(0.99));
    printf("| scan jobs/s, idle / busy | %.0f / %.0f | |\n", idle.jobs_per_s(), busy.jobs_per_s());
    const double idle_p50 = idle.request_percentile(0.5);
    const double ratio = idle_p50 > 0 ? busy.request_percentile(0.5) / idle_p50 : 0;
    printf("| scan p50 busy / idle | %.3f | <= 1.10 |\n", ratio);
    printf("\nFailed scans: %d idle, %d busy; worker exit status after SIGTERM: %d\n", idle.failures, busy.failures,
           worker_status);
    return idle.failures + busy.failures ? 2 : 0;
}

int s_run(const Options& o)
{
    const auto started = std::chrono::steady_clock::now();
    const std::string load_before = s_loadavg();
    fqtest::TempDir dir;
    Broker broker;
    std::string error;
    if (!broker.start(&error)) {
        fprintf(stderr, "fq-av-bench: %s\n", error.c_str());
        return 1;
    }
    if (!broker.server().provision(nullptr, nullptr, &error)) {
        fprintf(stderr, "fq-av-bench: provisioning failed: %s\n", error.c_str());
        return 1;
    }
    if (o.queue)
        return s_run_queue(o, dir, broker, load_before);
    const std::string url = broker.url();

    fq_nats_conn_ptr peer(broker.server().connect_peer());
    if (!peer) {
        fprintf(stderr, "fq-av-bench: no peer connection\n");
        return 1;
    }
    fqtest::Responder control(peer.get(), "fq-av-worker-control",
                              [](const std::string&) { return std::string("{\"ReturnCode\": 0}"); });

    const int max_clients = *std::max_element(o.clients.begin(), o.clients.end());
    ScanServices services;
    if (!control.ok() || !services.start(url, s_service_names, std::max(4, max_clients), &error)) {
        fprintf(stderr, "fq-av-bench: peers: %s\n", error.c_str());
        return 1;
    }

    ChildGuard relay(spawn_child({o.relay.empty() ? s_self_exe() : o.relay, "--relay-serve", url, s_relay_subject,
                                  std::to_string(o.worker_threads)},
                                 dir / "relay.log"));
    if (!s_wait_serving(peer.get(), s_relay_subject, relay, 20000)) {
        fprintf(stderr, "fq-av-bench: the relay did not come up: %s\n", fqtest::read_file(dir / "relay.log").c_str());
        return 1;
    }

    TraceSemaphore trace_sem{dir / "worker-trace.log"};
    ChildGuard worker;
    if (!s_start_worker(o, url, dir, peer.get(), trace_sem.path, worker))
        return 1;
    const long worker_start_rss = proc_status_kib(worker.pid(), "VmRSS");

    ChildGuard perf_worker;
    ChildGuard perf_relay;
    if (!o.perf_dir.empty()) {
        mkdir(o.perf_dir.c_str(), 0755);
        auto record = [&](const char* name, pid_t pid) {
            return spawn_child({"perf", "record", "-F", "999", "-g", "-o", o.perf_dir + "/" + name + ".perf.data", "-p",
                                std::to_string(pid)},
                               o.perf_dir + "/" + name + ".perf.log");
        };
        perf_worker.reset(record("worker", worker.pid()));
        perf_relay.reset(record("relay", relay.pid()));
        fprintf(stderr, "recording worker (PID %d) and relay (PID %d) into %s\n", static_cast<int>(worker.pid()),
                static_cast<int>(relay.pid()), o.perf_dir.c_str());
    }

    Clients clients;
    if (!clients.connect(url, max_clients, &error)) {
        fprintf(stderr, "fq-av-bench: %s\n", error.c_str());
        return 1;
    }

    std::map<SeriesKey, std::map<Mode, SeriesResult>> results;
    std::vector<MemoryMark> memory;
    std::mt19937_64 rng(20240601);
    bool failed = false;
    for (size_t size : o.sizes) {
        std::string object(size, '\0');
        for (auto& ch : object)
            ch = static_cast<char>(rng());
        const int jobs = s_jobs_for(o, size);
        for (int nservices : o.service_counts) {
            const std::vector<std::string> named(s_service_names.begin(), s_service_names.begin() + nservices);
            for (int nclients : o.clients) {
                const SeriesKey key{nservices, size, nclients};
                for (int round = 0; round < o.rounds && !failed; ++round) {
                    for (Mode mode : o.modes) {
                        LoadSpec spec;
                        spec.mode = mode;
                        spec.object = &object;
                        spec.services = named;
                        spec.target = mode == Mode::Relay ? s_relay_subject : s_worker_subject;
                        spec.clients = nclients;
                        spec.jobs = jobs / o.rounds;
                        spec.warmup = round == 0 ? std::max(2 * nclients, 10) : nclients;
                        spec.watch = {broker.pid(), relay.pid(), worker.pid(), getpid()};
                        if (!clients.run(spec, broker, &results[key][mode])) {
                            failed = true;
                            break;
                        }
                    }
                }
                const auto& w = results[key][Mode::Worker];
                const auto& r = results[key][Mode::Relay];
                const auto& d = results[key][Mode::Direct];
                fprintf(stderr,
                        "%d service(s), %s, %d client(s): jobs/s direct %.0f relay %.0f worker %.0f; request p50 ms "
                        "direct %.2f relay %.2f worker %.2f; failed %d\n",
                        nservices, s_size_text(size).c_str(), nclients, d.jobs_per_s(), r.jobs_per_s(),
                        w.jobs_per_s(), d.request_percentile(0.5), r.request_percentile(0.5),
                        w.request_percentile(0.5), d.failures + r.failures + w.failures);
                for (const auto* s : {&d, &r, &w})
                    if (!s->first_failure.empty())
                        fprintf(stderr, "  first failure: %s\n", s->first_failure.c_str());
                if (failed || !worker.alive() || !relay.alive()) {
                    failed = true;
                    break;
                }
            }
            if (failed)
                break;
        }
        memory.push_back({size, proc_status_kib(worker.pid(), "VmHWM"), proc_status_kib(relay.pid(), "VmHWM"),
                          proc_status_kib(broker.pid(), "VmHWM"), proc_status_kib(getpid(), "VmHWM")});
        if (failed)
            break;
    }
    const std::string load_after = s_loadavg();
    perf_worker.terminate(30000);
    perf_relay.terminate(30000);
    const bool worker_alive = worker.alive();
    const int worker_status = worker.terminate(15000);
    relay.terminate(5000);
    if (failed || interrupted()) {
        fprintf(stderr, "fq-av-bench: stopped early (%s)%s\n", interrupted() ? "interrupted" : "a process died",
                worker_alive ? "" : "; the worker had died");
        if (!worker_alive)
            fprintf(stderr, "worker output:\n%s\n", fqtest::read_file(dir / "worker.log").c_str());
        return 1;
    }
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    s_print_report(o, results, memory, worker_start_rss, worker_status, load_before, load_after, wall);
    int failures = 0;
    for (const auto& [key, modes] : results)
        for (const auto& [mode, r] : modes)
            failures += r.failures;
    return failures ? 2 : 0;
}

}  // namespace

int main(int argc, char** argv)
{
    if (argc == 5 && strcmp(argv[1], "--relay-serve") == 0)
        return fqbench::relay_main(argv[2], argv[3], atoi(argv[4]));

    Options o;
    const int parsed = s_parse_options(argc, argv, &o);
    if (parsed != 0) {
        s_usage(parsed > 0 ? stdout : stderr);
        return parsed > 0 ? 0 : 64;
    }
    // The harness's own connections log only what goes wrong.
    log_set_level(FQLOG_ERROR);
    install_interrupt_handlers();
    return s_run(o);
}
