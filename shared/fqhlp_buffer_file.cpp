// Whole buffers to and from files; the worker writes its .running_version this way at start. A
// failure is logged and reported to the caller, and a short read is a failure: a partly filled
// buffer is never passed off as the whole file.
#include "fqhlp_buffer_file.h"

#include <stdio.h>

#include "fq_raii.h"
#include "log.h"

int fqhlp_dump_buffer_to_file(const char* pBuffer, size_t length, const char* filename)
{
    if (filename == nullptr || (pBuffer == nullptr && length > 0)) {
        log_error("Invalid arguments");
        return -1;
    }
    fq_file_ptr f(fopen(filename, "wb"));
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
    fq_file_ptr f(fopen(filename, "r"));
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
