// What the linked nats.c lacks, kept in one place: a per-message time to live goes out as the
// Nats-TTL header of a JetStream publish, and TLS handshake-first is used where the library has it
// (otherwise one warning and the standard upgrade). Staged payloads and registry records get their
// time to live through here. Nothing here retries or decides: callers see the library's status.
#include "fq_nats_compat.h"

#include <inttypes.h>
#include <stdio.h>

#include <atomic>

#include "log.h"

natsStatus fq_nats_compat_msg_with_ttl(natsMsg** out, const char* subject, const void* data, int len,
                                       int64_t ttl_ms)
{
    if (!out || !subject || len < 0)
        return NATS_INVALID_ARG;
    *out = nullptr;
    natsMsg* msg = nullptr;
    natsStatus s = natsMsg_Create(&msg, subject, nullptr, static_cast<const char*>(data), len);
    if (s != NATS_OK)
        return s;
    if (ttl_ms > 0) {
        char value[32];
        snprintf(value, sizeof(value), "%" PRId64 "ms", ttl_ms);
        s = natsMsgHeader_Set(msg, FQ_NATS_TTL_HEADER, value);
        if (s != NATS_OK) {
            natsMsg_Destroy(msg);
            return s;
        }
    }
    *out = msg;
    return NATS_OK;
}

natsStatus fq_nats_compat_publish_ttl(jsCtx* js, const char* subject, const void* data, int len, int64_t ttl_ms,
                                      jsErrCode* errcode)
{
    natsMsg* msg = nullptr;
    natsStatus s = fq_nats_compat_msg_with_ttl(&msg, subject, data, len, ttl_ms);
    if (s != NATS_OK)
        return s;
    jsPubAck* ack = nullptr;
    s = js_PublishMsg(&ack, js, msg, nullptr, errcode);
    jsPubAck_Destroy(ack);
    natsMsg_Destroy(msg);
    return s;
}

natsStatus fq_nats_compat_publish_ttl_async(jsCtx* js, const char* subject, const void* data, int len,
                                            int64_t ttl_ms)
{
    natsMsg* msg = nullptr;
    natsStatus s = fq_nats_compat_msg_with_ttl(&msg, subject, data, len, ttl_ms);
    if (s != NATS_OK)
        return s;
    s = js_PublishMsgAsync(js, &msg, nullptr);
    // On success the library owns the message and has cleared our pointer.
    natsMsg_Destroy(msg);
    return s;
}

natsStatus fq_nats_compat_tls_handshake_first(natsOptions* opts)
{
#ifdef FQ_HAVE_TLS_HANDSHAKE_FIRST
    return natsOptions_TLSHandshakeFirst(opts);
#else
    (void)opts;
    static std::atomic<bool> warned{false};
    if (!warned.exchange(true))
        log_warn("NATS: this cnats build has no TLS handshake-first; using the standard TLS upgrade after INFO");
    return NATS_OK;
#endif
}

int fq_nats_compat_has_tls_handshake_first(void)
{
#ifdef FQ_HAVE_TLS_HANDSHAKE_FIRST
    return 1;
#else
    return 0;
#endif
}
