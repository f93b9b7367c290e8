// The serving side of core NATS: a queue subscription per started thread, the threads that take
// requests from it, and fq_worker_scan_execute, which turns one message into one handler call (the
// payload named by _kv_key read from the store, that member hidden from the handler) and returns the
// reply text. This is where a scan job enters the worker and where its reply leaves it. A payload
// that cannot be read is answered SERVICE_ERROR without calling the handler: an object nobody has
// seen must never be called clean.
#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>
#include <algorithm>

#include "fq_nats_client.h"
#include "fq_nats_names.h"
#include "fq_raii.h"
#include "fqhlp_replies.h"
#include "log.h"

namespace {

const char s_payload_unavailable[] = "Scan data unavailable: staged payload could not be retrieved from the KV store";

// Serving threads still running, and those of them working on a request. A stop reads them to
// know when the connection is no longer in anybody's hands.
std::atomic<int> s_live_threads{0};
std::atomic<int> s_busy_threads{0};
// Other threads that use the connection in the background (the log dispatcher): the handles stay
// while any of them runs.
std::atomic<int> s_holders{0};

// Requests being worked on that someone waits for: their reply subjects, by the request's slot on
// its thread's stack. Whoever takes a request's entry out answers it, and only that one: its
// thread with the real reply, or a stop that abandons it.
std::mutex s_inflight_mu;
std::unordered_map<const void*, std::string> s_inflight;

void s_inflight_add(const void* slot, const char* reply_subject)
{
    std::lock_guard<std::mutex> lock(s_inflight_mu);
    s_inflight[slot] = reply_subject;
}

// True when the entry was still there, so the caller is the one to answer.
bool s_inflight_take(const void* slot)
{
    std::lock_guard<std::mutex> lock(s_inflight_mu);
    return s_inflight.erase(slot) == 1;
}

// Subscriptions that serving threads still read from; a stop that cannot wait for a busy thread
// refuses what queued up behind it. Entries leave under the lock before they are destroyed.
std::mutex s_subs_mu;
std::vector<fq_nats_handler_thread_args_t*> s_subs;

// Called once per started thread as it leaves, and once per thread that never started.
void s_release_thread_args(fq_nats_handler_thread_args_t* args)
{
    if (std::atomic_ref<int>(args->live_threads).fetch_sub(1) != 1)
        return;
    {
        std::lock_guard<std::mutex> lock(s_subs_mu);
        s_subs.erase(std::remove(s_subs.begin(), s_subs.end(), args), s_subs.end());
    }
    natsSubscription_Destroy(args->sub);
    free(args);
}

const char s_refused_stopping[] = "Scan refused: the worker is stopping";

// Answers a request that arrived too late to be worked on, so that its client can go elsewhere at once.
void s_refuse(natsConnection* conn, natsMsg* msg)
{
    const char* reply_subject = natsMsg_GetReply(msg);
    if (!reply_subject || !*reply_subject || fq_nats_check_name(reply_subject, FQ_NAME_REPLY, nullptr, 0) != 0)
        return;
    char* reply = nullptr;
    if (fq_reply_set_ERROR(&reply, SERVICE_ERROR, s_refused_stopping) == 0)
        natsConnection_PublishString(conn, reply_subject, reply);
    free(reply);
}

// Stops deliveries to the subscription and refuses whatever is still queued in it. The drain tells
// the server that this worker takes no more; the flush makes sure that everything the server
// routed here before that has arrived.
int s_refuse_drained(natsConnection* conn, natsSubscription* sub)
{
    int refused = 0;
    natsMsg* raw = nullptr;
    while (natsSubscription_NextMsg(&raw, sub, 1) == NATS_OK) {
        fq_nats_msg_ptr msg(raw);
        s_refuse(conn, msg.get());
        ++refused;
        raw = nullptr;
    }
    return refused;
}

int s_refuse_pending(natsConnection* conn, natsSubscription* sub)
{
    natsSubscription_Drain(sub);
    natsConnection_FlushTimeout(conn, 200);
    return s_refuse_drained(conn, sub);
}

void* handler_thread_fn(void* arg)
{
    auto* args = static_cast<fq_nats_handler_thread_args_t*>(arg);
    log_info("NATS: handler thread started");
    int64_t last_dropped = 0;
    int64_t last_notice_ms = 0;
    const char* subject = natsSubscription_GetSubject(args->sub);

    while (!*args->terminate) {
        natsMsg* raw = nullptr;
        natsStatus s = natsSubscription_NextMsg(&raw, args->sub, FQ_NATS_NEXTMSG_TIMEOUT_MS);
        fq_nats_msg_ptr msg(raw);

        // Dropped requests are lost for good: say so loudly, but not more than once in a while.
        int64_t dropped = 0;
        if (natsSubscription_GetDropped(args->sub, &dropped) == NATS_OK && dropped > last_dropped) {
            const int64_t now = nats_Now();
            if (last_notice_ms == 0 || now - last_notice_ms >= FQ_NATS_SLOW_CONSUMER_NOTICE_MS) {
                log_warn("NATS: SLOW CONSUMER on '%s' — %lld dropped total (+%lld since last notice); dropped "
                         "queue-group requests are NOT redelivered and their requesters time out. Raise worker "
                         "capacity or move this service to the JetStream work queue.",
                         subject ? subject : "(unknown)", (long long)dropped, (long long)(dropped - last_dropped));
                last_dropped = dropped;
                last_notice_ms = now;
            }
        }

        if (s == NATS_TIMEOUT)
            continue;
        if (s == NATS_CONNECTION_CLOSED || s == NATS_INVALID_SUBSCRIPTION)
            break;
        if (s != NATS_OK) {
            log_warn("NATS: handler NextMsg error: %s", natsStatus_GetText(s));
            continue;
        }
        if (!msg)
            continue;
        if (*args->terminate) {
            s_refuse(static_cast<natsConnection*>(args->config->_conn), msg.get());
            break;
        }
        const char* data = natsMsg_GetData(msg.get());
        const int len = natsMsg_GetDataLength(msg.get());
        if (!data || len <= 0)
            continue;

        const char* reply_subject = natsMsg_GetReply(msg.get());
        char why[128];
        if (reply_subject && *reply_subject && fq_nats_check_name(reply_subject, FQ_NAME_REPLY, why, sizeof(why)) != 0) {
            // The requester chose where the answer goes; a system subject or a malformed one
            // would let it write with the worker's rights. The request is still worked on.
            log_warn("NATS: not replying to '%s': the reply subject %s", fq_nats_printable(reply_subject).c_str(), why);
            reply_subject = nullptr;
        }
        const bool answered = reply_subject && *reply_subject;
        const int slot = 0;
        s_busy_threads.fetch_add(1);
        if (answered)
            s_inflight_add(&slot, reply_subject);

        char* reply_text = nullptr;
        fq_worker_scan_execute(args->config, args->handler, args->handler_config, data, (size_t)len, &reply_text);
        // A stop that could not wait any longer may have answered this request already.
        if (answered && s_inflight_take(&slot) && reply_text) {
            s = natsConnection_PublishString(static_cast<natsConnection*>(args->config->_conn), reply_subject,
                                             reply_text);
            if (s != NATS_OK)
                log_error("NATS: failed to publish reply: %s", natsStatus_GetText(s));
        }
        s_busy_threads.fetch_sub(1);
        free(reply_text);
    }
    if (*args->terminate) {
        const int refused = s_refuse_pending(static_cast<natsConnection*>(args->config->_conn), args->sub);
        if (refused > 0)
            log_info("NATS: refused %d queued request(s) on '%s': the worker is stopping", refused,
                     subject ? subject : "(unknown)");
    }
    log_info("NATS: handler thread exiting");
    // Nothing of args may be touched after this.
    s_release_thread_args(args);
    // Last: a stop waiting for this count releases the connection the subscription belonged to.
    s_live_threads.fetch_sub(1);
    return nullptr;
}

int s_start_handler_threads(fq_nats_config* config, const char* service, const char* queue_group,
                            fq_request_handler_f_t request_handler, void* request_handler_config,
                            const fq_stop_flag_t* terminate, int number_of_threads)
{
    if (!config || !config->_conn || !service || !request_handler || !terminate || number_of_threads <= 0) {
        log_error("NATS: invalid parameters for start_handler_threads");
        return -1;
    }
    char why[128];
    if (fq_nats_check_name(service, FQ_NAME_SERVICE, why, sizeof(why)) != 0) {
        log_error("NATS: failed to subscribe to '%s': the subject %s", fq_nats_printable(service).c_str(), why);
        return -1;
    }
    auto* conn = static_cast<natsConnection*>(config->_conn);
    natsSubscription* sub = nullptr;
    natsStatus s = queue_group ? natsConnection_QueueSubscribeSync(&sub, conn, service, queue_group)
                               : natsConnection_SubscribeSync(&sub, conn, service);
    if (s != NATS_OK) {
        log_error("NATS: failed to subscribe to '%s': %s", service, natsStatus_GetText(s));
        return -1;
    }
    // Core NATS gives no second chance: cap what may wait here, and let the threads report drops.
    natsSubscription_SetPendingLimits(sub, FQ_NATS_SUB_PENDING_MSGS, FQ_NATS_SUB_PENDING_BYTES);
    log_info("NATS: starting %d %s handler thread(s) for '%s'", number_of_threads, queue_group ? "queue" : "broadcast",
             service);

    // Shared by the threads of this subscription; the last of them to leave releases it.
    auto* args = static_cast<fq_nats_handler_thread_args_t*>(calloc(1, sizeof(fq_nats_handler_thread_args_t)));
    if (!args) {
        log_error("NATS: failed to create handler thread %d: %s", 0, strerror(ENOMEM));
        natsSubscription_Destroy(sub);
        return -1;
    }
    args->config = config;
    args->sub = sub;
    args->handler = request_handler;
    args->handler_config = request_handler_config;
    args->terminate = terminate;
    args->live_threads = number_of_threads;
    {
        std::lock_guard<std::mutex> lock(s_subs_mu);
        s_subs.push_back(args);
    }

    for (int i = 0; i < number_of_threads; ++i) {
        // Counted before it exists, so that a stop never sees the connection unused while a
        // thread is about to start on it.
        s_live_threads.fetch_add(1);
        pthread_t tid;
        const int rc = pthread_create(&tid, nullptr, handler_thread_fn, args);
        if (rc != 0) {
            log_error("NATS: failed to create handler thread %d: %s", i, strerror(rc));
            s_release_thread_args(args);
            s_live_threads.fetch_sub(1);
            continue;
        }
        pthread_detach(tid);
    }
    return 0;
}

}  // namespace

int fq_nats_start_service_handler_threads(fq_nats_config* config, const char* service,
                                          fq_request_handler_f_t request_handler, void* request_handler_config,
                                          const fq_stop_flag_t* terminate, int number_of_threads)
{
    return s_start_handler_threads(config, service, service, request_handler, request_handler_config, terminate,
                                   number_of_threads);
}

int fq_nats_start_broadcast_handler_threads(fq_nats_config* config, const char* service,
                                            fq_request_handler_f_t request_handler, void* request_handler_config,
                                            const fq_stop_flag_t* terminate, int number_of_threads)
{
    return s_start_handler_threads(config, service, nullptr, request_handler, request_handler_config, terminate,
                                   number_of_threads);
}

int fq_nats_request_staged_key(json_object* request, std::string* key, std::string* refusal)
{
    json_object* key_obj = nullptr;
    if (!request || !json_object_is_type(request, json_type_object) ||
        !json_object_object_get_ex(request, "_kv_key", &key_obj))
        return 0;
    // Whatever the member holds, its text is the key; a non-text one rarely passes the check.
    const char* k = json_object_get_string(key_obj);
    *key = k ? k : "";
    char why[128];
    if (fq_nats_check_name(key->c_str(), FQ_NAME_KV_KEY, why, sizeof(why)) != 0) {
        *refusal = "Scan request refused: _kv_key '" + fq_nats_printable(key->c_str()) + "' " + why;
        return -1;
    }
    return 1;
}

void fq_worker_scan_execute(fq_nats_config* config, fq_request_handler_f_t handler, void* handler_config,
                            const void* msg_data, size_t msg_len, char** out_reply_json)
{
    if (!out_reply_json)
        return;
    *out_reply_json = nullptr;
    fq_const_rr_ptr rr(fq_const_request_reply_new());
    if (!rr) {
        log_error("Failed to allocate %s", "request/reply");
        return;
    }

    std::string request_text(static_cast<const char*>(msg_data), msg_data ? msg_len : 0);
    std::string key;
    fq_buf_ptr payload;
    size_t payload_len = 0;
    bool payload_missing = false;
    std::string refusal;

    fq_json_ptr obj(json_tokener_parse(request_text.c_str()));
    const int has_key = obj ? fq_nats_request_staged_key(obj.get(), &key, &refusal) : 0;
    if (has_key != 0) {
        unsigned char* data = nullptr;
        if (has_key < 0) {
            // Never read, and never hand on to a service, a key the broker could misread.
            log_error("NATS: %s (handler not invoked)", refusal.c_str());
            payload_missing = true;
        } else if (kvstore_get_chunked(config, key.c_str(), &data, &payload_len) == 0) {
            payload.reset(data);
        } else {
            log_error("NATS: could not retrieve staged payload for key '%s' — failing the request closed (handler not "
                      "invoked)",
                      key.c_str());
            payload_missing = true;
        }
        // Handlers never see the transport's member.
        json_object_object_del(obj.get(), "_kv_key");
        request_text = json_object_to_json_string_ext(obj.get(), JSON_C_TO_STRING_PLAIN);
    }
    obj.reset();

    rr->request->json_txt = request_text.c_str();
    if (has_key != 0)
        rr->request->staged_data_key = key.c_str();
    rr->request->data = payload.get();
    rr->request->data_len = payload ? payload_len : 0;

    if (payload_missing) {
        // An object that could not be read must never be answered as if it were clean.
        fq_reply_set_ERROR(&rr->reply->json_txt, SERVICE_ERROR,
                           refusal.empty() ? s_payload_unavailable : refusal.c_str());
    } else if (handler) {
        handler(handler_config, rr.get());
    }
    *out_reply_json = rr->reply->json_txt;
    rr->reply->json_txt = nullptr;
}

int fq_nats_start_js_work_consumer(fq_nats_config* config, const char* service,
                                   fq_request_handler_f_t request_handler, void* request_handler_config,
                                   const fq_stop_flag_t* terminate, int number_of_threads,
                                   sem_t* scan_slot_sem)
{
    (void)config;
    (void)service;
    (void)request_handler;
    (void)request_handler_config;
    (void)terminate;
    (void)number_of_threads;
    (void)scan_slot_sem;
    log_error("NATS: JetStream work-queue ingress is not available in this build");
    return -1;
}

int fq_nats_serving_threads(int* busy)
{
    if (busy)
        *busy = s_busy_threads.load();
    return s_live_threads.load();
}

int fq_nats_abandon_requests(fq_nats_config* config, const char* text)
{
    std::unordered_map<const void*, std::string> taken;
    {
        std::lock_guard<std::mutex> lock(s_inflight_mu);
        taken.swap(s_inflight);
    }
    auto* conn = config ? static_cast<natsConnection*>(config->_conn) : nullptr;
    if (!conn)
        return 0;
    char* reply = nullptr;
    fq_reply_set_ERROR(&reply, SERVICE_ERROR, text);
    fq_cstr_ptr reply_guard(reply);
    int answered = 0;
    for (const auto& entry : taken) {
        if (reply && natsConnection_PublishString(conn, entry.second.c_str(), reply) == NATS_OK)
            ++answered;
    }
    log_warn("NATS: answered %d request(s) still being worked on with SERVICE_ERROR: %s", answered, text);
    // What queued up behind the busy threads is refused too; their threads would see it too late.
    int refused = 0;
    {
        std::lock_guard<std::mutex> lock(s_subs_mu);
        for (fq_nats_handler_thread_args_t* args : s_subs)
            natsSubscription_Drain(args->sub);
        natsConnection_FlushTimeout(conn, 200);
        for (fq_nats_handler_thread_args_t* args : s_subs)
            refused += s_refuse_drained(conn, args->sub);
    }
    if (refused > 0)
        log_warn("NATS: refused %d queued request(s): the worker is stopping", refused);
    natsConnection_FlushTimeout(conn, 300);
    return answered;
}

void fq_nats_connection_hold(int delta)
{
    s_holders.fetch_add(delta);
}

int fq_nats_connection_holders(void)
{
    return s_holders.load();
}
