#include "fqhlp_buffer_file.h"

#include <stdio.h>

#include <memory>

#include "log.h"

namespace {
struct FileCloser {
    void operator()(FILE* f) const { fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;
}  // namespace

int fqhlp_dump_buffer_to_file(const char* pBuffer, size_t length, const char* filename)
{
    if (filename == nullptr || (pBuffer == nullptr && length > 0)) {
        log_error("Invalid arguments");
        return -1;
    }
    FilePtr f(fopen(filename, "wb"));
    if (!f) {
        log_error("Could not open %s for writing, aborting", filename);
        return -1;
    }
    if (length > 0)
        fwrite(pBuffer, 1, length, f.get());
    return 0;
}

int fqhlp_read_buffer_from_file(char* pBuffer, size_t length, const char* filename)
{
    if (filename == nullptr || (pBuffer == nullptr && length > 0)) {
        log_error("Invalid arguments");
        return -1;
    }
    FilePtr f(fopen(filename, "r"));
    if (!f) {
        log_error("Could not open %s for reading, aborting", filename);
        return -1;
    }
    if (length == 0)
        return 0;
    size_t got = fread(pBuffer, 1, length, f.get());
    if (got < length) {
        if (ferror(f.get()))
            log_error("read error");
        else
            log_error("unexpected EOF met");
        return -1;
    }
    return 0;
}
