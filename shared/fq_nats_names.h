// Every text that becomes a subject or a key on the broker passes here first, whatever its
// source: service names from a job, the key of a staged object, a reply subject chosen by a
// requester, the worker's own control subject, keys of the registry and cache buckets.
#pragma once

#include <stddef.h>

#include <string>

// Well below the server's 4 KiB control line, with room for "$KV.<bucket>." and a chunk suffix.
#define FQ_NATS_MAX_SUBJECT_LEN 255
#define FQ_NATS_MAX_KV_KEY_LEN 200

typedef enum {
    // A subject the worker sends a request to or serves: a service name, a control or READY
    // subject. Tokens of letters, digits, '-' and '_' joined by '.'; never a wildcard, a
    // system subject ('$...') or a reply inbox ("_INBOX...").
    FQ_NAME_SERVICE = 0,
    // A reply subject a requester chose: printable characters without blanks, no wildcard,
    // no empty token, never a system subject.
    FQ_NAME_REPLY = 1,
    // A key in a key-value bucket: letters, digits and "-/_=.", not beginning or ending with '.'.
    FQ_NAME_KV_KEY = 2,
} fq_nats_name_kind;

// 0 when text may be used as kind. Otherwise -1, and reason (n bytes, may be null) says why,
// in words fit for a reply: "contains whitespace or a control character", ...
int fq_nats_check_name(const char* text, fq_nats_name_kind kind, char* reason, size_t n);

// Untrusted text made safe for a log line or a reply: at most max characters, anything but
// printable ASCII shown as \xNN, and "..." when cut.
std::string fq_nats_printable(const char* text, size_t max = 64);
