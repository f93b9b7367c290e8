// The worker process from main to exit. The command line; the dispatcher that every client request
// passes through (parse, ObjectLen and EventID checks, then the scan handler); the thread records and
// load figures; and the process's life: start-up in a fixed order, the record in the registry, the
// 250 ms supervision loop and the stop sequence. main itself never scans: it starts the serving
// threads, watches the stop flag and ends with 0 after an orderly stop, -1 after a failed start. The
// dispatcher never answers a scan as clean unless the scan handler did.
#include "fq_worker.h"

#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "fqerror.h"
#include "fq_service_manager.h"
#include "fq_log.h"
#include "fq_worker_ping.h"
#include "fq_worker_ping_handler.h"
#include "fqhlp-string.h"
#include "fqhlp_buffer_file.h"
#include "fqhlp_parse_url.h"
#include "fqhlp_replies.h"
#include "fqhlp_timeout.h"
#include "log-helper.h"
#include "log.h"

fq_stop_flag_t killed{0};

// ---------------------------------------------------------------------------
// Command line

namespace {

enum : int {
    OPT_JS_INGRESS = 1000,
    OPT_JS_WORKER_THREADS = 1001,
    OPT_SCAN_SLOTS = 1002,
    OPT_JS_SERVICES = 1003,
};

const char* const s_short_options = "a:b:c:de:g:h:ij:k:l:m:n:op:qrst:v:w:xy:z:A:B:C:D:E:F:GH:I:J:K";

const struct option s_long_options[] = {
    {"basedir", required_argument, nullptr, 'a'},
    {"tempdir", required_argument, nullptr, 'b'},
    {"work-directory", required_argument, nullptr, 'c'},
    {"primary", no_argument, nullptr, 'd'},
    {"broker", required_argument, nullptr, 'e'},
    {"worker-threads", required_argument, nullptr, 'g'},
    {"control-connection-timeout", required_argument, nullptr, 'h'},
    {"autoscale", no_argument, nullptr, 'i'},
    {"autoscale-monitoring-period", required_argument, nullptr, 'j'},
    {"autoscale-high-water-mark", required_argument, nullptr, 'k'},
    {"autoscale-low-water-mark", required_argument, nullptr, 'l'},
    {"tracelevel", required_argument, nullptr, 'm'},
    {"tracefile", required_argument, nullptr, 'n'},
    {"tracefile-maxsize", required_argument, nullptr, 'E'},
    {"trace-to-screen", no_argument, nullptr, 'o'},
    {"update-server", required_argument, nullptr, 'p'},
    {"update-engine", no_argument, nullptr, 'q'},
    {"update-data", no_argument, nullptr, 'r'},
    {"update-binary", no_argument, nullptr, 's'},
    {"http-proxy", required_argument, nullptr, 't'},
    {"update-check-interval", required_argument, nullptr, 'v'},
    {"update-max-backups", required_argument, nullptr, 'w'},
    {"console-mode", no_argument, nullptr, 'x'},
    {"broker-user", required_argument, nullptr, 'y'},
    {"broker-password", required_argument, nullptr, 'z'},
    {"broker-cert", required_argument, nullptr, 'A'},
    {"signal_when_ready", required_argument, nullptr, 'B'},
    {"shutdown_when_ready", required_argument, nullptr, 'C'},
    {"secret", required_argument, nullptr, 'D'},
    {"config-file", required_argument, nullptr, 'F'},
    {"debug", no_argument, nullptr, 'G'},
    {"register-interval", required_argument, nullptr, 'H'},
    {"quarantine_base_path", required_argument, nullptr, 'I'},
    {"quarantine_service_key", required_argument, nullptr, 'J'},
    {"no_certificate_check", no_argument, nullptr, 'K'},
    {"js-ingress", no_argument, nullptr, OPT_JS_INGRESS},
    {"js-worker-threads", required_argument, nullptr, OPT_JS_WORKER_THREADS},
    {"scan-slots", required_argument, nullptr, OPT_SCAN_SLOTS},
    {"js-services", required_argument, nullptr, OPT_JS_SERVICES},
    {nullptr, 0, nullptr, 0},
};

// strtol with base 10; a value that does not fit an int is a range error too,
// since every number option is kept as an int.
bool s_to_long(const char* text, long* out)
{
    errno = 0;
    long value = strtol(text, nullptr, 10);
    if (errno == 0 && (value > INT_MAX || value < INT_MIN))
        errno = ERANGE;
    if (errno != 0) {
        log_error("Failed to convert %s to int: %s", "optarg", FQstrerror(errno));
        return false;
    }
    *out = value;
    return true;
}

// Replaces *field with a copy of text; false (after the message) if the copy fails.
bool s_store(char** field, const char* text, const char* what)
{
    char* copy = strdup(text);
    if (!copy) {
        log_error("Failed to store %s", what);
        return false;
    }
    free(*field);
    *field = copy;
    return true;
}

bool s_store_stderr(char** field, const char* text, const char* what)
{
    char* copy = strdup(text);
    if (!copy) {
        fprintf(stderr, "Failed to store %s\n", what);
        return false;
    }
    free(*field);
    *field = copy;
    return true;
}

bool s_is_nats_url(const char* endpoint)
{
    for (const char* prefix : {"nats://", "tls://", "ws://", "wss://"}) {
        if (strncmp(endpoint, prefix, strlen(prefix)) == 0)
            return true;
    }
    return false;
}

bool s_store_broker(fq_connection_config* cc, const char* endpoint)
{
    if (s_is_nats_url(endpoint))
        return s_store(&cc->server_url, endpoint, "broker endpoint");
    URL_INFO info{};
    if (!fqhlp_split_url(&info, endpoint) || !s_store(&cc->broker_host, info.site, "broker endpoint") ||
        !s_store(&cc->broker_port, info.port, "broker endpoint")) {
        log_error("Failed to store broker endpoint");
        return false;
    }
    return true;
}

template <typename T>
void s_store_in_range(T* field, long value, long lo, long hi)
{
    if (value >= lo && value <= hi)
        *field = static_cast<T>(value);
}

}  // namespace

void fq_worker_config_set_defaults(fq_worker_config_t* config)
{
    config->worker_threads = 50;
    config->load_hwm = 75;
    config->load_lwm = 10;
    config->load_sampling_period = 60;
    config->control_timeout = 10;
    config->register_interval = 5;
    config->IsPrimary = false;
    config->console_mode = false;
}

int fqworker_parse_commandline(fq_worker_config_t* config, int argc, char** argv)
{
    if (!config || !config->connection_config || !config->update_config || !config->network_config)
        return -1;
    fq_connection_config* cc = config->connection_config;
    fq_update_config_t* uc = config->update_config;

    optind = 0;  // full re-initialisation, so the parser can run more than once in a process
    int c;
    long n = 0;
    while ((c = getopt_long(argc, argv, s_short_options, s_long_options, nullptr)) != -1) {
        switch (c) {
        case 'a':
            if (!s_store(&config->basedir, optarg, "basedir"))
                return -1;
            break;
        case 'b':
            if (!s_store(&config->tempdir, optarg, "tempdir"))
                return -1;
            break;
        case 'c':
            if (!s_store(&config->progdir, optarg, "work-directory"))
                return -1;
            break;
        case 'd':
            config->IsPrimary = true;
            break;
        case 'e':
            if (!s_store_broker(cc, optarg))
                return -1;
            break;
        case 'g':
            if (!s_to_long(optarg, &n))
                return -1;
            config->worker_threads = static_cast<int>(n);
            break;
        case 'h':
            if (!s_to_long(optarg, &n))
                return -1;
            s_store_in_range(&config->control_timeout, n, 1, 59);
            break;
        case 'i':
            config->autoscale = true;
            break;
        case 'j':
            if (!s_to_long(optarg, &n))
                return -1;
            s_store_in_range(&config->load_sampling_period, n, 2, 119);
            break;
        case 'k':
            if (!s_to_long(optarg, &n))
                return -1;
            s_store_in_range(&config->load_hwm, n, 2, 99);
            break;
        case 'l':
            if (!s_to_long(optarg, &n))
                return -1;
            s_store_in_range(&config->load_lwm, n, 6, 99);
            break;
        case 'm':
            if (!s_to_long(optarg, &n))
                return -1;
            s_store_in_range(&config->tracelevel, n, 0, 6);
            break;
        case 'n':
            if (!s_store(&config->tracefile, optarg, "tracefile"))
                return -1;
            break;
        case 'E':
            if (!s_to_long(optarg, &n))
                return -1;
            s_store_in_range(&config->tracefile_maxsize, n, 0, INT_MAX);
            break;
        case 'o':
            config->trace_to_screen = true;
            log_set_screentrace(1);
            break;
        case 'p':
            if (!s_store_stderr(&uc->update_server, optarg, "update-server"))
                return -1;
            break;
        case 'q':
            uc->update_engine = true;
            break;
        case 'r':
            uc->update_data = true;
            break;
        case 's':
            uc->update_binary = true;
            break;
        case 't':
            if (!s_store_stderr(&config->network_config->http_proxy, optarg, "http-proxy"))
                return -1;
            break;
        case 'v':
            if (!s_to_long(optarg, &n))
                return -1;
            uc->update_check_interval = static_cast<time_t>(n);
            break;
        case 'w':
            if (!s_to_long(optarg, &n))
                return -1;
            uc->update_max_backups = static_cast<int>(n);
            break;
        case 'x':
            config->console_mode = true;
            break;
        case 'y':
            if (!s_store(&cc->broker_user, optarg, "broker_user"))
                return -1;
            break;
        case 'z':
            if (!s_store(&cc->broker_password, optarg, "broker_password"))
                return -1;
            break;
        case 'A':
            if (!s_store(&cc->cert_path, optarg, "cert_path"))
                return -1;
            break;
        case 'B':
            if (!s_store(&config->signal_when_ready, optarg, "signal_when_ready"))
                return -1;
            log_info("Signaling READY to \"%s\"", config->signal_when_ready);
            break;
        case 'C':
            if (!s_store(&config->shutdown_when_ready, optarg, "shutdown_when_ready"))
                return -1;
            break;
        case 'D':
            if (!s_store(&config->secret, optarg, "shutdown_secret"))
                return -1;
            break;
        case 'F':
        case 'I':
        case 'J':
            break;  // accepted for compatibility; the worker has no use for them
        case 'G':
            printf("PID: %d\n", getpid());
            printf("Press ENTER to continue...");
            fflush(stdout);
            (void)getchar();
            break;
        case 'H':
            if (!s_to_long(optarg, &n))
                return -1;
            config->register_interval = static_cast<int>(n);
            break;
        case 'K':
            uc->no_certificate_check = true;
            break;
        case OPT_JS_INGRESS:
            config->js_ingress_enabled = true;
            break;
        case OPT_JS_WORKER_THREADS:
            if (!s_to_long(optarg, &n))
                return -1;
            config->js_worker_threads = static_cast<int>(n);
            break;
        case OPT_SCAN_SLOTS:
            if (!s_to_long(optarg, &n))
                return -1;
            config->scan_slots = static_cast<int>(n);
            break;
        case OPT_JS_SERVICES:
            if (!s_store(&cc->js_services, optarg, "js_services"))
                return -1;
            break;
        default:
            if (optopt > 0 && optopt < 256 && optopt != '?')
                log_warn("Ignoring unrecognized command-line option '-%c'", optopt);
            else
                log_warn("Ignoring unrecognized command-line option (see stderr for its name)");
            break;
        }
    }
    return 0;
}

// ---------------------------------------------------------------------------
// Request texts

json_object* fq_worker_parse_request_json(const char* text)
{
    json_tokener* tok = json_tokener_new();
    if (!tok) {
        log_error("Failed to create JSON tokener");
        return nullptr;
    }
    json_object* obj = json_tokener_parse_ex(tok, text, static_cast<int>(strlen(text)));
    const json_tokener_error jerr = json_tokener_get_error(tok);
    json_tokener_free(tok);
    // A text that parses to something other than an object is no request either.
    if (!obj || jerr != json_tokener_success || !json_object_is_type(obj, json_type_object)) {
        log_error("Failed to parse JSON. Errorcode: %s. JSON: \n",
                  jerr != json_tokener_success ? json_tokener_error_desc(jerr) : "not a JSON object");
        if (obj)
            json_object_put(obj);
        return nullptr;
    }
    return obj;
}

int fq_worker_read_command(json_object* request)
{
    json_object* value = nullptr;
    if (!json_object_object_get_ex(request, "Command", &value)) {
        log_warn("Object %s not found", "Command");
        return -1;
    }
    return json_object_get_int(value);
}

const char* fq_worker_read_mandatory_string(json_object* obj, const char* key)
{
    json_object* value = nullptr;
    if (!json_object_object_get_ex(obj, key, &value)) {
        log_error("Failed to read %s from JSON", key);
        return nullptr;
    }
    const char* text = json_object_get_string(value);
    if (!text || !*text) {
        log_error("Key %s found, but value is empty", key);
        return nullptr;
    }
    return text;
}

// ---------------------------------------------------------------------------
// Client request dispatch

namespace {

long s_elapsed_ms(const struct timespec& since)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (now.tv_sec - since.tv_sec) * 1000L + (now.tv_nsec - since.tv_nsec) / 1000000L;
}

// Checks a scan request and hands it on; the result is the handler's rc.
int s_dispatch_scan(fq_const_request_reply_t* rr, json_object* request_json, fq_worker_thread_t* thread, bool clean)
{
    log_info("SCAN request received");
    int object_len = 0;
    json_object* value = nullptr;
    if (json_object_object_get_ex(request_json, "ObjectLen", &value))
        object_len = json_object_get_int(value);
    else
        log_warn("Object %s not found", "ObjectLen");

    const fq_const_message_t* request = rr->request;
    const bool has_data = request->data != nullptr && request->data_len != 0;
    if (has_data && (object_len < 0 || static_cast<size_t>(object_len) != request->data_len)) {
        log_fatal("Data length inconsistency");
        log_fatal("ObjectLen (from request_json) is %d, scandatalen (from MQ) is %zu", object_len, request->data_len);
        if (rr->reply)
            fq_reply_set_ERROR(&rr->reply->json_txt, SERVICE_ERROR,
                               "Scan request rejected: declared object length does not match the received data");
        return SERVICE_ERROR;
    }
    if (!has_data && object_len != 0) {
        log_fatal("Scan request declares %d bytes but no scan data arrived", object_len);
        if (rr->reply)
            fq_reply_set_ERROR(&rr->reply->json_txt, SERVICE_ERROR, "Scan request rejected: object data missing");
        return SERVICE_ERROR;
    }

    const char* event_id = fq_worker_read_mandatory_string(request_json, "EventID");
    if (!event_id)
        return -1;
    log_debug("Handling scan request for EventID %s", event_id);

    fq_worker_config_t* config =
        thread && thread->global_parameters ? thread->global_parameters->config : nullptr;
    if (thread)
        fq_atomic_store(thread->currentstatus, BUSY);
    ++fq_log_foreground_requests;  // the log dispatcher holds back meanwhile
    int rc = fq_worker_handle_scan_request(config, rr, request_json, thread, clean);
    --fq_log_foreground_requests;
    if (thread)
        fq_atomic_store(thread->currentstatus, READY);
    if (rc != 0) {
        const char* reply_text = rr->reply && rr->reply->json_txt ? rr->reply->json_txt : "no reply JSON text";
        log_error("Failed to handle scan request. rc=%d, %s", rc, reply_text);
    } else {
        log_info("Request handled successfully");
    }
    return rc;
}

}  // namespace

int fq_worker_client_request_handler(void* params, fq_const_request_reply_t* rr)
{
    auto* thread = static_cast<fq_worker_thread_t*>(params);
    int rc = 0;
    int command = -1;
    struct timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    fq_json_ptr request;

    if (!rr || !rr->request || !rr->request->json_txt) {
        log_error("Invalid request");
        rc = -1;
    } else {
        request.reset(fq_worker_parse_request_json(rr->request->json_txt));
        if (!request)
            rc = -1;
    }

    if (rc == 0) {
        command = fq_worker_read_command(request.get());
        switch (command) {
        case PING_SERVICE:
            if (rr->reply)
                fq_reply_set_OK(&rr->reply->json_txt);
            log_trace("PING ... PONG");
            break;
        case SERVICE_GET_INFO:
            log_info("SERVICE_INITIALIZE request received");
            if (rr->reply) {
                rr->reply->json_txt = fq_worker_handle_service_init_request(request.get(), thread);
                if (!rr->reply->json_txt)
                    log_error("Failed to get service info");
            }
            break;
        case SCAN_ONLY:
        case SCAN_CLEAN:
            rc = s_dispatch_scan(rr, request.get(), thread, command == SCAN_CLEAN);
            break;
        default:
            break;
        }
    }

    if (command != PING_SERVICE)
        log_info("Request handled in %ld ms", s_elapsed_ms(start));
    if (rr && rr->reply && !rr->reply->json_txt) {
        log_warn("Creating generic error reply");
        fq_reply_set_return_code(&rr->reply->json_txt, rc);
    }
    log_trace("Exiting, rc=%d", rc);
    return rc;
}

char* fq_worker_build_registration_json(const char* control_service_name, const char* servicename, int IsPrimary,
                                        const char* secret, const fq_service_description_t* service)
{
    fq_json_ptr root(json_object_new_object());
    if (!root)
        return nullptr;
    json_object* r = root.get();
    json_object_object_add(r, "Command", json_object_new_int(SERVICE_WORKER_REGISTER));
    json_object_object_add(r, "worker-name", json_object_new_string(control_service_name ? control_service_name : ""));
    json_object_object_add(r, "service-name", json_object_new_string(servicename ? servicename : ""));
    json_object_object_add(r, "Primary", json_object_new_int(IsPrimary ? 1 : 0));
    json_object_object_add(r, "Secret", json_object_new_string(secret ? secret : ""));
    if (service) {
        json_object_object_add(r, "DriverName",
                               json_object_new_string(service->service_name ? service->service_name : ""));
        json_object_object_add(r, "MajorVersion", json_object_new_int(service->service_major_version));
        json_object_object_add(r, "MinorVersion", json_object_new_int(service->service_minor_version));
        json_object_object_add(r, "NumberOfViruses", json_object_new_int64(service->service_known_viruses));
        json_object_object_add(r, "NumberOfVariants", json_object_new_int64(service->service_known_variants));
        json_object_object_add(r, "Timestamp", json_object_new_int64(static_cast<int64_t>(service->update_time)));
    }
    const char* text = json_object_to_json_string_ext(r, JSON_C_TO_STRING_SPACED);
    if (!text) {
        log_error("fq_worker_build_registration_json: failed to serialize JSON");
        return nullptr;
    }
    return strdup(text);
}

// ---------------------------------------------------------------------------
// Threads, load and signals

namespace {

// The signal that set the stop flag, for the main loop to report: the handler
// itself only touches sig_atomic_t words, so it cannot stop on a lock.
volatile sig_atomic_t s_last_signal = 0;

void s_close_all_fds()
{
    for (int fd = 3; fd < 1024; ++fd) {
        if (fcntl(fd, F_GETFD) != -1)
            close(fd);
    }
}

const char* s_worker_type(const fq_worker_config_t* config)
{
    if (config->signal_when_ready)
        return " (Temporary)";
    if (config->IsPrimary)
        return " (Primary)";
    return "";
}

}  // namespace

void sigterm_handler_fn(int signum)
{
    killed = 1;
    s_last_signal = signum;
    // A SIGFPE from a real arithmetic fault would return to the faulting
    // instruction and fault again for ever: with the default action back in
    // place such a fault ends the process, while a SIGFPE sent by kill still
    // stops it in order.
    if (signum == SIGFPE)
        signal(SIGFPE, SIG_DFL);
}

int fq_worker_create_thread(zlist_t* worker_threads_list, fq_thread_global_params_t* global_parameters,
                            bool js_ingress, sem_t* scan_slot_sem)
{
    auto* record = static_cast<fq_worker_thread_t*>(calloc(1, sizeof(fq_worker_thread_t)));
    if (!record) {
        log_error("Failed to allocate %s", "worker_thread_parameters");
        return -1;
    }
    record->thread_local_parameters = static_cast<fq_thread_local_params_t*>(calloc(1, sizeof(fq_thread_local_params_t)));
    if (!record->thread_local_parameters) {
        log_error("Failed to allocate %s", "worker_thread_parameters->thread_local_parameters");
        free(record);
        return -1;
    }
    record->global_parameters = global_parameters;
    record->currentstatus = STARTING;
    record->targetstatus = READY;
    log_debug("Initializing service %s", FQ_SERVICE_NAME);

    char errormsg[1024] = "";
    while (fq_initialize_service(record, global_parameters->serviceDescription, errormsg, sizeof(errormsg)) != 0 &&
           !killed) {
        log_error("Failed to initialize the service: %s - retry", errormsg);
        zclock_sleep(1000);
    }

    fq_connection_config* cc = global_parameters->config->connection_config;
    // One thread per call, so each record belongs to exactly one thread.
    const int started =
        js_ingress ? fq_connection_start_js_work_consumer(cc, FQ_SERVICE_NAME, fq_worker_client_request_handler, record,
                                                          &killed, 1, scan_slot_sem)
                   : fq_connection_start_service_handler_threads(cc, FQ_SERVICE_NAME, fq_worker_client_request_handler,
                                                                 record, &killed, 1);
    if (started != 0) {
        log_error("Failed to create worker thread (%s ingress)", js_ingress ? "JS" : "core");
        // Records of threads that never started are not shared with anyone.
        free(record->thread_local_parameters);
        free(record);
        return -1;
    }
    if (zlist_append(worker_threads_list, record) != 0) {
        log_error("Failed to add thread info to the list");
        return -1;
    }
    // Detached threads read their record until the process ends, long after the list is gone.
    // Never destroyed, so the records stay reachable through exit.
    static std::mutex s_records_mu;
    static auto* s_records = new std::vector<fq_worker_thread_t*>();
    std::lock_guard<std::mutex> lock(s_records_mu);
    s_records->push_back(record);
    return 0;
}

void fq_worker_set_all_threads_target_status(zlist_t* worker_threads_list, fq_thread_status targetstatus)
{
    if (!worker_threads_list)
        return;
    for (auto* t = static_cast<fq_worker_thread_t*>(zlist_first(worker_threads_list)); t;
         t = static_cast<fq_worker_thread_t*>(zlist_next(worker_threads_list)))
        fq_atomic_store(t->targetstatus, targetstatus);
}

void fq_worker_terminate_all_threads(zlist_t* worker_threads_list)
{
    if (!worker_threads_list)
        return;
    fq_worker_set_all_threads_target_status(worker_threads_list, TERMINATED);
    // The records stay: detached threads may still read them until they see the stop flag.
    zlist_destroy(&worker_threads_list);
}

void fqctrl_initialize_load_sample_array(int* array, int samples)
{
    for (int i = 0; i < samples; ++i)
        array[i] = -1;
}

int fqworker_get_load(zlist_t* threadlist, int samples, int* loadarray)
{
    if (!threadlist || !loadarray || samples <= 0)
        return -1;
    int total = 0;
    int busy = 0;
    for (auto* t = static_cast<fq_worker_thread_t*>(zlist_first(threadlist)); t;
         t = static_cast<fq_worker_thread_t*>(zlist_next(threadlist))) {
        ++total;
        if (fq_atomic_load(t->currentstatus) == BUSY)
            ++busy;
    }
    // Without threads there is no load to speak of: no figure, so no event.
    if (total == 0)
        return -1;
    bool full = true;
    long sum = 0;
    for (int i = 0; i < samples - 1; ++i) {
        loadarray[i] = loadarray[i + 1];
        sum += loadarray[i];
        if (loadarray[i] == -1)
            full = false;
    }
    loadarray[samples - 1] = busy * 100 / total;
    sum += loadarray[samples - 1];
    return full ? static_cast<int>(sum / samples) : -1;
}

// ---------------------------------------------------------------------------
// The process

namespace {

// Everything main() owns; none of it is freed before the process ends.
struct s_process_t {
    int rc = -1;
    fq_worker_config_t* config = nullptr;
    fq_thread_global_params_t* thread_global_params = nullptr;
    fq_worker_update_thread_params_t* update = nullptr;
    zlist_t* worker_threads_list = nullptr;
    int worker_threads = 0;
    int* load_samples = nullptr;
    char control_service_name[1024] = "";
    char secret[FQ_SECRET_LEN + 1] = "";
    const char* exitlog = nullptr;
    time_t last_registration_update = 0;
    time_t broker_away_noted = 0;  // when the trace last said that the broker is away
};

// Allocates the records and sets their defaults; -1 after the message on failure.
int s_allocate_records(s_process_t& p, char** argv)
{
    p.thread_global_params = static_cast<fq_thread_global_params_t*>(calloc(1, sizeof(fq_thread_global_params_t)));
    if (!p.thread_global_params) {
        log_fatal("Failed to allocate thread arguments struct: %s", FQstrerror(errno));
        return -1;
    }
    p.config = static_cast<fq_worker_config_t*>(calloc(1, sizeof(fq_worker_config_t)));
    if (!p.config) {
        log_fatal("Failed to allocate fq_worker_config_t: %s", FQstrerror(errno));
        return -1;
    }
    fq_worker_config_set_defaults(p.config);
    p.config->argv = argv;
    p.config->connection_config = fq_connection_config_new();
    if (!p.config->connection_config) {
        fprintf(stderr, "Failed to allocate AMQP config struct: %s\r\n", FQstrerror(errno));
        return -1;
    }
    p.config->update_config = static_cast<fq_update_config_t*>(calloc(1, sizeof(fq_update_config_t)));
    if (!p.config->update_config) {
        log_fatal("Failed to allocate fq_update_config_t: %s", FQstrerror(errno));
        return -1;
    }
    p.config->network_config = static_cast<fq_network_config_t*>(calloc(1, sizeof(fq_network_config_t)));
    if (!p.config->network_config) {
        log_fatal("Failed to allocate fq_worker_network_config_t: %s", FQstrerror(errno));
        return -1;
    }
    p.update = static_cast<fq_worker_update_thread_params_t*>(calloc(1, sizeof(fq_worker_update_thread_params_t)));
    if (!p.update) {
        log_fatal("Failed to allocate update thread arguments struct: %s", FQstrerror(errno));
        return -1;
    }
    p.update->currentstatus = CREATING;
    p.update->targetstatus = READY;
    p.update->status = WAITING;
    p.update->config = p.config;
    p.config->update = p.update;
    p.thread_global_params->config = p.config;
    return 0;
}

void s_write_running_version(const fq_worker_config_t* config)
{
    char path[4096];
    snprintf(path, sizeof(path), "%s/%s/.running_version", config->basedir, FQ_SERVICE_NAME);
    char text[1024];
    int len = snprintf(text, sizeof(text), "fernquill Anti-Virus %d.%d.%d Build %d\r\n%s v.%d.%d\n ",
                       FQ_PRODUCT_VERSION_MAJOR, FQ_PRODUCT_VERSION_MINOR, FQ_PRODUCT_VERSION_PATCH, FQ_PRODUCT_BUILD,
                       FQ_SERVICE_NAME, FQ_SERVICE_VERSION_MAJOR, FQ_SERVICE_VERSION_MINOR);
    // A failure is logged by the helper; the worker starts all the same.
    fqhlp_dump_buffer_to_file(text, static_cast<size_t>(len), path);
}

int s_install_signal_handlers()
{
    signal(SIGPIPE, SIG_IGN);
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = sigterm_handler_fn;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;  // no SA_RESTART: a blocking call is interrupted by the stop request
    for (int sig : {SIGTERM, SIGINT, SIGQUIT, SIGFPE}) {
        if (sigaction(sig, &sa, nullptr) != 0) {
            fprintf(stderr, "Error registering signal handler. errno=%d", errno);
            return -1;
        }
    }
    return 0;
}

void s_open_trace(const fq_worker_config_t* config, int argc, char** argv)
{
    if (FQOpenTraceFile(config->tracefile, config->tracelevel, config->tracefile_maxsize) != 0)
        log_error("Failed to open Log/trace file %s", config->tracefile ? config->tracefile : "(null)");
    const std::string stars(84, '*');
    log_info("%s", stars.c_str());
    log_info(" %s starting", fq__progname);
    log_info(" Version %d.%d.%d Build %d", FQ_PRODUCT_VERSION_MAJOR, FQ_PRODUCT_VERSION_MINOR,
             FQ_PRODUCT_VERSION_PATCH, FQ_PRODUCT_BUILD);
    log_info("%s", stars.c_str());
    for (int i = 1; i < argc; ++i)
        log_trace("CL [%d]: '%s'", i, argv[i]);
}

// ---- Log records and events: the dispatcher and what main reports through it.

fq_pqueue* s_log_queue(const s_process_t& p)
{
    return p.config && p.config->log_thread_params ? p.config->log_thread_params->pq : nullptr;
}

void s_queue_event(const s_process_t& p, fq_av_event_type_t type, const char* error, const char* text)
{
    fq_log_send_event(s_log_queue(p), type, nullptr, nullptr, nullptr, error, nullptr, text, nullptr);
}

// {"Message": text}, the data of every section main writes.
json_object* s_message_data(const char* text)
{
    json_object* data = json_object_new_object();
    if (data)
        json_object_object_add(data, "Message", json_object_new_string(text));
    return data;
}

// The queue lives in <basedir>/run; a missing run directory is made rather than losing every record.
bool s_start_log_dispatcher(s_process_t& p)
{
    const std::string rundir = std::string(p.config->basedir) + "/run";
    if (mkdir(rundir.c_str(), 0770) != 0 && errno != EEXIST)
        log_error("Failed to create %s: %s", rundir.c_str(), FQstrerror(errno));
    p.config->log_thread_params = fq_log_create_log_dispatcher(rundir.c_str(), p.config->connection_config);
    return p.config->log_thread_params != nullptr;
}

void s_report_ready(const s_process_t& p)
{
    fq_json_ptr record(fq_log_create_message());
    if (!record)
        return;
    char text[1024];
    snprintf(text, sizeof(text), "%s worker%s, PID %d ready with %d threads", FQ_SERVICE_DISPLAY_NAME,
             s_worker_type(p.config), static_cast<int>(getpid()), p.worker_threads);
    fq_log_add_log_section(record.get(), "StatusLog", nullptr, s_message_data(text));
    s_queue_event(p, WORKER_EVENT_START_OK, nullptr, text);
    fq_log_enqueue(s_log_queue(p), 'L', record.get());
}

// The last records, and time for the dispatcher to deliver them before it is stopped.
void s_report_stop(const s_process_t& p, uint64_t deadline_ms)
{
    fq_log_thread_param_t* dispatcher = p.config ? p.config->log_thread_params : nullptr;
    if (!dispatcher)
        return;
    // The stop's budget decides how long to wait: whatever is not delivered stays on disk, and
    // the next start on this base directory delivers it.
    auto left_ms = [deadline_ms] {
        const uint64_t now = fq_current_time_ms();
        return now < deadline_ms ? static_cast<int>(deadline_ms - now) : 0;
    };
    fq_json_ptr record(fq_log_create_message());
    if (record) {
        char text[1024];
        snprintf(text, sizeof(text), "%s worker%s, PID %d shutting down", FQ_SERVICE_DISPLAY_NAME,
                 s_worker_type(p.config), static_cast<int>(getpid()));
        if (p.exitlog) {
            fq_log_add_log_section(record.get(), "ErrorLog", nullptr, s_message_data(p.exitlog));
            s_queue_event(p, WORKER_EVENT_START_ERROR, p.exitlog, p.exitlog);
        }
        fq_log_add_log_section(record.get(), "StatusLog", nullptr, s_message_data(text));
        if (!p.exitlog)
            s_queue_event(p, WORKER_EVENT_END, nullptr, text);
        fq_log_enqueue(s_log_queue(p), 'L', record.get());
        if (fq_connection_state(p.config->connection_config, nullptr, 0) == FQ_CONNECTION_UP)
            fq_log_wait_delivered(dispatcher, std::min(3000, left_ms()));
    }
    if (fq_log_stop_log_dispatcher(dispatcher, static_cast<unsigned>(std::max(100, left_ms()))) != 0)
        log_warn("Log dequeue thread still delivering at the stop; what it holds is given back by a later start");
}

void s_report_load(s_process_t& p)
{
    fq_worker_config_t* config = p.config;
    const int samples = 2 * config->load_sampling_period;
    if (!config->autoscale)
        return;
    const int load = fqworker_get_load(p.worker_threads_list, samples, p.load_samples);
    if (load < 0)
        return;
    char text[1024];
    if (load > config->load_hwm) {
        snprintf(text, sizeof(text),
                 "Load High-Water mark met. Average load exceeds %d percent over the past %d seconds",
                 config->load_hwm, config->load_sampling_period);
        log_debug("%s", text);
        s_queue_event(p, WORKER_EVENT_LOAD_HWM_REACHED, nullptr, text);
        fqctrl_initialize_load_sample_array(p.load_samples, samples);
    }
    if (!config->IsPrimary && load < config->load_lwm) {
        snprintf(text, sizeof(text),
                 "Load Low-Water mark met. Average load is less than %d percent over the past %d seconds",
                 config->load_lwm, config->load_sampling_period);
        log_debug("%s", text);
        s_queue_event(p, WORKER_EVENT_LOAD_LWM_REACHED, nullptr, text);
        fqctrl_initialize_load_sample_array(p.load_samples, samples);
    }
}

void s_build_control_service_name(s_process_t& p);

char* s_exitlog_text(const char* fmt)
{
    static char text[1024];
    snprintf(text, sizeof(text), fmt, FQ_SERVICE_DISPLAY_NAME);
    return text;
}
int s_register(s_process_t& p, bool refresh);

// Sleeps ms in steps of at most 50 ms; false as soon as the stop flag is set.
bool s_pause_unless_killed(int ms)
{
    for (int slept = 0; slept < ms && !killed; slept += 50) {
        fq_sm_watchdog();
        zclock_sleep(ms - slept < 50 ? ms - slept : 50);
    }
    return !killed;
}

// Says at most every 30 s that the broker is away, and why, so the trace explains a silent worker.
void s_note_broker_away(s_process_t& p, const char* why)
{
    const time_t now = time(nullptr);
    if (p.broker_away_noted != 0 && now - p.broker_away_noted < 30)
        return;
    p.broker_away_noted = now;
    const fq_connection_config* cc = p.config->connection_config;
    log_warn("Waiting for the broker at %s (%s); the connection is being re-established in the background",
             cc->server_url ? cc->server_url : "(none)", why);
    const std::string status = std::string("waiting for the broker at ") + (cc->server_url ? cc->server_url : "") +
                               " (" + why + ")";
    fq_sm_status(status.c_str());
}

void s_main_loop(s_process_t& p)
{
    fq_connection_config* cc = p.config->connection_config;
    for (;;) {
        if (killed) {
            if (s_last_signal)
                log_debug("Signal %d handled", static_cast<int>(s_last_signal));
            log_info("Signal received. Exiting gracefully...");
            p.rc = 0;
            return;
        }
        char why[512];
        const fq_connection_state_t state = fq_connection_state(cc, why, sizeof(why));
        if (state == FQ_CONNECTION_CLOSED) {
            // Alive but useless is worse than gone: a service manager starts a worker again.
            log_error("The connection to the broker is closed for good (%s) — stopping with status -1", why);
            p.exitlog = s_exitlog_text("%s lost its broker connection for good");
            p.rc = -1;
            return;
        }
        if (state == FQ_CONNECTION_UP)
            p.broker_away_noted = 0;
        else
            s_note_broker_away(p, why);
        const time_t now = time(nullptr);
        if (now - p.last_registration_update > p.config->register_interval) {
            // While the broker is away a write would only wait for it; the key lapses meanwhile.
            if (state == FQ_CONNECTION_UP) {
                s_build_control_service_name(p);
                if (s_register(p, true) != 0)
                    log_warn("%s: failed to refresh KV registration — will retry next tick", FQ_SERVICE_DISPLAY_NAME);
            }
            p.last_registration_update = now;
        }
        s_report_load(p);
        // The main loop is what the service manager's watchdog watches: a loop that stops turning is a hang.
        fq_sm_watchdog();
        zclock_sleep(FQ_MAIN_LOOP_SLEEP_MS);
    }
}

// Gives the serving threads a bounded time to finish what they are working on once the stop
// flag is set; the requests still in work after it are answered with SERVICE_ERROR, so that no
// client waits for a reply that the closing connection can no longer carry.
void s_drain_serving_threads(fq_connection_config* cc)
{
    const uint64_t deadline = fq_current_time_ms() + FQ_STOP_GRACE_MS;
    int busy = 0;
    while (fq_connection_serving_threads(&busy) > 0 && fq_current_time_ms() < deadline)
        zclock_sleep(20);
    const int alive = fq_connection_serving_threads(&busy);
    if (alive == 0) {
        log_trace("All serving threads have ended");
        return;
    }
    log_warn("%d serving thread(s) still running %d ms after the stop (%d busy)", alive, FQ_STOP_GRACE_MS, busy);
    if (busy > 0)
        fq_connection_abandon_requests(cc, "Scan abandoned: the worker is stopping");
}

void s_stop(s_process_t& p)
{
    const uint64_t stop_deadline = fq_current_time_ms() + FQ_STOP_BUDGET_MS;
    fq_sm_stopping("stopping");
    fq_connection_config* cc = p.config ? p.config->connection_config : nullptr;
    // Without the broker the delete would only wait; the record lapses by its time-to-live.
    if (p.control_service_name[0] && cc && fq_connection_state(cc, nullptr, 0) == FQ_CONNECTION_UP)
        fq_connection_registry_delete(cc, p.control_service_name);
    fq_worker_terminate_all_threads(p.worker_threads_list);
    p.worker_threads_list = nullptr;
    killed = 1;
    s_drain_serving_threads(cc);
    const bool threads_gone = fq_connection_serving_threads(nullptr) == 0;
    if (p.config && p.config->scan_slot_semaphore && threads_gone) {
        sem_destroy(p.config->scan_slot_semaphore);
        log_trace("Destroyed scan-slot semaphore");
    }
    log_info("Shutdown complete");
    if (p.config)
        log_info("%s worker%s, PID %d shutting down", FQ_SERVICE_DISPLAY_NAME, s_worker_type(p.config),
                 static_cast<int>(getpid()));
    s_report_stop(p, stop_deadline);
    if (cc)
        fq_connection_deinit(cc);
    // Library-wide clean-up under a thread that still runs would pull the ground from under it.
    if (p.config && p.thread_global_params && threads_gone) {
        char errormsg[1024] = "";
        log_trace("Starting worker global cleanup");
        fq_worker_global_cleanup(p.config, p.thread_global_params, errormsg);
    }
    if (p.update)
        free(p.update->update_deployed_to);
    free(p.update);
    free(p.load_samples);
    p.update = nullptr;
    p.load_samples = nullptr;
    // The global parameters stay: they are the context of the detached control and worker
    // threads, which may still be finishing a request when the process gets here.
    log_info("Ending worker with rc=%d", p.rc);
    FQCloseTraceFile();
}

// The worker's own name: registry key and control subject.
void s_build_control_service_name(s_process_t& p)
{
    char host[256];
    if (gethostname(host, sizeof(host)) != 0)
        host[0] = '\0';
    host[sizeof(host) - 1] = '\0';
    snprintf(p.control_service_name, sizeof(p.control_service_name), "%s.%s_%d", FQ_SERVICE_NAME, host,
             static_cast<int>(getpid()));
}

// Writes the registry record; the minimal text when the record cannot be built.
int s_register(s_process_t& p, bool refresh)
{
    const fq_worker_config_t* config = p.config;
    char* record = fq_worker_build_registration_json(p.control_service_name, FQ_SERVICE_NAME, config->IsPrimary,
                                                     p.secret, p.thread_global_params->serviceDescription);
    char json[2048];
    if (record) {
        snprintf(json, sizeof(json), "%s", record);
        free(record);
    } else if (refresh) {
        log_warn("Falling back to minimal re-registration payload (OOM?)");
        snprintf(json, sizeof(json),
                 "{ \"Command\": %d ,\"worker-name\": \"%s\", \"service-name\": \"%s\", \"Primary\": %d, \"Secret\": \"%s\"}",
                 SERVICE_WORKER_REGISTER, p.control_service_name, FQ_SERVICE_NAME, config->IsPrimary ? 1 : 0, p.secret);
    } else {
        log_warn("Falling back to minimal registration payload (OOM?)");
        snprintf(json, sizeof(json),
                 "{ \"Command\": %d , \"worker-name\": \"%s\", \"service-name\": \"%s\", \"Primary\": %d, \"Secret\": \"%s\"}",
                 SERVICE_WORKER_REGISTER, p.control_service_name, FQ_SERVICE_NAME, config->IsPrimary ? 1 : 0, p.secret);
    }
    return fq_connection_registry_put(config->connection_config, p.control_service_name, json, config->registry_ttl_ms);
}

// No worker thread exists before the control service has answered once, so the worker takes no
// scan work before then. While the broker itself is away the trace says so (and why) instead of
// pinging into the void; a connection closed for good ends the start-up. The stop flag is looked
// at between pings and while pausing, so a stop is never held for more than one ping.
bool s_wait_for_control_service(s_process_t& p)
{
    fq_connection_config* cc = p.config->connection_config;
    log_debug("Waiting for service fq-av-worker-control on %s:%s", cc->broker_host ? cc->broker_host : cc->server_url,
              cc->broker_port ? cc->broker_port : "");
    int failures = 0;
    while (!killed) {
        char why[512];
        const fq_connection_state_t state = fq_connection_state(cc, why, sizeof(why));
        if (state == FQ_CONNECTION_CLOSED) {
            log_error("The connection to the broker at %s is closed for good (%s)", cc->server_url, why);
            p.exitlog = s_exitlog_text("%s could not connect to its broker");
            return false;
        }
        if (state == FQ_CONNECTION_WAITING) {
            s_note_broker_away(p, why);
            s_pause_unless_killed(250);
            continue;
        }
        fq_sm_status("waiting for fq-av-worker-control");
        for (int i = 0; i < 3 && !killed; ++i) {
            fq_sm_watchdog();
            if (fq_worker_ping(cc, "fq-av-worker-control", false, 1, FQ_CONTROL_PING_TIMEOUT_MS, 0) == 0)
                return true;
        }
        if (!s_pause_unless_killed(5000))
            break;
        if (++failures == 6) {
            log_warn("Still waiting for service fq-av-worker-control to become available");
            failures = 0;
        }
    }
    return true;  // the main loop's first pass sees the stop flag and stops in order
}


bool s_start_worker_threads(s_process_t& p)
{
    fq_worker_config_t* config = p.config;
    int core_threads = config->worker_threads;
    int js_threads = 0;
    int scan_slots = 0;
    if (config->js_ingress_enabled) {
        core_threads = config->worker_threads > 1 ? config->worker_threads / 2 : 1;
        js_threads = config->js_worker_threads > 0 ? config->js_worker_threads : config->worker_threads;
        scan_slots = config->scan_slots > 0 ? config->scan_slots : config->worker_threads;
    }
    for (int i = 0; i < core_threads; ++i) {
        log_debug("Starting worker thread %d and parameters at %p", i, static_cast<void*>(p.thread_global_params));
        if (fq_worker_create_thread(p.worker_threads_list, p.thread_global_params, false, nullptr) != 0) {
            log_fatal("Failed to create worker thread number %d", i);
            p.exitlog = s_exitlog_text("%s failed to create worker thread(s)");
            return false;
        }
        ++p.worker_threads;
    }
    if (!config->js_ingress_enabled)
        return true;
    static sem_t scan_slot_storage;
    if (sem_init(&scan_slot_storage, 0, static_cast<unsigned>(scan_slots)) != 0) {
        log_fatal("Failed to initialize scan-slot semaphore: %s", FQstrerror(errno));
        p.exitlog = s_exitlog_text("%s failed to init scan-slot semaphore");
        return false;
    }
    config->scan_slot_semaphore = &scan_slot_storage;
    log_info("Dual ingress: %d JS work-queue puller thread(s) + %d core queue subscriber(s), scan-slot ceiling %d",
             js_threads, core_threads, scan_slots);
    for (int i = 0; i < js_threads; ++i) {
        if (fq_worker_create_thread(p.worker_threads_list, p.thread_global_params, true,
                                    config->scan_slot_semaphore) != 0) {
            log_fatal("Failed to create JS work-queue thread number %d", i);
            p.exitlog = s_exitlog_text("%s failed to create JS puller thread(s)");
            return false;
        }
        ++p.worker_threads;
    }
    return true;
}

// READY (temporary worker) or SHUTDOWN (new version after an update), before the control handler exists.
bool s_update_handshake(s_process_t& p)
{
    fq_worker_config_t* config = p.config;
    char json[2048];
    if (config->signal_when_ready) {
        fq_worker_build_ready_message(json, sizeof(json), config->secret, p.control_service_name, p.secret);
        if (fq_connection_simple_request(config->connection_config, config->signal_when_ready, json, 5000, 3,
                                         nullptr) != 0) {
            log_error("Failed to send READY message");
            return false;
        }
    }
    if (config->shutdown_when_ready) {
        fq_worker_build_shutdown_message(json, sizeof(json), config->secret);
        if (fq_connection_simple_request(config->connection_config, config->shutdown_when_ready, json, 5000, 3,
                                         nullptr) != 0) {
            log_error("Failed to send SHUTDOWN message");
            return false;
        }
        log_trace("Shutdown message reception confirmed by %s", config->shutdown_when_ready);
    }
    return true;
}

// Start-up from global init to the control handler; false when the worker must go to the stop sequence.
bool s_start_services(s_process_t& p)
{
    fq_worker_config_t* config = p.config;
    fq_connection_config* cc = config->connection_config;
    char errormsg[1024] = "";
    while (fq_worker_global_init(config, p.thread_global_params, errormsg) != 0 && !killed) {
        log_error("Global init of service %s failed: %s - retrying in 1s", FQ_SERVICE_NAME, errormsg);
        s_pause_unless_killed(1000);
    }

    if (!s_wait_for_control_service(p))
        return false;
    if (killed)
        return true;  // the main loop's first pass sees the flag and stops in order

    p.worker_threads_list = zlist_new();
    if (!p.worker_threads_list) {
        p.exitlog = s_exitlog_text("%s: Could not allocate worker-threads list");
        log_fatal("%s", p.exitlog);
        return false;
    }
    if (!s_start_worker_threads(p))
        return false;

    if (fq_connection_start_service_handler_threads(cc, FQ_SERVICE_NAME ".ping", fq_worker_ping_request_handler,
                                                    nullptr, &killed, 1) != 0) {
        log_error("Failed to create ping handler thread on %s", FQ_SERVICE_NAME ".ping");
        p.exitlog = s_exitlog_text("%s: failed to create ping handler thread");
        return false;
    }
    p.rc = 0;

    s_build_control_service_name(p);
    config->registry_ttl_ms = config->register_interval * 3000 < 2000 ? 2000 : config->register_interval * 3000;
    fqhlp_rand_str(p.secret, FQ_SECRET_LEN);
    if (s_register(p, false) != 0)
        log_warn("%s: failed to write initial registration to KV registry — will retry on the next tick",
                 FQ_SERVICE_DISPLAY_NAME);
    else
        log_trace("Registered %s in KV registry", p.control_service_name);

    if (!s_update_handshake(p)) {
        p.rc = -1;
        return false;
    }

    log_info("%s worker%s, PID %d ready with %d threads", FQ_SERVICE_DISPLAY_NAME, s_worker_type(config),
             static_cast<int>(getpid()), p.worker_threads);
    s_report_ready(p);

    if (fq_connection_start_service_handler_threads(cc, p.control_service_name, fq_worker_control_request_handler,
                                                    p.thread_global_params, &killed, 1) != 0) {
        log_fatal("Failed to create control job handler thread");
        p.rc = -1;
        return false;
    }
    p.last_registration_update = time(nullptr);
    return true;
}

}  // namespace

namespace {

const char s_usage_text[] =
    "Usage: fq-av-scanproxy --basedir PATH --broker URL [options]\n"
    "The scan worker: takes scan jobs from its NATS broker, walks each object through the scan services\n"
    "the job names, and answers with one consolidated verdict. It never answers clean for an object\n"
    "that could not be scanned.\n"
    "\n"
    "  -a, --basedir PATH               installation root (holds run/ and fq-av-scanproxy/); required\n"
    "  -e, --broker URL                 nats://, tls://, ws:// or wss:// URL; host:port means tls://host:port\n"
    "  -y, --broker-user NAME           broker user\n"
    "  -z, --broker-password PW         broker password\n"
    "  -A, --broker-cert PATH           CA file for the broker's certificate\n"
    "  -g, --worker-threads N           scans at once (50)\n"
    "  -x, --console-mode               stay in the foreground (do not fork)\n"
    "  -n, --tracefile PATH             trace file (several workers may share one)\n"
    "  -m, --tracelevel L               0 off, 1 fatal .. 4 info .. 6 trace (0)\n"
    "  -E, --tracefile-maxsize MB       move the trace file into a zip archive at this size (0 = never)\n"
    "  -o, --trace-to-screen            trace to stderr until the trace file is open\n"
    "  -H, --register-interval S        seconds between registry refreshes (5)\n"
    "  -d, --primary                    primary worker: never reports low load\n"
    "  -i, --autoscale                  sample the load and report high and low water marks\n"
    "  -j, --autoscale-monitoring-period S   2..119 (60)\n"
    "  -k, --autoscale-high-water-mark P     2..99 percent (75)\n"
    "  -l, --autoscale-low-water-mark P      6..99 percent (10)\n"
    "  -h, --control-connection-timeout S    1..59, kept for compatibility (10)\n"
    "      --js-ingress, --js-worker-threads N, --scan-slots N, --js-services LIST\n"
    "                                   the JetStream work queue (see the README)\n"
    "  -p, --update-server URL, -q/-r/-s --update-engine/--update-data/--update-binary,\n"
    "  -t, --http-proxy, -v, --update-check-interval MIN, -w, --update-max-backups N,\n"
    "  -K, --no_certificate_check       self-update (see the README)\n"
    "  -B, --signal_when_ready SUBJ, -C, --shutdown_when_ready SUBJ, -D, --secret TEXT\n"
    "                                   used between the versions of an update\n"
    "  -G, --debug                      print the PID and wait for ENTER\n"
    "      --help                       this text\n"
    "      --version                    the version\n"
    "\n"
    "SIGTERM, SIGINT or SIGQUIT stop the worker in order within about two seconds (status 0).\n";

// --help and --version answer and end the process before anything else happens; -h keeps
// its old meaning (the control connection time-out).
void s_answer_help_or_version(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--") == 0)
            return;
        if (strcmp(argv[i], "--help") == 0) {
            fputs(s_usage_text, stdout);
            exit(0);
        }
        if (strcmp(argv[i], "--version") == 0) {
            printf("%s %d.%d.%d build %d (service version %d.%d)\n", FQ_SERVICE_NAME, FQ_PRODUCT_VERSION_MAJOR,
                   FQ_PRODUCT_VERSION_MINOR, FQ_PRODUCT_VERSION_PATCH, FQ_PRODUCT_BUILD, FQ_SERVICE_VERSION_MAJOR,
                   FQ_SERVICE_VERSION_MINOR);
            exit(0);
        }
    }
}

}  // namespace

int fq_worker_main(int argc, char** argv)
{
    s_answer_help_or_version(argc, argv);
    // Static: the records live to the end of the process, after main has returned too.
    static s_process_t p;
    s_close_all_fds();

    fq__progname = argv[0];
    log_reset_start_state();
    log_fatal("%s started, version %d.%d.%d - Build %d", FQ_SERVICE_NAME, FQ_PRODUCT_VERSION_MAJOR,
              FQ_PRODUCT_VERSION_MINOR, FQ_PRODUCT_VERSION_PATCH, FQ_PRODUCT_BUILD);
    srand(static_cast<unsigned>(clock()));
    srandom(static_cast<unsigned>(clock()));

    if (s_allocate_records(p, argv) != 0)
        return -1;

    if (fqworker_parse_commandline(p.config, argc, argv) != 0) {
        fprintf(stderr, "Failed to parse command line parameters\r\n");
        exit(-1);
    }
    // Every path of the worker (version file, queue, locks) lives below its base directory.
    if (!p.config->basedir || !*p.config->basedir) {
        log_error("Missing --basedir: the worker needs its base directory");
        fprintf(stderr, "Failed to parse command line parameters\r\n");
        exit(-1);
    }

    // Without a broker the worker would wait for its control service for ever.
    const fq_connection_config* cc = p.config->connection_config;
    if ((!cc->server_url || !*cc->server_url) && (!cc->broker_host || !*cc->broker_host)) {
        log_error("Missing --broker: the worker needs the address of its NATS broker");
        fprintf(stderr, "Failed to parse command line parameters\r\n");
        exit(-1);
    }

    s_write_running_version(p.config);

    if (!p.config->console_mode) {
        fflush(nullptr);
        pid_t pid = fork();
        if (pid < 0) {
            fprintf(stderr, "Failed to fork the worker process: %s\r\n", FQstrerror(errno));
            exit(-1);
        }
        if (pid > 0)
            _exit(0);
    }

    zsys_handler_set(nullptr);
    if (s_install_signal_handlers() != 0) {
        p.rc = -1;
        s_stop(p);
        return p.rc;
    }

    // The trace first, so that an operator can read why a worker does not come up.
    s_open_trace(p.config, argc, argv);

    const int samples = 2 * p.config->load_sampling_period;
    p.load_samples = static_cast<int*>(malloc(sizeof(int) * static_cast<size_t>(samples)));
    if (!p.load_samples) {
        log_fatal("Memory allocation error (load_samples) - Exiting");
        exit(-1);
    }
    fqctrl_initialize_load_sample_array(p.load_samples, samples);

    // A connection still being made goes on in the background and the wait for the control
    // service holds the start-up back; a failure no retry can cure (credentials, certificates)
    // ends the worker here, with its records queued for a later start to deliver.
    fq_connection_config* conn = p.config->connection_config;
    conn->stop_flag = &killed;
    bool started = true;
    if (fq_connection_init(conn) != 0 && !killed) {
        log_fatal("Cannot connect to the broker at %s: the failure above will not go away by retrying",
                  conn->server_url ? conn->server_url : "(none)");
        p.exitlog = s_exitlog_text("%s could not connect to its broker");
        started = false;
    }

    if (!s_start_log_dispatcher(p)) {
        log_fatal("Failed to start log dequeue thread");
        exit(-1);
    }
    log_info("Log dequeue thread created");

    if (started && s_start_services(p)) {
        // Ready for a service manager once the worker answers on its subjects, not merely runs.
        if (!killed) {
            char status[256];
            snprintf(status, sizeof(status), "%s worker%s, PID %d ready with %d threads", FQ_SERVICE_DISPLAY_NAME,
                     s_worker_type(p.config), static_cast<int>(getpid()), p.worker_threads);
            fq_sm_ready(status);
        }
        s_main_loop(p);
    } else {
        p.rc = -1;
    }

    s_stop(p);
    return p.rc;
}

#ifdef FQ_WORKER_MAIN
int main(int argc, char** argv)
{
    return fq_worker_main(argc, argv);
}
#endif
