// String helpers: white space trimmed in place, and the random 32-character secrets of the registry
// record and of the update handshake. The secrets come from libsodium's generator, never from rand()
// or the clock: whoever could guess one could stop or replace a worker.
#include "fqhlp-string.h"

#include <ctype.h>
#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <sodium.h>

#include "log.h"

char* fqhlp_TrimWhitespace(char* str)
{
    if (str == nullptr)
        return nullptr;

    // Leading white space goes, but never the last remaining character.
    size_t len = strlen(str);
    size_t lead = 0;
    while (lead + 1 < len && isspace(static_cast<unsigned char>(str[lead])))
        lead++;
    if (lead > 0) {
        memmove(str, str + lead, len - lead + 1);
        len -= lead;
    }
    if (len == 0)
        return str;

    // Trailing white space, stopping at the first character.
    size_t last = len - 1;
    while (last > 0 && isspace(static_cast<unsigned char>(str[last])))
        last--;
    str[last + 1] = '\0';
    return str;
}

void fqhlp_rand_str(char* dest, size_t length)
{
    static const char charset[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
    static_assert(sizeof(charset) - 1 == 62);

    if (dest == nullptr)
        return;
    // These strings are secrets: they must not be derivable from the clock or
    // from anybody else's use of rand(). sodium_init is idempotent.
    if (sodium_init() < 0) {
        log_error("Failed to initialize libsodium");
        dest[0] = '\0';
        return;
    }
    for (size_t i = 0; i < length; i++)
        dest[i] = charset[randombytes_uniform(sizeof(charset) - 1)];
    dest[length] = '\0';
}

bool fqhlp_parse_size(const char* text, int64_t max, int64_t* out)
{
    if (!text || !*text)
        return false;
    errno = 0;
    char* end = nullptr;
    const long long v = strtoll(text, &end, 10);
    if (errno != 0 || end == text || v < 0)
        return false;
    long long factor = 1;
    if (*end == 'K' || *end == 'k')
        factor = 1024;
    else if (*end == 'M' || *end == 'm')
        factor = 1024LL * 1024;
    else if (*end == 'G' || *end == 'g')
        factor = 1024LL * 1024 * 1024;
    else if (*end != '\0')
        return false;
    if (factor != 1 && end[1] != '\0')
        return false;
    if (v > max / factor)
        return false;
    *out = v * factor;
    return true;
}

