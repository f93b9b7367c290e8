// Log records and events for fq-av-log and fq-av-events-dispatch: their format, their way into the
// persistent queue, and the dispatcher thread that delivers them.
#pragma once

#include <json-c/json.h>
#include <pthread.h>

#include <atomic>

#include "fq_connection_client.h"
#include "fq_pqueue.h"
#include "fq_secretbox_encryption.h"

#define FQ_LOG_VERSION 1
#define FQ_LOG_BATCH 128
#define FQ_LOG_STALE_CLAIM_AGE_SECS 3600
#define FQ_LOG_QUEUE_MAX_ELEMENTS 10000
#define FQ_LOG_QUEUE_MAX_SIZE 50000000
#define FQ_LOG_SEND_TIMEOUT_MS 3000
#define FQ_LOG_SEND_RETRIES 3
#define FQ_LOG_BACKOFF_STEP_MS 250
#define FQ_LOG_BACKOFF_MAX_MS 2000
#define FQ_LOG_BUSY_SLEEP_MS 50
#define FQ_LOG_IDLE_SLEEP_MS 250
#define FQ_LOG_DISPATCHER_NICE 19
#define FQ_LOG_FOREGROUND_PAUSE_MS 5

typedef json_object fq_log_message;

typedef enum {
    VSA_EVENT_START_OK = 1010,
    VSA_EVENT_START_ERROR = 1020,
    VSA_EVENT_STOP = 1030,
    VSA_EVENT_SCAN_OK = 1040,
    VSA_EVENT_SCAN_ERROR = 1050,
    VSA_EVENT_FILE_BLOCKED = 1060,
    VSA_EVENT_FILE_QUARANTINED = 1070,
    VSA_EVENT_FILE_CLEANED = 1080,
    VSA_EVENT_SCAN_NOT_COMPLETED = 1090,
    WORKER_EVENT_START_OK = 3010,
    WORKER_EVENT_START_ERROR = 3020,
    WORKER_EVENT_END = 3030,
    WORKER_EVENT_UPDATE_OK = 3040,
    WORKER_EVENT_UPDATE_ERROR = 3050,
    WORKER_EVENT_LOAD_HWM_REACHED = 3060,
    WORKER_EVENT_LOAD_LWM_REACHED = 3070,
} fq_av_event_type_t;

// A record with the header and a new EventID; null on failure. Release with json_object_put.
fq_log_message* fq_log_create_message(void);
fq_log_message* fq_log_create_message_with_eventID(const char* eventID);
// Adds {"LogData": logdata} under section_key, and realmID when it is not empty. Takes over the
// reference to logdata, also on failure. 0 or -1.
int fq_log_add_log_section(fq_log_message* log_json, const char* section_key, const char* realmID,
                           json_object* logdata);
// Queues the record as prefix ('L' log record, 'E' event); the record stays the caller's. 0 or -1.
int fq_log_enqueue(fq_pqueue* pqueue, char prefix, fq_log_message* log);
// Builds an event of type with the texts that are not null and queues it. With a key the event
// object travels encrypted, with the nonce beside it. 0 or -1.
int fq_log_send_event(fq_pqueue* pqueue, fq_av_event_type_t type, const char* realmID, const char* SID,
                      const char* filename, const char* errormsg, const char* blocking_reason,
                      const char* event_message, fq_secretbox_key_t* secretboxKey);

// Requests the process is serving right now. While there are any, the dispatcher pauses between two
// deliveries, so that a backlog never competes with them for the broker and the CPU.
extern std::atomic<int> fq_log_foreground_requests;

// The dispatcher of one process. killed is its own stop request, not the process's stop flag: the
// dispatcher outlives that one.
typedef struct fq_log_thread_param_t {
    fq_connection_config* connection_config;
    fq_pqueue* pq;  // null if the queue could not be opened
    std::atomic<int> killed;
    pthread_t th_id;
} fq_log_thread_param_t;

// Opens <rundir>/fq-av-scanproxy.pq and starts the thread. Null if the thread could not be started.
fq_log_thread_param_t* fq_log_create_log_dispatcher(const char* rundir, fq_connection_config* connection_config);
void* fq_log_dequeue_thread(void* param);
const char* s_get_service_name(char prefix);
void fq_sleep_ms(int ms);

// Waits up to timeout_ms until no entry is left to deliver (pending, or claimed by this process).
// 0 when the queue is empty, -1 otherwise.
int fq_log_wait_delivered(fq_log_thread_param_t* params, int timeout_ms);
// Sets killed and joins the thread within timeout_ms: 0 joined, otherwise it runs on.
int fq_log_stop_log_dispatcher(fq_log_thread_param_t* params, unsigned timeout_ms);
// Closes the queue and frees the parameters of a dispatcher that has been joined.
void fq_log_free_log_dispatcher(fq_log_thread_param_t** params);
