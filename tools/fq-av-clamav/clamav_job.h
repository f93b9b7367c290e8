// One scan job of fq-av-clamav: the object's bytes scanned by libclamav, archives unpacked
// with libarchive level by level, one reply entry per file.
#pragma once

#include <json-c/json.h>
#include <stddef.h>
#include <stdint.h>

#include "clamav_engine.h"

// What the engine uses when a job sets no limit (0 or below); a job's own limits are cut to
// the ceilings, because every unpacked member is held in memory while it is scanned.
#define FQCLAM_DEFAULT_DEPTH 20
#define FQCLAM_CEILING_DEPTH 100
#define FQCLAM_DEFAULT_MAX_FILES 10000
#define FQCLAM_CEILING_MAX_FILES 1000000
#define FQCLAM_DEFAULT_MAX_BYTES (512ULL * 1024 * 1024)
#define FQCLAM_CEILING_MAX_BYTES (2048ULL * 1024 * 1024)

typedef struct fqclam_limits_t {
    int depth;           // archive levels unpacked below the object; 1 = the object's own members only
    int64_t max_files;   // nested files in all levels together
    uint64_t max_bytes;  // unpacked bytes in all levels together
    int64_t timeout_ms;  // 0 = no time limit of the engine's own
} fqclam_limits_t;

// The limits of a forwarded job: SCANEXTRACT_DEPTH, SCANEXTRACT_MAX_FILES, SCANEXTRACT_SIZE, SCANTIMEOUT.
void fqclam_read_limits(json_object* job, fqclam_limits_t* limits);

// Answers one request: a scan job (or a ping, Command 3) and the object's bytes. Returns the reply
// as a heap text (free()), never null unless out of memory.
char* fqclam_scan_job(const fqclam_engine_t* engine, const char* job_json, const unsigned char* data, size_t len);
