// fq-av-provision: creates on a NATS broker the KV buckets and the work-queue streams and consumers
// that fq-av-scanproxy and its peers bind to, before any of them starts. Safe to run again: what
// exists is left as it is. It only ever creates; it never deletes or changes a bucket or a stream.
#include <errno.h>
#include <getopt.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <string>

#include "fq_provision.h"
#include "log.h"

namespace {

void s_usage(FILE* out, const char* prog)
{
    fprintf(out,
            "Usage: %s [options]\n"
            "Creates the KV buckets fq-av-scan-data, fq-av-worker-registry and fq-av-wq-dedup and, for each\n"
            "service named, the work-queue stream JOBS_<service> on jobs.<service> with the durable pull\n"
            "consumer WORK_<service>. What exists already is left as it is.\n"
            "\n"
            "Options:\n"
            "  -b, --broker URL             broker URL (default nats://127.0.0.1:4222; tls:// for TLS)\n"
            "  -u, --user NAME              user name\n"
            "  -p, --password TEXT          password\n"
            "  -c, --broker-cert FILE       CA certificate that signed the broker's certificate\n"
            "  -s, --service NAME[,NAME]    service that gets a work queue; may be repeated\n"
            "      --scan-data-max-age D    max age of staged payloads (default 900s)\n"
            "      --registry-max-age D     max age of worker records (default 60s)\n"
            "      --dedup-max-age D        max age of cached verdicts (default 300s)\n"
            "      --jobs-max-age D         max age of unpulled jobs, 0 for none (default 3600s)\n"
            "      --ack-wait D             AckWait of the work-queue consumers (default 30s)\n"
            "      --max-deliver N          deliveries of one job, -1 for unlimited (default 5)\n"
            "      --replicas N             replicas of every stream (default 1)\n"
            "  -w, --wait D                 keep trying to reach the broker for this long (default 0)\n"
            "  -v, --verbose                log what is created or found\n"
            "  -q, --quiet                  no result line on success\n"
            "  -h, --help                   this text\n"
            "\n"
            "Durations D are numbers with an optional unit: ms, s (the default), m or h.\n"
            "Exit status: 0 when everything exists afterwards, 1 on a usage error, 2 when the broker refused.\n",
            prog);
}

// "1500ms", "30s", "30", "2m", "1h" in milliseconds; false for anything else.
bool s_parse_duration_ms(const char* text, int64_t* out)
{
    if (!text || !*text)
        return false;
    errno = 0;
    char* end = nullptr;
    const double v = strtod(text, &end);
    if (errno != 0 || end == text || v < 0)
        return false;
    double factor = 1000;
    if (strcmp(end, "ms") == 0)
        factor = 1;
    else if (strcmp(end, "s") == 0 || *end == '\0')
        factor = 1000;
    else if (strcmp(end, "m") == 0)
        factor = 60000;
    else if (strcmp(end, "h") == 0)
        factor = 3600000;
    else
        return false;
    const double ms = v * factor;
    if (ms > 9.2e15)
        return false;
    *out = (int64_t)ms;
    return true;
}

bool s_parse_int(const char* text, int64_t min, int64_t* out)
{
    if (!text || !*text)
        return false;
    errno = 0;
    char* end = nullptr;
    const long long v = strtoll(text, &end, 10);
    if (errno != 0 || *end != '\0' || v < min)
        return false;
    *out = v;
    return true;
}

}  // namespace

int main(int argc, char** argv)
{
    fq__progname = "fq-av-provision";
    std::string url = "nats://127.0.0.1:4222";
    std::string user, password, ca_file, services;
    int64_t wait_ms = 0;
    bool quiet = false;
    bool verbose = false;
    fq_provision_opts_t opts;
    fq_provision_opts_defaults(&opts);

    enum { OPT_SCAN_AGE = 1000, OPT_REG_AGE, OPT_DEDUP_AGE, OPT_JOBS_AGE, OPT_ACK_WAIT, OPT_MAX_DELIVER, OPT_REPLICAS };
    static const struct option long_opts[] = {
        {"broker", required_argument, nullptr, 'b'},
        {"user", required_argument, nullptr, 'u'},
        {"password", required_argument, nullptr, 'p'},
        {"broker-cert", required_argument, nullptr, 'c'},
        {"service", required_argument, nullptr, 's'},
        {"scan-data-max-age", required_argument, nullptr, OPT_SCAN_AGE},
        {"registry-max-age", required_argument, nullptr, OPT_REG_AGE},
        {"dedup-max-age", required_argument, nullptr, OPT_DEDUP_AGE},
        {"jobs-max-age", required_argument, nullptr, OPT_JOBS_AGE},
        {"ack-wait", required_argument, nullptr, OPT_ACK_WAIT},
        {"max-deliver", required_argument, nullptr, OPT_MAX_DELIVER},
        {"replicas", required_argument, nullptr, OPT_REPLICAS},
        {"wait", required_argument, nullptr, 'w'},
        {"quiet", no_argument, nullptr, 'q'},
        {"verbose", no_argument, nullptr, 'v'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };

    int c;
    int longindex = -1;
    while ((c = getopt_long(argc, argv, "b:u:p:c:s:w:qvh", long_opts, &longindex)) != -1) {
        bool ok = true;
        int64_t n = 0;
        switch (c) {
        case 'b':
            url = optarg;
            break;
        case 'u':
            user = optarg;
            break;
        case 'p':
            password = optarg;
            break;
        case 'c':
            ca_file = optarg;
            break;
        case 's':
            services += services.empty() ? optarg : std::string(",") + optarg;
            break;
        case 'w':
            ok = s_parse_duration_ms(optarg, &wait_ms);
            break;
        case 'q':
            quiet = true;
            break;
        case 'v':
            verbose = true;
            break;
        case 'h':
            s_usage(stdout, argv[0]);
            return 0;
        case OPT_SCAN_AGE:
            ok = s_parse_duration_ms(optarg, &opts.scan_data_max_age_ms) && opts.scan_data_max_age_ms > 0;
            break;
        case OPT_REG_AGE:
            ok = s_parse_duration_ms(optarg, &opts.registry_max_age_ms) && opts.registry_max_age_ms > 0;
            break;
        case OPT_DEDUP_AGE:
            ok = s_parse_duration_ms(optarg, &opts.dedup_max_age_ms) && opts.dedup_max_age_ms > 0;
            break;
        case OPT_JOBS_AGE:
            ok = s_parse_duration_ms(optarg, &opts.jobs_max_age_ms);
            break;
        case OPT_ACK_WAIT:
            ok = s_parse_duration_ms(optarg, &opts.ack_wait_ms) && opts.ack_wait_ms > 0;
            break;
        case OPT_MAX_DELIVER:
            ok = s_parse_int(optarg, -1, &n) && n != 0;
            opts.max_deliver = n;
            break;
        case OPT_REPLICAS:
            ok = s_parse_int(optarg, 1, &n) && n <= 5;
            opts.replicas = (int)n;
            break;
        default:
            s_usage(stderr, argv[0]);
            return 1;
        }
        if (!ok) {
            if (longindex >= 0)
                fprintf(stderr, "%s: invalid value '%s' for --%s\n", argv[0], optarg ? optarg : "",
                        long_opts[longindex].name);
            else
                fprintf(stderr, "%s: invalid value '%s' for -%c\n", argv[0], optarg ? optarg : "", c);
            return 1;
        }
        longindex = -1;
    }
    if (optind < argc) {
        fprintf(stderr, "%s: unexpected argument '%s' (see --help)\n", argv[0], argv[optind]);
        return 1;
    }
    // The result line says what failed; the trace lines are for --verbose.
    log_set_level(verbose ? FQLOG_INFO : FQLOG_OFF);

    natsConnection* conn = nullptr;
    jsCtx* js = nullptr;
    char errormsg[1024] = "";
    struct timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (;;) {
        const int rc = fq_provision_connect(url.c_str(), user.empty() ? nullptr : user.c_str(),
                                            password.empty() ? nullptr : password.c_str(),
                                            ca_file.empty() ? nullptr : ca_file.c_str(), &conn, &js, errormsg);
        if (rc == 0)
            break;
        struct timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        const int64_t elapsed = (int64_t)(now.tv_sec - start.tv_sec) * 1000 + (now.tv_nsec - start.tv_nsec) / 1000000;
        if (elapsed >= wait_ms) {
            fprintf(stderr, "%s: %s\n", argv[0], errormsg);
            return 2;
        }
        struct timespec pause = {0, 250 * 1000000L};
        nanosleep(&pause, nullptr);
    }

    const int rc = fq_provision_all(js, &opts, services.c_str(), errormsg);
    jsCtx_Destroy(js);
    natsConnection_Close(conn);
    natsConnection_Destroy(conn);
    if (rc != 0) {
        fprintf(stderr, "%s: %s\n", argv[0], errormsg);
        return 2;
    }
    if (!quiet)
        printf("%s: broker %s provisioned%s%s\n", argv[0], url.c_str(), services.empty() ? "" : " for ",
               services.c_str());
    return 0;
}
