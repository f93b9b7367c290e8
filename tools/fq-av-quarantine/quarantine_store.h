// The quarantine directory of fq-av-quarantine: objects as <id>.bin, each with its metadata in
// <id>.json beside it. The server fills it, the operator's commands read, restore and purge it.
#pragma once

#include <json-c/json.h>
#include <stddef.h>
#include <sys/types.h>
#include <time.h>

#include <string>
#include <vector>

#include "fq_raii.h"

// An id is "<UTC stamp>-<uuid>" ("20261123T021500Z-3f2a...") and nothing else; an operator may
// also give the stored file's name (<id>.bin). False for anything that is not exactly that.
bool qstore_parse_id(const std::string& text, std::string* id);

std::string qstore_sha256_hex(const unsigned char* data, size_t len);

// Reads a pass phrase file: its one line without the line end. False with the reason.
bool qstore_read_passphrase_file(const char* path, std::string* passphrase, std::string* error);

// Writes a new file in the directory dir_fd as a hidden temporary file first, synced and renamed
// into place only if name does not exist yet, so no reader ever sees half a file and nothing is
// overwritten. Symbolic links are never followed.
bool qstore_write_new_file(int dir_fd, const std::string& name, const unsigned char* data, size_t len, mode_t mode,
                           std::string* error);

class QuarantineStore {
public:
    QuarantineStore() = default;
    QuarantineStore(const QuarantineStore&) = delete;
    QuarantineStore& operator=(const QuarantineStore&) = delete;

    // Opens the directory; create makes it (mode 0700) with its parents when it is missing.
    bool open(const std::string& path, bool create, std::string* error);

    // Stores the bytes under a new id with meta (completed here by QuarantineFilename) beside
    // them; the metadata is written last, so a listed object is always complete.
    bool put(json_object* meta, const unsigned char* data, size_t len, std::string* stored_name, std::string* error);

    // The ids of complete objects, oldest first.
    std::vector<std::string> ids() const;
    fq_json_ptr metadata(const std::string& id, std::string* error) const;
    bool read_object(const std::string& id, std::vector<unsigned char>* bytes, std::string* error) const;
    // When the object was stored: its metadata's StoredAt, else the metadata file's time.
    time_t stored_at(const std::string& id) const;

    // Removes what is older than cutoff: complete objects, and the remains of interrupted stores
    // (an object without metadata, temporary files). Only names the store makes are touched.
    // Returns the ids of removed objects; *removed_files counts every file that went.
    std::vector<std::string> purge(time_t cutoff, bool dry_run, int* removed_files, std::string* error);

    ~QuarantineStore();

private:
    int fd_ = -1;
};
