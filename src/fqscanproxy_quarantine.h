// The hand-off of a non-clean object to the quarantine service the job names.
#pragma once

#include "fq_worker.h"
#include "fq_worker_scan_result.h"
#include "fq_worker_scanobject.h"

// Sends scanobject's bytes, plain or encrypted, to fq-av-quarantine.<key> with the consolidated
// verdict of scan_result. 0 when the service stored the object (*quarantine_log_filename then gets
// a heap copy of the name it was stored under); the service's own non-zero ReturnCode when it
// refused; -1000 for every other failure. errormessage (1024 bytes) says why whenever it is not 0.
// Cuts scanobject->CLEANQUARANTINE at its first ':' in place, so it runs once per scan object.
int fqscanproxy_quarantine(fq_worker_scan_result_t* scan_result, const fq_worker_config_t* config,
                           fq_worker_scanobject_t* scanobject, char** quarantine_log_filename, char* errormessage);
