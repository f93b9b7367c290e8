// The persistent queue of log records and events: a directory with one file per entry, shared by
// every process that opens it. All state changes are renames, so a pending entry is always whole.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include <mutex>

// An entry larger than this is refused at push and dropped at read: it could not cross the broker.
#define FQ_PQUEUE_MAX_ENTRY_BYTES 1048576
// How old the counters may grow before a push lists the directory again.
#define FQ_PQUEUE_RECOUNT_MS 100

typedef enum {
    RINGBUFFER = 1,
    FAIL = 2,
} fq_pqueue_full_behaviour;

typedef struct fq_pqueue {
    char* queue_dir;       // <rundir>/<qname>
    char* queue_data_dir;  // <queue_dir>/data
    char* controlfile;     // <queue_dir>/control, also what the file lock is taken on
    char* semaphore_name;  // "fq_<qname>"; locking goes through the file lock
    int lock_fd;           // -1 when not locked
    size_t max_elements;
    size_t max_size;
    // Files and bytes in data/ as last counted, plus what this process pushed since: under stat_mutex.
    size_t current_elements;
    size_t current_size;
    int64_t counted_at_ms;
    fq_pqueue_full_behaviour if_full;
    std::mutex mutex;  // held together with the file lock
    std::mutex stat_mutex;
} fq_pqueue;

typedef struct fq_pqueue_data {
    char* id;          // path of the claimed file
    char* restore_id;  // path it had before the claim
    char prefix;
    void* data;        // after fq_pqueue_data_read: the content and a NUL
    size_t datalen;    // without the NUL
} fq_pqueue_data;

// Opens <rundir>/<qname>, creating it (not rundir) when missing; limits in an existing control file
// win over the arguments. file_flags: O_CREAT, and O_TRUNC to purge an existing queue. Null on failure.
fq_pqueue* fq_pqueue_open(const char* rundir, const char* qname, size_t max_entries, size_t maxsize_on_disk,
                          int file_flags, fq_pqueue_full_behaviour if_full);
fq_pqueue* fq_pqueue_create_new(const char* qname, const char* q_dir, size_t max_entries, size_t maxsize_on_disk,
                                int file_flags, fq_pqueue_full_behaviour if_full);

// Adds an entry of datalen (> 0) bytes; prefix is its kind ('L' log record, 'E' event). Any thread
// may push; a full queue refuses with a warning. 0 or -1.
int fq_pqueue_push(fq_pqueue* q, char prefix, const char* data, size_t datalen);

// The lock for claiming, between processes and threads alike; never waits. 0, or -1 when busy.
int fq_pqueue_lock(fq_pqueue* q);
int fq_pqueue_unlock(fq_pqueue* q);

// Claims up to max_batch pending entries whose prefix is in prefix_filter, oldest first; the lock
// must be held. *out gets a heap array of heap entries (free each with fq_pqueue_data_free, the
// array with free), or null. The number claimed, or -1.
int fq_pqueue_claim_batch(fq_pqueue* q, const char* prefix_filter, size_t max_batch, fq_pqueue_data*** out);

// Returns claimed entries written at least max_age_secs ago to the pending state, and removes
// temporary files of that age that a crash left behind. Takes the lock itself; a busy queue is
// skipped (0). The number of entries returned, or -1.
int fq_pqueue_reclaim_stale_claims(fq_pqueue* q, time_t max_age_secs);

// Loads data and datalen from the file at id. 0 or -1.
int fq_pqueue_data_read(fq_pqueue_data* data);
// Frees the entry; the file stays. 0, or -1 for null.
int fq_pqueue_data_free(fq_pqueue_data* ptr);

// Entries still to be delivered: pending ones with a prefix in prefix_filter and those claimed by
// this process. -1 when data/ cannot be read.
int fq_pqueue_pending(fq_pqueue* q, const char* prefix_filter);

// Removes every entry. 0 or -1.
int fq_pqueue_purge(fq_pqueue* q);
// Frees the object; the files stay. 0, or -1 for null.
int fq_pqueue_close(fq_pqueue* q);
