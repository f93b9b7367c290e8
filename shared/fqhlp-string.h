#pragma once

#include <stddef.h>
#include <stdint.h>

// Trims white space (as isspace sees it) at both ends of str, in place, and
// returns str; null for null. A string of blanks only keeps one blank.
char* fqhlp_TrimWhitespace(char* str);

// Writes length random characters from [0-9a-zA-Z] and a terminator to dest,
// which must hold length + 1 bytes. The characters come from the system's
// cryptographic generator; if that cannot be set up, dest becomes "".
void fqhlp_rand_str(char* dest, size_t length);

// A size from a command line: digits with an optional suffix K, M or G (powers of 1024). False for
// anything else, a negative number or more than max; *out is set only on success.
bool fqhlp_parse_size(const char* text, int64_t max, int64_t* out);
