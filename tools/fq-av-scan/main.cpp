// fq-av-scan: scans files and directory trees through the broker with fq-av-scanproxy and prints a
// verdict per file, the way command-line virus scanners do. It is the client end of a scan job: it
// reads each file, stages it, sends the job and removes the staging again, whatever the outcome.
// Anything but a verdict in the words of the wire is reported as an error, never as OK.
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <json-c/json.h>
#include <nats/nats.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "fq_connection_client.h"
#include "fq_nats_client.h"
#include "fq_raii.h"
#include "fqerror.h"
#include "fqhlp-string.h"
#include "log.h"
#include "scan_job.h"
#include "scan_transport.h"
#include "scan_walk.h"

namespace {

constexpr int64_t kObjectLenMax = 2147483647;  // ObjectLen is a signed 32-bit number on the wire
constexpr int kExitClean = 0;
constexpr int kExitFound = 1;
constexpr int kExitError = 2;

// Set by SIGINT/SIGTERM: no new file is started; those in flight finish and clean up.
std::atomic<int> s_interrupted{0};

void s_on_signal(int sig)
{
    (void)sig;
    s_interrupted = 1;
}

struct Options {
    std::string url = "nats://127.0.0.1:4222";
    std::string user;
    std::string password;
    std::string ca_file;
    fqscan::PolicyOptions policy;
    int64_t max_file_size = kObjectLenMax;
    int threads = 4;
    bool js = false;
    bool follow = false;
    bool verbose = false;
    bool json = false;
    bool infected_only = false;
    bool summary = true;
    bool ping = false;
    int log_level = FQLOG_OFF;
    std::vector<std::string> paths;
};

void s_usage(FILE* out, const char* prog)
{
    fprintf(out,
            "Usage: %s [options] PATH...\n"
            "Scans files and directory trees through the broker: each file is staged in the KV bucket\n"
            "fq-av-scan-data, scanned by fq-av-scanproxy and the services the policy names, and its staging\n"
            "is removed again (through an HTTP gateway, each file goes with its request and the gateway\n"
            "stages it). Prints one verdict per file:\n"
            "  PATH: OK                   clean\n"
            "  PATH: <reason> FOUND       malware found (code -210)\n"
            "  PATH: <reason> BLOCKED     policy violation (-200), active content (-202), blocked (-199),\n"
            "                             cleaned (-101) or scan not completed (-100)\n"
            "  PATH: ERROR <text>         the object could not be scanned; never taken as clean\n"
            "\n"
            "Broker:\n"
            "  -b, --broker URL           broker URL (default nats://127.0.0.1:4222; host:port means tls://host:port),\n"
            "                             or an HTTP gateway's http:// or https:// URL (path /vsi unless given)\n"
            "  -u, --user NAME            user name (at a gateway: Basic authentication)\n"
            "  -p, --password TEXT        password\n"
            "  -c, --broker-cert FILE     CA certificate that signed the broker's (or gateway's) certificate\n"
            "      --js                   send the jobs through the work queue jobs.fq-av-scanproxy\n"
            "                             (needs a worker started with --js-ingress)\n"
            "      --ping                 only check that a worker answers on fq-av-scanproxy.ping\n"
            "Policy (members of the scan job):\n"
            "  -P, --policy FILE          JSON object whose members replace the defaults\n"
            "  -s, --services LIST        Services, ';'-separated (default %s)\n"
            "  -t, --timeout MS           SCANTIMEOUT, the scan's time budget (default %d)\n"
            "  -m, --max-size BYTES       SCAN_MAX_SIZE: larger objects are blocked by the worker (default 0, none)\n"
            "  -d, --depth N              SCANEXTRACT_DEPTH, archive nesting to unpack (default %d)\n"
            "Files:\n"
            "      --max-file-size BYTES  larger files are reported as ERROR and not sent (default and\n"
            "                             largest 2147483647)\n"
            "  -f, --follow               follow symbolic links met inside directory trees\n"
            "  -j, --threads N            files scanned at once (default 4)\n"
            "Output:\n"
            "  -v, --verbose              also print the verdict on each file found inside an object,\n"
            "                             and what was skipped\n"
            "      --json                 print each reply as one JSON object per line, with \"path\" added\n"
            "  -i, --infected             print only files that are not clean\n"
            "      --no-summary           no summary at the end\n"
            "      --log-level N          diagnostics of the messaging layer on stderr, 0 (off) to 6\n"
            "  -h, --help                 this text\n"
            "\n"
            "Sizes take an optional suffix K, M or G (powers of 1024).\n"
            "Exit status: 0 all clean, 1 something found or blocked, 2 an error (2 wins over 1).\n",
            prog, fqscan::kDefaultServices, fqscan::kDefaultScanTimeoutMs, fqscan::kDefaultExtractDepth);
}

bool s_parse_int(const char* text, int64_t min, int64_t max, int64_t* out)
{
    if (!text || !*text)
        return false;
    errno = 0;
    char* end = nullptr;
    const long long v = strtoll(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || v < min || v > max)
        return false;
    *out = v;
    return true;
}

// 0 ok, 1 --help printed, -1 usage error (message printed).
int s_parse_args(int argc, char** argv, Options* o)
{
    enum { OPT_JS = 1000, OPT_PING, OPT_MAX_FILE, OPT_JSON, OPT_NO_SUMMARY, OPT_LOG_LEVEL };
    static const struct option long_opts[] = {
        {"broker", required_argument, nullptr, 'b'},
        {"user", required_argument, nullptr, 'u'},
        {"password", required_argument, nullptr, 'p'},
        {"broker-cert", required_argument, nullptr, 'c'},
        {"js", no_argument, nullptr, OPT_JS},
        {"ping", no_argument, nullptr, OPT_PING},
        {"policy", required_argument, nullptr, 'P'},
        {"services", required_argument, nullptr, 's'},
        {"timeout", required_argument, nullptr, 't'},
        {"max-size", required_argument, nullptr, 'm'},
        {"depth", required_argument, nullptr, 'd'},
        {"max-file-size", required_argument, nullptr, OPT_MAX_FILE},
        {"follow", no_argument, nullptr, 'f'},
        {"threads", required_argument, nullptr, 'j'},
        {"verbose", no_argument, nullptr, 'v'},
        {"json", no_argument, nullptr, OPT_JSON},
        {"infected", no_argument, nullptr, 'i'},
        {"no-summary", no_argument, nullptr, OPT_NO_SUMMARY},
        {"log-level", required_argument, nullptr, OPT_LOG_LEVEL},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    int c;
    int longindex = -1;
    while ((c = getopt_long(argc, argv, "b:u:p:c:P:s:t:m:d:fj:vih", long_opts, &longindex)) != -1) {
        bool ok = true;
        int64_t n = 0;
        switch (c) {
        case 'b':
            o->url = fq_connection_endpoint_url(optarg);
            break;
        case 'u':
            o->user = optarg;
            break;
        case 'p':
            o->password = optarg;
            break;
        case 'c':
            o->ca_file = optarg;
            break;
        case OPT_JS:
            o->js = true;
            break;
        case OPT_PING:
            o->ping = true;
            break;
        case 'P':
            o->policy.policy_file = optarg;
            break;
        case 's':
            o->policy.services = optarg;
            ok = *optarg != '\0';
            break;
        case 't':
            ok = s_parse_int(optarg, 0, INT32_MAX, &o->policy.timeout_ms);
            break;
        case 'm':
            ok = fqhlp_parse_size(optarg, INT32_MAX, &o->policy.max_size);
            break;
        case 'd':
            ok = s_parse_int(optarg, 0, INT32_MAX, &o->policy.depth);
            break;
        case OPT_MAX_FILE:
            ok = fqhlp_parse_size(optarg, kObjectLenMax, &o->max_file_size);
            break;
        case 'f':
            o->follow = true;
            break;
        case 'j':
            ok = s_parse_int(optarg, 1, 256, &n);
            o->threads = (int)n;
            break;
        case 'v':
            o->verbose = true;
            break;
        case OPT_JSON:
            o->json = true;
            break;
        case 'i':
            o->infected_only = true;
            break;
        case OPT_NO_SUMMARY:
            o->summary = false;
            break;
        case OPT_LOG_LEVEL:
            ok = s_parse_int(optarg, 0, 6, &n);
            o->log_level = (int)n;
            break;
        case 'h':
            s_usage(stdout, argv[0]);
            return 1;
        default:
            fprintf(stderr, "%s: see --help\n", argv[0]);
            return -1;
        }
        if (!ok) {
            if (longindex >= 0)
                fprintf(stderr, "%s: invalid value '%s' for --%s\n", argv[0], optarg ? optarg : "",
                        long_opts[longindex].name);
            else
                fprintf(stderr, "%s: invalid value '%s' for -%c\n", argv[0], optarg ? optarg : "", c);
            return -1;
        }
        longindex = -1;
    }
    for (int i = optind; i < argc; ++i)
        o->paths.emplace_back(argv[i]);
    if (o->paths.empty() && !o->ping) {
        fprintf(stderr, "%s: no file or directory to scan (see --help)\n", argv[0]);
        return -1;
    }
    return 0;
}

double s_seconds_since(std::chrono::steady_clock::time_point t0)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Owns a connection record filled from the options.
struct Connection {
    fq_connection_config* cfg = nullptr;
    ~Connection()
    {
        if (!cfg)
            return;
        fq_connection_deinit(cfg);
        free(cfg->server_url);
        free(cfg->user);
        free(cfg->password);
        free(cfg->cert_path);
        free(cfg);
    }
};

bool s_connect(const Options& o, Connection* c, std::string* error)
{
    c->cfg = fq_connection_config_new();
    if (!c->cfg) {
        *error = "out of memory";
        return false;
    }
    c->cfg->server_url = strdup(o.url.c_str());
    if (!o.user.empty())
        c->cfg->user = strdup(o.user.c_str());
    if (!o.password.empty())
        c->cfg->password = strdup(o.password.c_str());
    if (!o.ca_file.empty())
        c->cfg->cert_path = strdup(o.ca_file.c_str());
    if (is_http_url(o.url.c_str()) && o.js) {
        *error = "--js needs the broker itself; a gateway decides how it reaches the worker";
        return false;
    }
    // The facade hands over a handle that keeps trying in the background; a client wants an answer now.
    const int rc = fq_connection_init(c->cfg);
    char why[512] = "";
    if (rc != 0 || fq_connection_state(c->cfg, why, sizeof(why)) != FQ_CONNECTION_UP) {
        const char* last = nats_GetLastError(nullptr);
        if (rc != 0 && is_http_url(o.url.c_str()))
            last = "cannot initialise cURL";
        *error = "cannot connect to the broker at " + o.url + ": " +
                 (why[0] ? why : (last && *last ? last : "see the log above"));
        return false;
    }
    return true;
}

// The output of the run: verdict lines, counters, the progress line. One lock for all of it, so
// that lines of different threads never mix.
class Report {
public:
    Report(const Options& o, size_t total) : opts_(o), total_(total), t0_(std::chrono::steady_clock::now())
    {
        progress_ = isatty(STDERR_FILENO) && !o.json;
    }

    void skipped(const std::string& path, const std::string& why)
    {
        if (!opts_.verbose || opts_.json)
            return;
        std::lock_guard<std::mutex> lock(mu_);
        clear_progress();
        printf("%s: %s SKIPPED\n", path.c_str(), why.c_str());
        fflush(stdout);
    }

    void result(const std::string& path, const fqscan::Outcome& out, uint64_t bytes = 0)
    {
        std::lock_guard<std::mutex> lock(mu_);
        ++done_;
        bytes_ += bytes;
        switch (out.verdict) {
        case fqscan::Verdict::Ok:
            ++clean_;
            break;
        case fqscan::Verdict::Found:
            ++found_;
            break;
        case fqscan::Verdict::Blocked:
            ++blocked_;
            break;
        case fqscan::Verdict::Error:
            ++errors_;
            break;
        }
        if (opts_.json) {
            clear_progress();
            print_json(path, out);
        } else if (!opts_.infected_only || out.verdict != fqscan::Verdict::Ok) {
            clear_progress();
            printf("%s: %s\n", path.c_str(), fqscan::verdict_text(out).c_str());
            if (opts_.verbose)
                for (const std::string& line : fqscan::entry_lines(out))
                    printf("  %s\n", line.c_str());
        }
        fflush(stdout);
    }

    // Called every 250 ms by the progress thread; shows nothing during the first two seconds.
    void tick()
    {
        std::lock_guard<std::mutex> lock(mu_);
        const double secs = s_seconds_since(t0_);
        if (!progress_ || secs < 2.0)
            return;
        const double mb = (double)bytes_ / 1e6;
        fprintf(stderr, "\r\033[K[fq-av-scan] %zu/%zu files, %.1f MB, %.1f files/s, %.1f MB/s, %zu found/blocked, %zu errors",
                done_, total_, mb, (double)done_ / secs, mb / secs, found_ + blocked_, errors_);
        fflush(stderr);
        shown_ = true;
    }

    void finish()
    {
        std::lock_guard<std::mutex> lock(mu_);
        clear_progress();
        if (!opts_.summary)
            return;
        // With --json stdout holds only JSON lines.
        FILE* out = opts_.json ? stderr : stdout;
        fprintf(out,
                "\n----------- SCAN SUMMARY -----------\n"
                "Scanned files: %zu\n"
                "Clean: %zu\n"
                "Found: %zu\n"
                "Blocked: %zu\n"
                "Errors: %zu\n"
                "Time: %.3f s\n",
                done_, clean_, found_, blocked_, errors_, s_seconds_since(t0_));
        fflush(out);
    }

    int exit_status() const
    {
        std::lock_guard<std::mutex> lock(mu_);
        if (errors_ > 0 || s_interrupted)
            return kExitError;
        if (found_ + blocked_ > 0)
            return kExitFound;
        return kExitClean;
    }

private:
    void clear_progress()
    {
        if (!shown_)
            return;
        fprintf(stderr, "\r\033[K");
        fflush(stderr);
        shown_ = false;
    }

    void print_json(const std::string& path, const fqscan::Outcome& out)
    {
        json_object* line = nullptr;
        if (out.reply) {
            line = json_object_new_object();
            json_object_object_add(line, "path", json_object_new_string(path.c_str()));
            json_object_object_foreach(out.reply, key, value)
            {
                if (strcmp(key, "path") != 0)
                    json_object_object_add(line, key, json_object_get(value));
            }
            // A reply that is not a verdict says why it was not taken as one.
            if (out.verdict == fqscan::Verdict::Error && out.rc != -1000)
                json_object_object_add(line, "ClientError", json_object_new_string(out.reason.c_str()));
        } else {
            line = json_object_new_object();
            json_object_object_add(line, "path", json_object_new_string(path.c_str()));
            json_object_object_add(line, "ReturnCode", json_object_new_int(-1000));
            json_object_object_add(line, "Error", json_object_new_string(out.reason.c_str()));
            json_object_object_add(line, "ClientError", json_object_new_string(out.reason.c_str()));
        }
        printf("%s\n", json_object_to_json_string_ext(line, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE));
        json_object_put(line);
    }

    const Options& opts_;
    mutable std::mutex mu_;
    size_t total_;
    size_t done_ = 0, clean_ = 0, found_ = 0, blocked_ = 0, errors_ = 0;
    std::chrono::steady_clock::time_point t0_;
    bool progress_ = false;
    uint64_t bytes_ = 0;
    bool shown_ = false;
};

std::string s_basename(const std::string& path)
{
    const size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// The whole file, read into memory; false with the reason in *error.
bool s_read_file(const fqscan::WalkItem& item, int64_t limit, std::vector<unsigned char>* data, std::string* error)
{
    // Non-blocking, so that a file turned into a FIFO since the walk cannot hang the scan.
    const int flags = O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK | (item.nofollow ? O_NOFOLLOW : 0);
    fq_fd_guard f(open(item.path.c_str(), flags));
    if (!f) {
        *error = FQstrerror(errno);
        return false;
    }
    struct stat st;
    if (fstat(f.get(), &st) != 0) {
        *error = FQstrerror(errno);
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        *error = "not a regular file";
        return false;
    }
    if (st.st_size > limit) {
        *error = "file too large to send (" + std::to_string((long long)st.st_size) + " bytes, limit " +
                 std::to_string((long long)limit) + ")";
        return false;
    }
    data->resize((size_t)st.st_size);
    size_t got = 0;
    while (got < data->size()) {
        const ssize_t n = read(f.get(), data->data() + got, data->size() - got);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0) {
            *error = FQstrerror(errno);
            return false;
        }
        if (n == 0)
            break;
        got += (size_t)n;
    }
    if (got != data->size()) {
        *error = "file changed while it was read";
        return false;
    }
    return true;
}

fqscan::Outcome s_scan_file(const Options& o, fq_connection_config* cfg, json_object* policy,
                            const fqscan::WalkItem& item)
{
    std::vector<unsigned char> data;
    std::string error;
    if (!s_read_file(item, o.max_file_size, &data, &error))
        return fqscan::error_outcome(error);
    const size_t size = data.size();

    const int64_t wait_ms = fqscan::reply_wait_ms(policy);
    std::string reply;
    if (is_http_url(cfg->server_url)) {
        // Through a gateway the bytes go with the request, and the gateway stages them.
        const std::string job =
            fqscan::job_text(policy, s_basename(item.path), size, fqscan::new_event_id(), nullptr);
        if (job.empty())
            return fqscan::error_outcome("out of memory");
        if (!fqscan::request_gateway(cfg, job, data.data(), size, wait_ms, &reply, &error))
            return fqscan::error_outcome(error);
        return fqscan::interpret_reply(reply.data(), reply.size());
    }
    // Removed again when the scan of this file ends, whatever way it ends.
    fq_staged_key staging(cfg);
    // An empty object has nothing to stage: the job alone says that it is empty.
    if (size > 0) {
        char errbuf[1024] = "";
        if (fq_connection_stage_scan_data(cfg, data.data(), size, (uint64_t)wait_ms, &staging.key, errbuf) != 0 ||
            !staging.key)
            return fqscan::error_outcome(std::string("staging failed: ") +
                                         (errbuf[0] ? errbuf : "the KV bucket refused the object"));
    }
    std::vector<unsigned char>().swap(data);  // the broker has the bytes now

    const std::string job =
        fqscan::job_text(policy, s_basename(item.path), size, fqscan::new_event_id(), staging.key);
    if (job.empty())
        return fqscan::error_outcome("out of memory");
    const bool got = o.js ? fqscan::request_work_queue(cfg, job, wait_ms, &reply, &error)
                          : fqscan::request_core(cfg, job, wait_ms, &reply, &error);
    if (!got)
        return fqscan::error_outcome(error);
    return fqscan::interpret_reply(reply.data(), reply.size());
}

// Wakes every 250 ms to redraw the progress line until stopped.
class Ticker {
public:
    explicit Ticker(Report* r) : report_(r), th_([this] { run(); }) {}
    ~Ticker()
    {
        {
            std::lock_guard<std::mutex> lock(mu_);
            stop_ = true;
        }
        cv_.notify_all();
        th_.join();
    }

private:
    void run()
    {
        std::unique_lock<std::mutex> lock(mu_);
        while (!cv_.wait_for(lock, std::chrono::milliseconds(250), [this] { return stop_; }))
            report_->tick();
    }
    Report* report_;
    std::mutex mu_;
    std::condition_variable cv_;
    bool stop_ = false;
    std::thread th_;
};

}  // namespace

int main(int argc, char** argv)
{
    fq__progname = "fq-av-scan";
    Options opts;
    const int parsed = s_parse_args(argc, argv, &opts);
    if (parsed != 0)
        return parsed > 0 ? kExitClean : kExitError;
    log_set_level(opts.log_level);

    char host[256] = "";
    if (gethostname(host, sizeof(host) - 1) != 0)
        host[0] = '\0';
    std::string error;
    fq_json_ptr policy(fqscan::build_policy(opts.policy, host, &error));
    if (!policy) {
        fprintf(stderr, "%s: %s\n", argv[0], error.c_str());
        return kExitError;
    }

    // A second Ctrl-C ends the program at once.
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = s_on_signal;
    sa.sa_flags = SA_RESETHAND;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);

    Connection conn;
    if (!s_connect(opts, &conn, &error)) {
        fprintf(stderr, "%s: %s\n", argv[0], error.c_str());
        return kExitError;
    }
    if (opts.ping) {
        if (!fqscan::ping_worker(conn.cfg, 2000, &error)) {
            fprintf(stderr, "%s: %s\n", argv[0], error.c_str());
            return kExitError;
        }
        printf("%s.ping: alive\n", fqscan::kWorkerService);
        return kExitClean;
    }
    // Staging needs JetStream and the bucket; a gateway stages for its clients.
    const bool gateway = is_http_url(opts.url.c_str());
    if (!gateway && !conn.cfg->_js) {
        fprintf(stderr, "%s: the broker at %s has no JetStream; staging needs it\n", argv[0], opts.url.c_str());
        return kExitError;
    }
    if (!gateway && !get_kvstore(conn.cfg)) {
        fprintf(stderr, "%s: the KV bucket %s does not exist on %s (provision the broker with fq-av-provision)\n",
                argv[0], FQ_KV_SCAN_DATA_BUCKET, opts.url.c_str());
        return kExitError;
    }

    const std::vector<fqscan::WalkItem> items = fqscan::collect_files(opts.paths, opts.follow);
    size_t total = 0;
    for (const auto& it : items)
        total += it.skipped.empty() ? 1 : 0;
    Report report(opts, total);
    {
        Ticker ticker(&report);
        std::atomic<size_t> next{0};
        auto work = [&] {
            for (;;) {
                if (s_interrupted)
                    return;
                const size_t i = next.fetch_add(1);
                if (i >= items.size())
                    return;
                const fqscan::WalkItem& item = items[i];
                if (!item.skipped.empty())
                    report.skipped(item.path, item.skipped);
                else if (!item.error.empty())
                    report.result(item.path, fqscan::error_outcome(item.error));
                else {
                    fqscan::Outcome out = s_scan_file(opts, conn.cfg, policy.get(), item);
                    struct stat st;
                    report.result(item.path, out, stat(item.path.c_str(), &st) == 0 ? (uint64_t)st.st_size : 0);
                }
            }
        };
        const size_t n = std::min<size_t>((size_t)opts.threads, items.empty() ? 1 : items.size());
        std::vector<std::thread> pool;
        for (size_t t = 1; t < n; ++t)
            pool.emplace_back(work);
        work();
        for (auto& th : pool)
            th.join();
    }
    if (s_interrupted)
        fprintf(stderr, "%s: interrupted; files not started were not scanned\n", argv[0]);
    report.finish();
    return report.exit_status();
}
