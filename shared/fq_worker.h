// The worker process: its records, its command line, its request dispatch and its threads.
#pragma once

#include <czmq.h>
#include <json-c/json.h>
#include <semaphore.h>
#include <signal.h>
#include <stdbool.h>
#include <stddef.h>
#include <time.h>

#include <atomic>
#include <memory>

#include "fq_connection_client.h"
#include "fq_raii.h"
#include "fq_request_reply_types.h"

#define FQ_SERVICE_NAME "fq-av-scanproxy"
#define FQ_SERVICE_DISPLAY_NAME "Scan proxy"
#define FQ_PRODUCT_VERSION_MAJOR 4
#define FQ_PRODUCT_VERSION_MINOR 0
#define FQ_PRODUCT_VERSION_PATCH 5
#define FQ_PRODUCT_BUILD 140
#define FQ_SERVICE_VERSION_MAJOR 2
#define FQ_SERVICE_VERSION_MINOR 1
#define FQ_MAIN_LOOP_SLEEP_MS 250
#define FQ_TEMP_WORKER_WAIT_S 300
#define FQ_SECRET_LEN 32
// A stop gives serving threads this long to finish their request before it answers the rest
// with SERVICE_ERROR; with the ping below it keeps every stop within about two seconds.
#define FQ_STOP_GRACE_MS 1000
// All of a stop, from the flag to the last step: the last log records get what is left of it.
#define FQ_STOP_BUDGET_MS 1600
// One ping of fq-av-worker-control at start-up; the stop flag is looked at between pings.
#define FQ_CONTROL_PING_TIMEOUT_MS 1000

// The process's stop flag: only ever goes from 0 to 1. Set by the signal handler, the control
// handler and the stop sequence; every serving thread watches it.
extern fq_stop_flag_t killed;

// Words that one thread writes and another reads (thread and update phases) are reached through
// these, never directly, so that every such access is atomic.
template <typename T>
inline T fq_atomic_load(const T& field)
{
    return std::atomic_ref<T>(const_cast<T&>(field)).load(std::memory_order_acquire);
}
template <typename T>
inline void fq_atomic_store(T& field, T value)
{
    std::atomic_ref<T>(field).store(value, std::memory_order_release);
}

typedef struct fq_log_thread_param_t fq_log_thread_param_t;

typedef enum {
    CREATING = 0,
    STARTING = 1,
    READY = 2,
    BUSY = 3,
    HOLD = 4,
    RESUME = 5,
    STOP = 6,
    TERMINATED = 7,
} fq_thread_status;

typedef enum : int {
    WAITING = 0,
    UPDATING = 1,
    FILES_READY = 2,
    WAITING_FOR_TEMP_WORKER = 3,
    WAITING_FOR_RESTART = 4,
} fq_update_status_t;

typedef struct fq_update_config_t {
    bool update_binary;
    bool update_data;
    bool update_engine;
    char* update_server;
    time_t update_check_interval;
    int update_max_backups;
    bool no_certificate_check;
} fq_update_config_t;

typedef struct fq_network_config_t {
    char* http_proxy;
} fq_network_config_t;

typedef struct fq_worker_config_t {
    char* basedir;
    char* tempdir;
    char* progdir;
    bool IsPrimary;
    fq_connection_config* connection_config;
    zlist_t* quarantine_encryption_keys;
    int worker_threads;
    int control_timeout;
    bool autoscale;
    bool cloud_mode;
    int load_sampling_period;
    int load_hwm;
    int load_lwm;
    int register_interval;
    int registry_ttl_ms;
    bool js_ingress_enabled;
    int js_worker_threads;
    int scan_slots;
    sem_t* scan_slot_semaphore;
    int tracelevel;
    char* tracefile;
    size_t tracefile_maxsize;
    bool trace_to_screen;
    bool UseSharedMemoryForRecursion;
    fq_update_config_t* update_config;
    void* update;
    fq_network_config_t* network_config;
    bool console_mode;
    char* signal_when_ready;
    char* shutdown_when_ready;
    char* secret;
    char* update_secret;
    fq_log_thread_param_t* log_thread_params;
    char* config_file_name;
    char** argv;
} fq_worker_config_t;

typedef struct fq_service_description_t {
    char* service_name;  // not owned
    char* service_description;
    char* supported_mimetypes;
    int service_major_version;
    int service_minor_version;
    int service_known_viruses;
    int service_known_variants;
    int build_number;
    time_t update_time;
} fq_service_description_t;

typedef struct fq_thread_global_params_t {
    fq_worker_config_t* config;
    time_t update_time;
    fq_service_description_t* serviceDescription;
} fq_thread_global_params_t;

typedef struct fq_thread_local_params_t {
    void* buffer;
    char* virus_name;
    char* errormessage;
} fq_thread_local_params_t;

typedef struct fq_worker_thread_t {
    int tid;
    pthread_t thread;
    fq_thread_status targetstatus;
    fq_thread_status currentstatus;  // written by its thread, sampled by main (fq_atomic_*)
    fq_thread_global_params_t* global_parameters;
    fq_thread_local_params_t* thread_local_parameters;
} fq_worker_thread_t;

typedef struct fq_worker_update_thread_params_t {
    fq_thread_status currentstatus;
    fq_thread_status targetstatus;  // fq_atomic_*
    fq_worker_config_t* config;
    fq_update_status_t status;  // fq_atomic_*: main, the update thread and the control handler write it
    char* update_deployed_to;
    char* shutdown_servicename;
    char* shutdown_secret;
    char* update_name;
    char* update_error;
} fq_worker_update_thread_params_t;

// Command line.
int fqworker_parse_commandline(fq_worker_config_t* config, int argc, char** argv);
// Sets the defaults main() gives the configuration before the command line is read.
void fq_worker_config_set_defaults(fq_worker_config_t* config);

// Request texts: parse (null after the message when the text is no JSON object),
// the "Command" code (-1 when absent), and a text that must be there and not be empty.
json_object* fq_worker_parse_request_json(const char* text);
int fq_worker_read_command(json_object* request);
const char* fq_worker_read_mandatory_string(json_object* obj, const char* key);

// Request dispatch.
int fq_worker_client_request_handler(void* params, fq_const_request_reply_t* rr);
char* fq_worker_handle_service_init_request(json_object* request_json, fq_worker_thread_t* thread_args);
char* fq_worker_CreateServiceInitializeReply(int servicerc, const char* name, unsigned short version_major,
                                             unsigned short version_minor, unsigned int num_viruses,
                                             unsigned int num_variants, time_t package_time);
int fq_worker_handle_scan_request(fq_worker_config_t* config, fq_const_request_reply_t* rr,
                                  json_object* request_json, fq_worker_thread_t* thread, bool clean);
int fq_initialize_service(fq_worker_thread_t* params, fq_service_description_t* pservice, char* errormsg,
                          size_t errormsg_maxlen);
int fq_worker_global_init(fq_worker_config_t* config, fq_thread_global_params_t* global_params, char* errormsg);
int fq_worker_global_cleanup(fq_worker_config_t* config, fq_thread_global_params_t* global_params, char* errormsg);
// The service name of the service-init reply and the registry record, from the environment.
const char* fq_worker_service_name_from_env(void);

// The worker's record in the registry, or null.
char* fq_worker_build_registration_json(const char* control_service_name, const char* servicename, int IsPrimary,
                                        const char* secret, const fq_service_description_t* service);

// Threads and load.
int fq_worker_create_thread(zlist_t* worker_threads_list, fq_thread_global_params_t* global_parameters,
                            bool js_ingress, sem_t* scan_slot_sem);
void fq_worker_set_all_threads_target_status(zlist_t* worker_threads_list, fq_thread_status targetstatus);
void fq_worker_terminate_all_threads(zlist_t* worker_threads_list);
void fqctrl_initialize_load_sample_array(int* array, int samples);
int fqworker_get_load(zlist_t* threadlist, int samples, int* loadarray);
void sigterm_handler_fn(int signum);

// The whole life of the worker process; main() only calls this.
int fq_worker_main(int argc, char** argv);
