// Thin layer over libuuid for the log and event delivery: entry names of the persistent queue and
// record ids are made here, and the queue orders its entries by the time a name carries. Nothing
// here allocates or keeps state; libuuid keeps its own clock state per thread.
#include "fq_uuid.h"

#include <ctype.h>
#include <uuid/uuid.h>

int fq_uuid_generate_time_safe(unsigned char* out)
{
    return uuid_generate_time_safe(out);
}

void fq_uuid_unparse_lower(const unsigned char* uu, char* out)
{
    uuid_unparse_lower(uu, out);
}

namespace {

bool s_hex_field(const char* text, int len, uint64_t* out)
{
    uint64_t v = 0;
    for (int i = 0; i < len; ++i) {
        const char c = text[i];
        if (!isxdigit(static_cast<unsigned char>(c)))
            return false;
        v = v * 16 + static_cast<uint64_t>(isdigit(static_cast<unsigned char>(c)) ? c - '0' : (tolower(c) - 'a' + 10));
    }
    *out = v;
    return true;
}

}  // namespace

int fq_uuid_text_time(const char* text, uint64_t* out)
{
    // time_low(8) - time_mid(4) - version and time_hi(4) - ...
    uint64_t low = 0, mid = 0, hi = 0;
    if (!text || !out || !s_hex_field(text, 8, &low) || text[8] != '-' || !s_hex_field(text + 9, 4, &mid) ||
        text[13] != '-' || !s_hex_field(text + 14, 4, &hi) || text[18] != '-')
        return -1;
    if ((hi >> 12) != 1)
        return -1;
    *out = ((hi & 0x0fff) << 48) | (mid << 32) | low;
    return 0;
}
