// One libclamav engine for the whole process: loaded and compiled once, then shared
// read-only by every serving thread.
#pragma once

#include <stddef.h>

#include <string>

struct fqclam_engine_t;

typedef enum {
    FQCLAM_CLEAN = 0,
    FQCLAM_VIRUS = 1,
    // The engine could not look at everything: one of its own limits, or encrypted content.
    FQCLAM_INCOMPLETE = 2,
    FQCLAM_ERROR = 3,
} fqclam_verdict_t;

// Loads every database file in dbdir (no bytecode) and compiles the engine.
// Null with the reason in errmsg (1024 bytes) on failure, and also when the directory holds
// no signature at all: an engine without signatures would call everything clean.
fqclam_engine_t* fqclam_engine_load(const char* dbdir, char* errmsg);
void fqclam_engine_free(fqclam_engine_t** engine);
unsigned fqclam_engine_signatures(const fqclam_engine_t* engine);
// What the engine is, for every reply's "Engine": library version, signature count, database, and
// a warning when the database is only the shipped test set.
void fqclam_engine_set_test_database(fqclam_engine_t* engine, bool test_only);
const char* fqclam_engine_description(const fqclam_engine_t* engine);

// Scans one buffer. name is only a label for libclamav. With parse_archives false libclamav
// leaves archive formats closed (the caller unpacks them); other containers (PDF, OLE2, mail)
// are always parsed. *detail gets the signature name for FQCLAM_VIRUS, the reason for
// FQCLAM_INCOMPLETE and the engine's error text for FQCLAM_ERROR.
fqclam_verdict_t fqclam_engine_scan(const fqclam_engine_t* engine, const void* data, size_t len, const char* name,
                                    bool parse_archives, std::string* detail);
