// The worker's two small channels: the shared ping subject and its private control subject.
#pragma once

#include "fq_request_reply_types.h"

// Ping subject: answers a PING with {"ReturnCode": 0}, anything else with -1.
int fq_worker_ping_request_handler(void* params, fq_const_request_reply_t* rr);
// Control subject; params is the fq_thread_global_params_t*. Takes PING, READY and SHUTDOWN.
int fq_worker_control_request_handler(void* params, fq_const_request_reply_t* rr);

// The handshake messages a worker sends to another one's control subject.
// Values are JSON-escaped; for plain values the text is the fixed layout of the message.
int fq_worker_build_ready_message(char* buf, size_t buflen, const char* secret, const char* shutdown_subject,
                                  const char* shutdown_secret);
int fq_worker_build_shutdown_message(char* buf, size_t buflen, const char* secret);
