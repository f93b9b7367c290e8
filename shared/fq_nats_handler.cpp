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
#include <string>

#include "fq_nats_client.h"
#include "fq_nats_names.h"
#include "fq_raii.h"
#include "fqhlp_replies.h"
#include "log.h"

namespace {

const char s_payload_unavailable[] = "Scan data unavailable: staged payload could not be retrieved from the KV store";

// Called once per started thread as it leaves, and once per thread that never started.
void s_release_thread_args(fq_nats_handler_thread_args_t* args)
{
    if (std::atomic_ref<int>(args->live_threads).fetch_sub(1) != 1)
        return;
    natsSubscription_Destroy(args->sub);
    free(args);
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
        const char* data = natsMsg_GetData(msg.get());
        const int len = natsMsg_GetDataLength(msg.get());
        if (!data || len <= 0)
            continue;

        char* reply_text = nullptr;
        fq_worker_scan_execute(args->config, args->handler, args->handler_config, data, (size_t)len, &reply_text);
        const char* reply_subject = natsMsg_GetReply(msg.get());
        char why[128];
        if (reply_text && reply_subject && *reply_subject &&
            fq_nats_check_name(reply_subject, FQ_NAME_REPLY, why, sizeof(why)) != 0) {
            // The requester chose where the answer goes; a system subject or a malformed one
            // would let it write with the worker's rights.
            log_warn("NATS: not replying to '%s': the reply subject %s", fq_nats_printable(reply_subject).c_str(), why);
        } else if (reply_text && reply_subject && *reply_subject) {
            s = natsConnection_PublishString(static_cast<natsConnection*>(args->config->_conn), reply_subject,
                                             reply_text);
            if (s != NATS_OK)
                log_error("NATS: failed to publish reply: %s", natsStatus_GetText(s));
        }
        free(reply_text);
    }
    log_info("NATS: handler thread exiting");
    // Nothing of args may be touched after this.
    s_release_thread_args(args);
    return nullptr;
}

int s_start_handler_threads(fq_nats_config* config, const char* service, const char* queue_group,
                            fq_request_handler_f_t request_handler, void* request_handler_config,
                            volatile const sig_atomic_t* terminate, int number_of_threads)
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

    for (int i = 0; i < number_of_threads; ++i) {
        pthread_t tid;
        const int rc = pthread_create(&tid, nullptr, handler_thread_fn, args);
        if (rc != 0) {
            log_error("NATS: failed to create handler thread %d: %s", i, strerror(rc));
            s_release_thread_args(args);
            continue;
        }
        pthread_detach(tid);
    }
    return 0;
}

}  // namespace

int fq_nats_start_service_handler_threads(fq_nats_config* config, const char* service,
                                          fq_request_handler_f_t request_handler, void* request_handler_config,
                                          volatile const sig_atomic_t* terminate, int number_of_threads)
{
    return s_start_handler_threads(config, service, service, request_handler, request_handler_config, terminate,
                                   number_of_threads);
}

int fq_nats_start_broadcast_handler_threads(fq_nats_config* config, const char* service,
                                            fq_request_handler_f_t request_handler, void* request_handler_config,
                                            volatile const sig_atomic_t* terminate, int number_of_threads)
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
                                   volatile const sig_atomic_t* terminate, int number_of_threads,
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
