// The clients: N threads, each on its own connection, staging an object and sending its job the way
// a client of the worker does, and what one series of jobs measured.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "bench_env.h"
#include "fq_connection_client.h"

namespace fqbench {

enum class Mode { Direct, Relay, Worker };
const char* mode_name(Mode mode);

struct LoadSpec {
    Mode mode = Mode::Direct;
    const std::string* object = nullptr;  // the bytes every job stages
    std::vector<std::string> services;    // named by each job, in order
    std::string target;                   // subject of the job for Relay and Worker
    int clients = 1;
    int jobs = 0;     // measured
    int warmup = 0;   // run first, not measured
    std::vector<pid_t> watch;             // processes whose CPU time the measured jobs are charged
};

struct SeriesResult {
    int jobs = 0;
    int failures = 0;
    double seconds = 0;                // wall time of the measured jobs
    std::vector<double> latency_ms;    // stage, job, reply, unstage: what one client waits for
    std::vector<double> request_ms;    // from sending the job to its verdict: the part the middle changes
    int64_t in_bytes = 0;              // published to the server during the measured jobs
    int64_t out_bytes = 0;             // delivered by the server during the measured jobs
    int64_t in_msgs = 0;
    std::vector<double> cpu_ms;        // CPU time of each watched process during the measured jobs
    std::string first_failure;

    void add(const SeriesResult& other);
    double jobs_per_s() const { return seconds > 0 ? jobs / seconds : 0; }
    // Nearest-rank percentiles, p in (0, 1], of the job latencies and of the request latencies.
    double percentile(double p) const { return percentile_of(latency_ms, p); }
    double request_percentile(double p) const { return percentile_of(request_ms, p); }
    static double percentile_of(const std::vector<double>& values, double p);
};

class Clients {
public:
    Clients() = default;
    ~Clients();
    Clients(const Clients&) = delete;
    Clients& operator=(const Clients&) = delete;
    bool connect(const std::string& url, int count, std::string* error);

    // Runs the warm-up, then the measured jobs with the broker's counters read around them.
    bool run(const LoadSpec& spec, const Broker& broker, SeriesResult* out);

private:
    std::vector<fq_connection_config*> conns_;
};

// The job a client sends for an object staged under key.
std::string make_scan_job(const std::string& name, size_t object_len, const std::vector<std::string>& services,
                          const std::string& key);

}  // namespace fqbench
