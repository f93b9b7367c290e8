// Time-based UUIDs: the names of queue entries and the EventID of every log record and event.
#pragma once

#include <stdint.h>

#define FQ_UUID_BYTES 16
#define FQ_UUID_TEXT_LEN 36  // without the NUL

// A new time-based UUID in out (16 bytes). 0, or -1 when libuuid could not guarantee it unique
// across processes; the UUID is usable either way.
int fq_uuid_generate_time_safe(unsigned char* out);
// The 36-character lower-case form of uu, and a NUL, into out (37 bytes).
void fq_uuid_unparse_lower(const unsigned char* uu, char* out);
// The 60-bit time stamp of a time-based UUID given as text (the first 36 characters of text), in
// 100 ns units: UUIDs made one after the other on a host sort by it. 0, or -1 when text is not a
// time-based UUID.
int fq_uuid_text_time(const char* text, uint64_t* out);
