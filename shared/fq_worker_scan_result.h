// Verdicts of a scan: one record per file, the consolidated record of a request, the merge of a
// service's verdicts into it, the summary that works verdicts up to parents, and the reply text.
#pragma once

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>

#ifndef FQ_VS_OBJECTTYPE_DEFINED
#define FQ_VS_OBJECTTYPE_DEFINED
// Object type of the Virus Scan Interface, carried as a number from the services to the client.
typedef int VS_OBJECTTYPE_T;
#define VS_OT_UNKNOWN (-1)
#endif

// The Error of a failed scan when nothing on the way said what failed: a -1000 always carries a text.
#define FQ_SCAN_ERROR_WITHOUT_TEXT "Scan failed, and no step of it said why"

// Longest text of the summary's combined blocking reasons.
#define FQ_SCAN_REASONS_MAX 4096

typedef struct fq_worker_file_scan_result_t {
    int32_t rc;             // a value of fq_msg_replies
    char* filename;         // nested files begin with their parent's name; the merge key
    size_t filesize;
    char* mime_type;
    char* mime_encoding;
    char* file_type;
    char* extension;
    char* blocking_reason;  // the service's Virusname; empty means none
    char* error;            // set on entries that stand for a failed service
    VS_OBJECTTYPE_T objecttype;
} fq_worker_file_scan_result_t;

typedef struct fq_worker_scan_result_t {
    pthread_mutex_t mutex;  // held during a merge into this record
    int32_t rc;
    char* blocking_reason;
    char* error;
    int32_t no_of_files_scanned;
    fq_worker_file_scan_result_t** fileScanResults;
    unsigned char* cleanedBuffer;
    size_t cleanedBufferlen;
} fq_worker_scan_result_t;

// Records are malloc'ed and zeroed; every text they own is a malloc'ed text released with free().
fq_worker_file_scan_result_t* fq_worker_new_file_scan_result(void);
void fq_worker_free_file_scan_result(fq_worker_file_scan_result_t** file);
fq_worker_scan_result_t* fq_worker_new_scan_result(void);
void fq_worker_free_scan_result(fq_worker_scan_result_t** result);

// Appends a deep copy of file (null texts become empty texts); the caller keeps file and holds
// consolidated's mutex if others can see it. 0 or -1.
int fq_worker_add_file_scan_result(fq_worker_scan_result_t* consolidated, const fq_worker_file_scan_result_t* file);
// Merges result's entries into consolidated by exact file name, under consolidated's mutex:
// new names are appended, known ones only get worse codes and fill texts still empty. 0 or -1.
int fq_worker_merge_scanresults(fq_worker_scan_result_t* consolidated, fq_worker_scan_result_t* result);
// Works blocked verdicts up to parent entries, sets the overall rc/error and the combined
// blocking reason. 0, or -1 for a null record.
int fq_worker_create_scan_results_summary(fq_worker_scan_result_t* result);
// The reply text for the client (heap, owned by the caller), or null.
char* fq_worker_create_scan_reply(fq_worker_scan_result_t* result);
