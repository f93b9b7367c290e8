// What the linked nats.c may lack: per-message TTL on JetStream publishes and
// TLS handshake-first. Everything version-dependent stays in here.
#pragma once

#include <nats/nats.h>
#include <stdint.h>

// The header newer clients send for a message's time to live.
#define FQ_NATS_TTL_HEADER "Nats-TTL"

// A message for subject carrying data and, with ttl_ms above 0, the TTL header ("<n>ms").
natsStatus fq_nats_compat_msg_with_ttl(natsMsg** out, const char* subject, const void* data, int len,
                                       int64_t ttl_ms);
// Synchronous JetStream publish with a per-message TTL; the acknowledgement is discarded.
natsStatus fq_nats_compat_publish_ttl(jsCtx* js, const char* subject, const void* data, int len, int64_t ttl_ms,
                                      jsErrCode* errcode);
// Asynchronous form: the acknowledgement is awaited with js_PublishAsyncComplete.
natsStatus fq_nats_compat_publish_ttl_async(jsCtx* js, const char* subject, const void* data, int len,
                                            int64_t ttl_ms);
// Asks for the TLS handshake before the server's INFO where the library can; otherwise
// logs once that the standard TLS upgrade is used and returns NATS_OK.
natsStatus fq_nats_compat_tls_handshake_first(natsOptions* opts);
// 1 when the linked library performs the handshake first.
int fq_nats_compat_has_tls_handshake_first(void);
