// The job the worker sends to each scan service: built once per request from the client's job.
#pragma once

#include <json-c/json.h>
#include <stddef.h>

#include "fq_worker_scanobject.h"

// json-c's pretty form, one member per line; '/' is escaped as "\/".
#define FQ_FORWARD_JOB_TEXT_FLAGS JSON_C_TO_STRING_PRETTY

// Fills json (a new empty object owned by the caller) with the forwarded job, members in their
// fixed order, and points *pp_request_json_txt at its text, which lives inside json until json is
// changed and written again or released. Reads scanjob_json and recursion_level of original_job;
// filename and filellen become ObjectName and ObjectLen; shmid -1 means none.
// Result 0, or -1000 with the reason in error (1024 bytes, may be null) and at ERROR; then
// *pp_request_json_txt is untouched and what was added so far stays in json.
int fq_worker_encodescanjobtoJSON(json_object* json, const fq_worker_scanobject_t* original_job,
                                  const char* filename, size_t filellen, const char** pp_request_json_txt,
                                  int shmid, char* error);

// After fq-av-mimescan said SCAN_OK: adds (or replaces) MIME-type, MIME-encoding, File-type and
// Extension at the end of the forwarded job and writes its text again into *pp_request_json_txt.
// A null text goes out as an empty string. Result 0, or -1000 with "Failed to update scan request
// with MIME-scan results" in error (1024 bytes, may be null) and at ERROR.
int fq_worker_add_mime_to_scanjob(json_object* json, const char* mime_type, const char* mime_encoding,
                                  const char* file_type, const char* extension, const char** pp_request_json_txt,
                                  char* error);
