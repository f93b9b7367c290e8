#pragma once

#include <stddef.h>

// Writes length bytes of pBuffer to filename, replacing the file. 0 or -1.
int fqhlp_dump_buffer_to_file(const char* pBuffer, size_t length, const char* filename);

// Reads exactly length bytes of filename into pBuffer (provided by the caller).
// A file shorter than length is a failure. 0 or -1.
int fqhlp_read_buffer_from_file(char* pBuffer, size_t length, const char* filename);
