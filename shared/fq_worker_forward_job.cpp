// The forwarded job: the one JSON text every scan service receives for an object, built once per
// request from the client's job with its members in a fixed order, and extended with the MIME
// members once fq-av-mimescan has answered. The client's values go out as they came (numbers
// saturated to 32 bits); it never adds a member that neither the client sent nor the driver worked
// out, and a missing mandatory member fails the request.
#include "fq_worker_forward_job.h"

#include <limits.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>

#include "fq_request_reply_types.h"
#include "log.h"

namespace {

constexpr size_t s_errmsg_len = 1024;

void s_fail(char* error, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

void s_fail(char* error, const char* fmt, ...)
{
    char text[s_errmsg_len];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof(text), fmt, ap);
    va_end(ap);
    if (error)
        snprintf(error, s_errmsg_len, "%s", text);
    log_error("%s", text);
}

// Where each member's value comes from.
enum s_source {
    JOB_INT,          // number from the client's job; absent: WARN and 0
    JOB_TEXT,         // mandatory text from the client's job
    JOB_TEXT_SILENT,  // text from the client's job; absent: empty
    JOB_INT_IF_PRESENT,
    RECURSION,
    SHMID,
    OBJECT_NAME,
    OBJECT_LEN,
};

struct s_member {
    const char* key;
    s_source source;
};

// The members in the order services receive them.
constexpr s_member s_members[] = {
    {"Command", JOB_INT},
    {"realmID", JOB_TEXT},
    {"SID", JOB_TEXT},
    {"Hostname", JOB_TEXT},
    {"EventID", JOB_TEXT},
    {"Services", JOB_TEXT},
    {"Scan-Servers", JOB_TEXT},
    {"Recursion", RECURSION},
    {"shmID", SHMID},
    {"ObjectName", OBJECT_NAME},
    {"ObjectLen", OBJECT_LEN},
    {"SCANALLEMBEDDED", JOB_INT},
    {"SCANTIMEOUT", JOB_INT},
    {"SCANBANDWIDTH", JOB_INT},
    {"ENFORCE_MIME_POLICY_IN_ARCHIVES", JOB_INT},
    {"ENFORCE_ACTIVECONTENT_POLICY_IN_ARCHIVES", JOB_INT},
    {"CUST_CHECK_MIME_TYPE", JOB_INT},
    {"ENFORCE_MIME_EXTENSION_MATCH", JOB_INT},
    {"CUST_ACTIVE_CONTENT", JOB_INT},
    {"CUST_CLEAN", JOB_INT},
    {"SCANMIMETYPES", JOB_TEXT_SILENT},
    {"BLOCKMIMETYPES", JOB_TEXT_SILENT},
    {"SCANEXTENSIONS", JOB_TEXT_SILENT},
    {"BLOCKEXTENSIONS", JOB_TEXT_SILENT},
    {"BLOCKENCRYPTED", JOB_INT},
    {"BLOCKHTML_IN_PDF", JOB_INT},
    {"SCANBASE64", JOB_INT},
    {"SCANUUENCODED", JOB_INT},
    {"SCANXMLCONTENT", JOB_INT},
    {"HTMLDETECTION", JOB_TEXT},
    {"XML_MODE", JOB_TEXT},
    {"SVG_MODE", JOB_TEXT},
    {"LONGMIMETYPES", JOB_INT},
    {"CLEANQUARANTINE", JOB_TEXT_SILENT},
    {"INCLUDE_EVENT_ID_IN_MESSAGE", JOB_INT},
    {"EVENT_ID_DELIMITER", JOB_TEXT},
    {"SCANBESTEFFORT", JOB_INT},
    {"SCANALLFILES", JOB_INT},
    {"SCANEXTRACT", JOB_INT},
    {"SCANEXTRACT_DEPTH", JOB_INT},
    {"SCANEXTRACT_MAX_FILES", JOB_INT},
    {"SCANEXTRACT_SIZE", JOB_INT},
    {"SCANEXTRACT_RATIO", JOB_INT},
    {"SCANEXTRACT_NO_VIRUSSCAN", JOB_INT},
    {"SCAN_MIN_SIZE", JOB_INT},
    {"SCAN_MAX_SIZE", JOB_INT},
    {"SCAN_EXTENSION_MAX_LEN", JOB_INT_IF_PRESENT},
};
static_assert(sizeof(s_members) / sizeof(s_members[0]) == 47);

// Takes over value: it is released if it cannot be added.
bool s_add(json_object* json, const char* key, json_object* value, char* error)
{
    if (!value || json_object_object_add(json, key, value) != 0) {
        json_object_put(value);
        s_fail(error, "Failed to add %s to the scan job", key);
        return false;
    }
    return true;
}

// The value of one member. Null with *skip for a member that is left out, null with *reported
// for a mandatory member that failed; any other null is a failed allocation.
json_object* s_value(const s_member& m, json_object* job, const fq_worker_scanobject_t* original_job,
                     const char* filename, size_t filellen, int shmid, bool* skip, bool* reported, char* error)
{
    json_object* value = nullptr;
    switch (m.source) {
    case JOB_INT:
        if (json_object_object_get_ex(job, m.key, &value))
            return json_object_new_int(fq_worker_json_get_int(value));
        log_warn("Object %s not found", m.key);
        return json_object_new_int(0);
    case JOB_INT_IF_PRESENT:
        if (json_object_object_get_ex(job, m.key, &value))
            return json_object_new_int(fq_worker_json_get_int(value));
        *skip = true;
        return nullptr;
    case JOB_TEXT: {
        const char* text = fq_worker_json_get_mandatory_text(job, m.key, error);
        if (!text) {
            *reported = true;
            return nullptr;
        }
        return json_object_new_string(text);
    }
    case JOB_TEXT_SILENT: {
        const char* text = json_object_object_get_ex(job, m.key, &value) ? json_object_get_string(value) : nullptr;
        return json_object_new_string(text ? text : "");
    }
    case RECURSION: {
        // The level was lowered by one before the scan; computed wide so the highest level cannot wrap.
        const int64_t level = static_cast<int64_t>(original_job->recursion_level) + 1;
        return json_object_new_int(level > INT32_MAX ? INT32_MAX : static_cast<int32_t>(level));
    }
    case SHMID: {
        char text[16];
        if (shmid == -1)
            snprintf(text, sizeof(text), "0xffffffff");
        else
            snprintf(text, sizeof(text), "0x%x", static_cast<unsigned int>(shmid));
        return json_object_new_string(text);
    }
    case OBJECT_NAME:
        return json_object_new_string(filename);
    case OBJECT_LEN:
        return json_object_new_uint64(static_cast<uint64_t>(filellen));
    }
    return nullptr;
}

}  // namespace

int fq_worker_encodescanjobtoJSON(json_object* json, const fq_worker_scanobject_t* original_job,
                                  const char* filename, size_t filellen, const char** pp_request_json_txt,
                                  int shmid, char* error)
{
    if (!json || !json_object_is_type(json, json_type_object) || !original_job || !original_job->scanjob_json ||
        !filename || !pp_request_json_txt) {
        s_fail(error, "Invalid parameter for the forwarded scan job");
        return SERVICE_ERROR;
    }
    json_object* job = original_job->scanjob_json;

    for (const s_member& m : s_members) {
        bool skip = false;
        bool reported = false;
        json_object* value = s_value(m, job, original_job, filename, filellen, shmid, &skip, &reported, error);
        if (skip)
            continue;
        if (reported)
            return SERVICE_ERROR;
        if (!s_add(json, m.key, value, error))
            return SERVICE_ERROR;
    }

    const char* text = json_object_to_json_string_ext(json, FQ_FORWARD_JOB_TEXT_FLAGS);
    if (!text) {
        s_fail(error, "Failed to write the scan job as text");
        return SERVICE_ERROR;
    }
    *pp_request_json_txt = text;
    return 0;
}

int fq_worker_add_mime_to_scanjob(json_object* json, const char* mime_type, const char* mime_encoding,
                                  const char* file_type, const char* extension, const char** pp_request_json_txt,
                                  char* error)
{
    static const char* const s_failed = "Failed to update scan request with MIME-scan results";
    if (!json || !json_object_is_type(json, json_type_object) || !pp_request_json_txt) {
        s_fail(error, "%s", s_failed);
        return SERVICE_ERROR;
    }
    const struct {
        const char* key;
        const char* text;
    } members[] = {
        {"MIME-type", mime_type},
        {"MIME-encoding", mime_encoding},
        {"File-type", file_type},
        {"Extension", extension},
    };
    for (const auto& m : members) {
        json_object* value = json_object_new_string(m.text ? m.text : "");
        if (!value || json_object_object_add(json, m.key, value) != 0) {
            json_object_put(value);
            s_fail(error, "%s", s_failed);
            return SERVICE_ERROR;
        }
    }
    const char* text = json_object_to_json_string_ext(json, FQ_FORWARD_JOB_TEXT_FLAGS);
    if (!text) {
        s_fail(error, "%s", s_failed);
        return SERVICE_ERROR;
    }
    *pp_request_json_txt = text;
    return 0;
}
