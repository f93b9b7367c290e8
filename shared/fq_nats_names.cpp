// The guard between what outsiders write and what the worker puts on its broker connection.
//
// A scan job names services, a staged key and (on the work queue) a reply subject; a requester
// picks the reply subject of a core request; the update handshake names a control subject. All of
// them end up in the control line of a NATS protocol operation or in a key of a bucket. The
// client library writes a subject as it gets it, so a blank, CR or LF would split the operation
// and let the sender speak the protocol with the worker's credentials, and a very long text
// makes the server drop the connection. The messaging layer therefore refuses, before anything
// is sent, every name that fails these checks; the scan pipeline calls the same checks early
// so that its reply can say which member of the job was wrong. Nothing here allocates or logs.
#include "fq_nats_names.h"

#include <stdio.h>
#include <string.h>

namespace {

bool s_is_token_char(unsigned char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

bool s_is_key_char(unsigned char c)
{
    return s_is_token_char(c) || c == '/' || c == '=' || c == '.';
}

int s_refuse(char* reason, size_t n, const char* text)
{
    if (reason && n > 0)
        snprintf(reason, n, "%s", text);
    return -1;
}

// Blanks, control characters and bytes outside ASCII: the first two end a protocol field.
bool s_has_unprintable(const char* text, size_t len)
{
    for (size_t i = 0; i < len; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c <= 0x20 || c >= 0x7f)
            return true;
    }
    return false;
}

bool s_has_empty_token(const char* text, size_t len)
{
    return text[0] == '.' || text[len - 1] == '.' || strstr(text, "..") != nullptr;
}

}  // namespace

int fq_nats_check_name(const char* text, fq_nats_name_kind kind, char* reason, size_t n)
{
    if (!text || !*text)
        return s_refuse(reason, n, "is empty");
    const size_t max = kind == FQ_NAME_KV_KEY ? FQ_NATS_MAX_KV_KEY_LEN : FQ_NATS_MAX_SUBJECT_LEN;
    const size_t len = strnlen(text, max + 1);
    if (len > max) {
        char why[64];
        snprintf(why, sizeof(why), "is longer than %zu characters", max);
        return s_refuse(reason, n, why);
    }
    if (s_has_unprintable(text, len))
        return s_refuse(reason, n, "contains whitespace or a control character");

    switch (kind) {
    case FQ_NAME_KV_KEY:
        for (size_t i = 0; i < len; ++i)
            if (!s_is_key_char(static_cast<unsigned char>(text[i])))
                return s_refuse(reason, n, "contains a character not allowed in a key");
        if (s_has_empty_token(text, len))
            return s_refuse(reason, n, "has an empty token");
        return 0;
    case FQ_NAME_REPLY:
        if (strpbrk(text, "*>"))
            return s_refuse(reason, n, "contains a wildcard");
        if (s_has_empty_token(text, len))
            return s_refuse(reason, n, "has an empty token");
        if (text[0] == '$')
            return s_refuse(reason, n, "names a system subject");
        return 0;
    case FQ_NAME_SERVICE:
    default:
        if (strpbrk(text, "*>"))
            return s_refuse(reason, n, "contains a wildcard");
        if (text[0] == '$')
            return s_refuse(reason, n, "names a system subject");
        for (size_t i = 0; i < len; ++i) {
            const unsigned char c = static_cast<unsigned char>(text[i]);
            if (c != '.' && !s_is_token_char(c))
                return s_refuse(reason, n, "contains a character not allowed in a service name");
        }
        if (s_has_empty_token(text, len))
            return s_refuse(reason, n, "has an empty token");
        if (strncmp(text, "_INBOX", 6) == 0 && (text[6] == '\0' || text[6] == '.'))
            return s_refuse(reason, n, "names a reply inbox");
        return 0;
    }
}

std::string fq_nats_printable(const char* text, size_t max)
{
    if (!text)
        return "(null)";
    std::string out;
    size_t i = 0;
    for (; text[i] && i < max; ++i) {
        const unsigned char c = static_cast<unsigned char>(text[i]);
        if (c >= 0x20 && c < 0x7f && c != '\\') {
            out += static_cast<char>(c);
        } else {
            char esc[8];
            snprintf(esc, sizeof(esc), "\\x%02x", c);
            out += esc;
        }
    }
    if (text[i])
        out += "...";
    return out;
}
