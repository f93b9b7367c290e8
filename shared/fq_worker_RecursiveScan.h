// The scan of one object through the job's services: the service tokens, the call to one service,
// the reading of its reply and what each reply code means for the walk.
#pragma once

#include <json-c/json.h>
#include <stddef.h>
#include <stdint.h>

#include "fq_connection_client.h"
#include "fq_request_reply_types.h"
#include "fq_worker_scan_result.h"

// Limits on what a service reply may make the worker hold. A reply beyond them is refused as a
// service failure: entries of "Results", and bytes of each text of an entry. "Error" and
// "Blocking-reason" are cut to FQ_SERVICE_REPLY_MAX_ERROR and FQ_SERVICE_REPLY_MAX_TEXT bytes.
#define FQ_SERVICE_REPLY_MAX_ENTRIES 10000
#define FQ_SERVICE_REPLY_MAX_TEXT 4096
#define FQ_SERVICE_REPLY_MAX_ERROR 1023

// Cuts services (a ";"-separated list) in place into a new null-terminated array of copies.
// Empty tokens and the names fq-av-cloudscan and fq-av-scanproxy (any case) are left out.
// Null only when out of memory. Release with fq_worker_free_services_list.
char** fq_worker_tokenize_services(char* services);
void fq_worker_free_services_list(char*** list);
// 0 when every service a list of tokens can lead to (each primary and each link of its "+"
// chain) has a name that may go on the broker; otherwise -1 and error (1024 bytes, may be
// null) names the Services entry and what is wrong with it. Nothing is sent either way.
int fq_worker_check_services(const char* services, char* error);

// Reads a service reply into result, all or nothing. On success (0) result's rc is the reply's
// code, its entries are replaced by the reply's and, for SERVICE_ERROR, its error by the reply's
// "Error"; its blocking_reason is not touched. On a fault result is left as it was, error (1024
// bytes, may be null) says what was wrong, and the value is -1 (malformed) or -1000 (out of memory).
int fq_worker_parse_scanresult_json(json_object* reply, fq_worker_scan_result_t* result, char* error);

// What the walk does with a reply code that result->rc holds after a reply has been read, without
// any "+" of the token (that part is fq_worker_scan_with_service's). reply_blocking_reason is the
// reply's "Blocking-reason" or null; service names the service in texts. Sets
// result->blocking_reason (and error) as the code calls for and returns the code the driver acts
// on: 0, -100, -101, -200, -202, -210, or -1000 for SERVICE_ERROR and every code outside those.
// errormessage is a 1024-byte buffer, or null.
int fq_worker_map_service_rc(const char* service, fq_worker_scan_result_t* result, const char* reply_blocking_reason,
                             char* errormessage);

// The transport of one request: exactly one attempt within timeout_ms. Returns the parsed reply
// (owned by the caller) or null, with a text in errormessage (1024 bytes) when it has one.
typedef json_object* (*fq_worker_service_send_f_t)(void* ctx, const char* service, fq_const_request_reply_t* rr,
                                                   uint64_t timeout_ms, char* errormessage);

// Scans with one token of the service list through send: the request carries request_json_str and
// either the payload (data, datalen) or staged_data_key. Follows "+" chains after
// SCAN_NOT_COMPLETED, each link with the same timeout_ms. result is the per-service result; after a
// return of -1000 it holds no entries, rc -1000 and the failure text in error. errormessage is the
// caller's 1024-byte buffer (may be null). Returns what fq_worker_map_service_rc returns, 0 for a
// "+" that overrides SCAN_NOT_COMPLETED, or -1000 for no reply and for a reply that can't be read.
int fq_worker_scan_with_service(fq_worker_service_send_f_t send, void* send_ctx, const char* service_in,
                                const char* request_json_str, const char* data, size_t datalen, uint64_t timeout_ms,
                                fq_worker_scan_result_t* result, char* errormessage, const char* staged_data_key);

struct fq_worker_scanobject_t;

// Walks one object through the services of its job within timeout_ms, merging each service's
// findings into result. The object crosses the broker once: under inbound_kv_key when it came that
// way, otherwise staged here (and removed again on every path). error is a 1024-byte buffer;
// blocking_reason, if given, receives a heap copy of the reason when the walk stops on a finding.
// Returns 0 (clean so far), a verdict code (-100, -101, -200, -202, -210), -1000 on any failure,
// or -1 when the job's service list cannot be read.
int fqworker_RecursiveScan(const char* name, const char* data, size_t datalen, fq_worker_scanobject_t* scanobject,
                           fq_worker_scan_result_t* result, char* error, char** blocking_reason,
                           bool UseSharedMemoryForRecursion, uint64_t timeout_ms, const char* inbound_kv_key);
// The same walk over another transport for the service requests (staging still goes through the
// job's connection): what tests and fuzzing use to watch every request the walk would make.
int fqworker_RecursiveScan_via(fq_worker_service_send_f_t send, void* send_ctx, const char* name, const char* data,
                               size_t datalen, fq_worker_scanobject_t* scanobject, fq_worker_scan_result_t* result,
                               char* error, char** blocking_reason, bool UseSharedMemoryForRecursion,
                               uint64_t timeout_ms, const char* inbound_kv_key);
