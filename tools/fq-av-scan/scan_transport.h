// fq-av-scan: how a job reaches the worker and its reply comes back.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>

#include "fq_connection_client.h"

namespace fqscan {

inline constexpr const char* kWorkerService = "fq-av-scanproxy";

// A core request to the worker's queue group. true with the reply body in *reply, or false
// with the reason in *error (time-out, nobody serving, broker failure).
bool request_core(fq_connection_config* cfg, const std::string& body, int64_t wait_ms, std::string* reply,
                  std::string* error);

// The job through the work queue jobs.<service>: published with _reqid and _reply_subj, the
// reply awaited on that inbox. A job nobody took in time is removed from the stream again, so
// that a worker coming later does not scan an object whose staging is gone.
bool request_work_queue(fq_connection_config* cfg, const std::string& body, int64_t wait_ms, std::string* reply,
                        std::string* error);

// The job and the object's bytes (data may be null when len is 0) in one POST to the HTTP gateway
// the connection names; true with the reply text, or false with the reason.
bool request_gateway(fq_connection_config* cfg, const std::string& body, const void* data, size_t len,
                     int64_t wait_ms, std::string* reply, std::string* error);

// PING to <service>.ping (through the gateway in gateway mode); true when any reply came.
bool ping_worker(fq_connection_config* cfg, int64_t wait_ms, std::string* error);

}  // namespace fqscan
