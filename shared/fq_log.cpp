// What the worker tells the rest of the system about itself: log records for fq-av-log and events
// for fq-av-events-dispatch. main (start, stop, load marks) and the update code build a record here
// and push it into the persistent queue; nothing on that side touches the network. One dispatcher
// thread per process, started before anything that could produce a record and ended last, takes
// the entries out again and delivers each as a request. It never loses an entry to a failed
// delivery: what was not acknowledged goes back into the queue for a later try, and what a dying
// process held is found again by a later start.
#include "fq_log.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sodium.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <vector>

#include "fq_raii.h"
#include "fq_request_reply_types.h"
#include "fq_uuid.h"
#include "fq_worker.h"
#include "fqerror.h"
#include "fqthread.h"
#include "log.h"

namespace {

// A key's nonce runs on with each encryption: the step and the reading of nonce_hex for the record
// must not interleave between threads.
std::mutex s_event_key_mu;

void s_add_text(json_object* obj, const char* key, const char* value)
{
    if (value)
        json_object_object_add(obj, key, json_object_new_string(value));
}

// The event object, or the encrypted form of it with "Nonce" beside it. 0 or -1.
int s_add_event_section(fq_log_message* record, fq_av_event_type_t type, const char* filename, const char* errormsg,
                        const char* blocking_reason, const char* event_message, fq_secretbox_key_t* key)
{
    if (!record)
        return -1;
    fq_json_ptr event(json_object_new_object());
    if (!event) {
        log_error("Failed to allocate %s", "event_json");
        return -1;
    }
    json_object_object_add(event.get(), "Type", json_object_new_int(type));
    s_add_text(event.get(), "Filename", filename);
    s_add_text(event.get(), "Error", errormsg);
    s_add_text(event.get(), "Blocking-Reason", blocking_reason);
    s_add_text(event.get(), "Event-Message", event_message);
    if (!key) {
        json_object_object_add(record, "Event", event.release());
        return 0;
    }

    const char* plain = json_object_to_json_string_ext(event.get(), JSON_C_TO_STRING_PLAIN);
    if (!plain) {
        log_error("Failed to convert event message to string");
        return -1;
    }
    unsigned char* sealed_raw = nullptr;
    size_t sealed_len = 0;
    char nonce_hex[FQ_SECRETBOX_NONCE_HEX_BYTES];
    {
        std::lock_guard<std::mutex> lock(s_event_key_mu);
        if (fq_secretbox_encrypt_buffer(reinterpret_cast<unsigned char*>(const_cast<char*>(plain)), strlen(plain), key,
                                        &sealed_raw, &sealed_len) != 0) {
            log_error("Failed to encrypt event message");
            return -1;
        }
        snprintf(nonce_hex, sizeof(nonce_hex), "%s", key->nonce_hex);
    }
    fq_buf_ptr sealed(sealed_raw);
    const size_t b64_len = sodium_base64_ENCODED_LEN(sealed_len, sodium_base64_VARIANT_ORIGINAL);
    fq_cstr_ptr b64(static_cast<char*>(malloc(b64_len)));
    if (!b64) {
        log_error("Failed to allocate %s", "encrypted_event_message_b64");
        return -1;
    }
    if (!sodium_bin2base64(b64.get(), b64_len, sealed.get(), sealed_len, sodium_base64_VARIANT_ORIGINAL)) {
        log_error("Failed to encode encrypted event message to base64");
        return -1;
    }
    json_object_object_add(record, "Nonce", json_object_new_string(nonce_hex));
    json_object_object_add(record, "Event", json_object_new_string(b64.get()));
    return 0;
}

}  // namespace

fq_log_message* fq_log_create_message(void)
{
    unsigned char uu[FQ_UUID_BYTES];
    char id[FQ_UUID_TEXT_LEN + 1];
    fq_uuid_generate_time_safe(uu);
    fq_uuid_unparse_lower(uu, id);
    return fq_log_create_message_with_eventID(id);
}

fq_log_message* fq_log_create_message_with_eventID(const char* eventID)
{
    if (!eventID)
        return nullptr;
    const time_t now = time(nullptr);
    struct tm tm;
    char stamp[22];
    if (!gmtime_r(&now, &tm) || strftime(stamp, sizeof(stamp), "%F %H:%M:%S", &tm) == 0) {
        log_error("Failed to format timestamp");
        return nullptr;
    }
    char host[HOST_NAME_MAX + 1] = "";
    if (gethostname(host, sizeof(host)) != 0)
        host[0] = '\0';
    host[sizeof(host) - 1] = '\0';
    fq_json_ptr record(json_object_new_object());
    if (!record)
        return nullptr;
    json_object* r = record.get();
    json_object_object_add(r, "LogVersion", json_object_new_int(FQ_LOG_VERSION));
    json_object_object_add(r, "Timestamp", json_object_new_string(stamp));
    json_object_object_add(r, "Timestamp_epoch", json_object_new_int64(static_cast<int64_t>(now)));
    json_object_object_add(r, "Component", json_object_new_string(FQ_SERVICE_NAME));
    json_object_object_add(r, "Hostname", json_object_new_string(host));
    json_object_object_add(r, "EventID", json_object_new_string(eventID));
    return record.release();
}

int fq_log_add_log_section(fq_log_message* log_json, const char* section_key, const char* realmID,
                           json_object* logdata)
{
    fq_json_ptr data(logdata);
    if (!log_json || !data || !section_key) {
        log_error("Invalid parameters");
        return -1;
    }
    json_object* section = json_object_new_object();
    if (!section) {
        log_error("Failed to allocate %s", "logsection_json");
        return -1;
    }
    json_object_object_add(section, "LogData", data.release());
    if (realmID && *realmID)
        json_object_object_add(log_json, "realmID", json_object_new_string(realmID));
    json_object_object_add(log_json, section_key, section);
    return 0;
}

int fq_log_enqueue(fq_pqueue* pqueue, char prefix, fq_log_message* log)
{
    if (!log || !pqueue)
        return -1;
    const char* text = json_object_to_json_string_ext(log, JSON_C_TO_STRING_PLAIN);
    if (!text)
        return -1;
    log_trace("Enqueuing %s", text);
    if (fq_pqueue_push(pqueue, prefix, text, strlen(text)) != 0) {
        log_error("Failed to persist %s message in queue: %s", prefix == 'E' ? "event" : "log", text);
        return -1;
    }
    return 0;
}

int fq_log_send_event(fq_pqueue* pqueue, fq_av_event_type_t type, const char* realmID, const char* SID,
                      const char* filename, const char* errormsg, const char* blocking_reason,
                      const char* event_message, fq_secretbox_key_t* secretboxKey)
{
    fq_json_ptr message(fq_log_create_message());
    if (!message) {
        log_error("Failed to allocate %s", "fqlog");
        return -1;
    }
    json_object_object_add(message.get(), "Command", json_object_new_int(EVENTHANDLER_HANDLE_EVENT));
    s_add_text(message.get(), "realmID", realmID);
    s_add_text(message.get(), "SID", SID);
    if (s_add_event_section(message.get(), type, filename, errormsg, blocking_reason, event_message, secretboxKey) != 0)
        return -1;
    return fq_log_enqueue(pqueue, 'E', message.get());
}

// ---------------------------------------------------------------------------
// The dispatcher

std::atomic<int> fq_log_foreground_requests{0};

namespace {

// Sleeps in short steps so that a stop request is seen within one of them.
void s_sleep_unless_killed(const fq_log_thread_param_t* p, int ms)
{
    for (int left = ms; left > 0 && !p->killed; left -= FQ_LOG_BUSY_SLEEP_MS)
        fq_sleep_ms(left < FQ_LOG_BUSY_SLEEP_MS ? left : FQ_LOG_BUSY_SLEEP_MS);
}

bool s_is_json_object(const char* text)
{
    fq_json_ptr obj(json_tokener_parse(text));
    return obj && json_object_is_type(obj.get(), json_type_object);
}

void s_restore(const fq_pqueue_data* e)
{
    if (rename(e->id, e->restore_id) != 0)
        log_error("Failed to restore %s -> %s: %s", e->id, e->restore_id, FQstrerror(errno));
}

void s_drop(const fq_pqueue_data* e, const char* why)
{
    log_warn("Dropping %s entry %s", why, e->id);
    if (unlink(e->id) != 0)
        log_error("Failed to remove %s: %s", e->id, FQstrerror(errno));
}

enum s_send_result_t { SENT, REFUSED, NOT_REACHED };

s_send_result_t s_send(fq_connection_config* cc, const char* service, const char* text)
{
    fq_json_ptr reply(
        fq_connection_send_recv_json(cc, service, text, FQ_LOG_SEND_TIMEOUT_MS, FQ_LOG_SEND_RETRIES, nullptr));
    if (!reply)
        return NOT_REACHED;
    json_object* rc = nullptr;
    if (json_object_object_get_ex(reply.get(), "ReturnCode", &rc) && json_object_get_int(rc) == 0)
        return SENT;
    return REFUSED;
}

// Delivers the batch in its order (oldest first); a stop request gives back what is left. Once a
// service has not answered, the rest of its kind in this batch goes back at once, untried: it
// could not be reached either, and a younger record must not overtake an older one of its kind.
void s_deliver_batch(fq_log_thread_param_t* p, fq_pqueue_data** batch, int count, int* delay)
{
    std::vector<bool> done(static_cast<size_t>(count), false);
    for (int i = 0; i < count; ++i) {
        fq_pqueue_data* e = batch[i];
        if (done[static_cast<size_t>(i)])
            continue;
        if (p->killed) {
            // Stopping: what was not walked goes back for the next dispatcher, of this process or another.
            if (rename(e->id, e->restore_id) != 0)
                log_trace("Shutdown restore failed for %s: %s", e->id, FQstrerror(errno));
            continue;
        }
        if (fq_pqueue_data_read(e) != 0 || e->datalen == 0) {
            s_drop(e, "unreadable/empty");
            continue;
        }
        if (!s_is_json_object(static_cast<const char*>(e->data))) {
            s_drop(e, "non-JSON");
            continue;
        }
        const char* service = s_get_service_name(e->prefix);
        log_trace("De-queueing entry to broker %s:%s", service, e->id);
        const s_send_result_t sent = s_send(p->connection_config, service, static_cast<const char*>(e->data));
        if (sent == SENT) {
            log_trace("Log/Event entry %s SENT to service %s", e->id, service);
            if (unlink(e->id) != 0)
                log_error("Failed to remove %s: %s", e->id, FQstrerror(errno));
            *delay = 0;
            if (fq_log_foreground_requests > 0)
                s_sleep_unless_killed(p, FQ_LOG_FOREGROUND_PAUSE_MS);
            continue;
        }
        log_error("Failed to send log/event entry %s; restoring for retry", e->id);
        s_restore(e);
        if (sent == NOT_REACHED) {
            for (int j = i + 1; j < count; ++j) {
                if (batch[j]->prefix == e->prefix) {
                    s_restore(batch[j]);
                    done[static_cast<size_t>(j)] = true;
                }
            }
        }
        if (*delay < FQ_LOG_BACKOFF_MAX_MS)
            *delay += FQ_LOG_BACKOFF_STEP_MS;
        s_sleep_unless_killed(p, *delay);
    }
}

}  // namespace

const char* s_get_service_name(char prefix)
{
    return prefix == 'E' ? "fq-av-events-dispatch" : "fq-av-log";
}

void fq_sleep_ms(int ms)
{
    if (ms <= 0)
        return;
    struct timespec ts = {ms / 1000, static_cast<long>(ms % 1000) * 1000000L};
    while (nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

void* fq_log_dequeue_thread(void* param)
{
    auto* p = static_cast<fq_log_thread_param_t*>(param);
    log_trace("log dequeue thread started");
    if (!p || !p->pq || !p->connection_config) {
        log_error("Invalid parameters");
        log_debug("Log dequeue thread ending");
        fq_connection_release();
        return nullptr;
    }
    // Delivery is background work: while the machine is busy, the scans go first.
    if (setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), FQ_LOG_DISPATCHER_NICE) != 0)
        log_debug("Could not lower the priority of the log dequeue thread: %s", FQstrerror(errno));
    fq_pqueue_reclaim_stale_claims(p->pq, FQ_LOG_STALE_CLAIM_AGE_SECS);
    int delay = 0;
    while (!p->killed) {
        if (fq_pqueue_lock(p->pq) != 0) {
            fq_sleep_ms(FQ_LOG_BUSY_SLEEP_MS);
            continue;
        }
        fq_pqueue_data** batch = nullptr;
        // The lock covers the claim only; delivery runs without it.
        const int count = fq_pqueue_claim_batch(p->pq, "LE", FQ_LOG_BATCH, &batch);
        fq_pqueue_unlock(p->pq);
        if (count <= 0) {
            if (!p->killed)
                fq_sleep_ms(FQ_LOG_IDLE_SLEEP_MS);
            continue;
        }
        s_deliver_batch(p, batch, count, &delay);
        for (int i = 0; i < count; ++i)
            fq_pqueue_data_free(batch[i]);
        free(batch);
    }
    log_debug("Log dequeue thread ending");
    // Last: the hold taken for this thread when it was created.
    fq_connection_release();
    return nullptr;
}

fq_log_thread_param_t* fq_log_create_log_dispatcher(const char* rundir, fq_connection_config* connection_config)
{
    if (!rundir)
        return nullptr;
    auto* p = new (std::nothrow) fq_log_thread_param_t{};
    if (!p)
        return nullptr;
    char resolved[4096];
    if (!realpath(rundir, resolved)) {
        log_error("Failed to resolve %s: %s", rundir, FQstrerror(errno));
        snprintf(resolved, sizeof(resolved), "%s", rundir);
    }
    const char* qname = FQ_SERVICE_NAME ".pq";
    p->pq = fq_pqueue_open(resolved, qname, FQ_LOG_QUEUE_MAX_ELEMENTS, FQ_LOG_QUEUE_MAX_SIZE, O_CREAT, RINGBUFFER);
    if (!p->pq)
        log_error("Failed to allocate persistent queue");
    log_debug("Persistent log queue name: %s in directory %s", qname, resolved);
    p->connection_config = connection_config;
    // Taken before the thread exists, so that a stop never finds the connection unused while the
    // thread is about to start on it.
    fq_connection_hold();
    if (FQ_CreateThread(&p->th_id, fq_log_dequeue_thread, p) != 0) {
        log_error("Failed to start log dequeue thread");
        fq_connection_release();
        p->th_id = 0;
    } else {
        log_info("log dequeue thread created");
    }
    if (!p->th_id) {
        fq_pqueue_close(p->pq);
        delete p;
        return nullptr;
    }
    return p;
}

int fq_log_wait_delivered(fq_log_thread_param_t* params, int timeout_ms)
{
    if (!params || !params->pq)
        return -1;
    for (int waited = 0;; waited += FQ_LOG_BUSY_SLEEP_MS) {
        if (fq_pqueue_pending(params->pq, "LE") == 0)
            return 0;
        if (waited >= timeout_ms)
            return -1;
        fq_sleep_ms(FQ_LOG_BUSY_SLEEP_MS);
    }
}

int fq_log_stop_log_dispatcher(fq_log_thread_param_t* params, unsigned timeout_ms)
{
    if (!params || !params->th_id)
        return -1;
    params->killed = 1;
    log_trace("Signaling log thread to terminate");
    return FQ_JoinThreadTimeout(params->th_id, timeout_ms);
}

void fq_log_free_log_dispatcher(fq_log_thread_param_t** params)
{
    if (!params || !*params)
        return;
    fq_pqueue_close((*params)->pq);
    delete *params;
    *params = nullptr;
}
