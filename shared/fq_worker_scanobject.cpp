// The reader of a client's scan job: fills the record the driver works from, leniently for numbers
// and strictly for the members a job cannot do without. It is the first step of a scan after the
// dispatcher's checks. It copies what it keeps and never changes the job; a missing mandatory member,
// or a negative length, depth or time budget, fails the job before any service is asked.
#include "fq_worker_scanobject.h"

#include <math.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>


#include "fq_raii.h"
#include "log.h"

namespace {

constexpr size_t s_errmsg_len = 1024;

// Every failure of the reader goes to the caller's buffer and to the log, once.
void s_fail(char* errmsg, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

void s_fail(char* errmsg, const char* fmt, ...)
{
    char text[s_errmsg_len];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(text, sizeof(text), fmt, ap);
    va_end(ap);
    if (errmsg)
        snprintf(errmsg, s_errmsg_len, "%s", text);
    log_error("%s", text);
}

bool s_copy_text(const char* key, const char* text, char** dst, char* errmsg)
{
    char* copy = strdup(text);
    if (!copy) {
        s_fail(errmsg, "Failed to allocate memory for %s", key);
        return false;
    }
    free(*dst);
    *dst = copy;
    return true;
}

// Class M: absent or empty fails the job.
bool s_read_mandatory(json_object* job, const char* key, char** dst, char* errmsg)
{
    const char* text = fq_worker_json_get_mandatory_text(job, key, errmsg);
    return text && s_copy_text(key, text, dst, errmsg);
}

// Class S text: absent (or JSON null) leaves the empty default, anything else is copied as it is.
bool s_read_silent_text(json_object* job, const char* key, char** dst, char* errmsg)
{
    json_object* value = nullptr;
    if (!json_object_object_get_ex(job, key, &value))
        return s_copy_text(key, "", dst, errmsg);
    const char* text = json_object_get_string(value);
    return s_copy_text(key, text ? text : "", dst, errmsg);
}

// Class W: absent is worth a warning and keeps the default.
void s_read_warned_int(json_object* job, const char* key, int32_t* dst)
{
    json_object* value = nullptr;
    if (json_object_object_get_ex(job, key, &value))
        *dst = fq_worker_json_get_int(value);
    else
        log_warn("Object %s not found", key);
}

void s_read_warned_int64(json_object* job, const char* key, int64_t* dst)
{
    json_object* value = nullptr;
    if (json_object_object_get_ex(job, key, &value))
        *dst = fq_worker_json_get_int64(value);
    else
        log_warn("Object %s not found", key);
}

// The record's size_t fields keep the sign of what was read, as the wire defines them.
size_t s_widen(int64_t v)
{
    return static_cast<size_t>(v);
}

bool s_read_fields(fq_worker_scanobject_t* so, json_object* job, char* errmsg)
{
    fq_scan_config* cfg = so->ScanConfig;
    json_object* value = nullptr;
    int32_t i32 = 0;
    int64_t i64 = 0;

    if (!s_read_mandatory(job, "ObjectName", &so->ObjectName, errmsg))
        return false;

    i32 = 0;
    s_read_warned_int(job, "ObjectLen", &i32);
    // Widened, a negative length would claim an object of exabytes.
    if (i32 < 0) {
        s_fail(errmsg, "Key %s found, but value %d is negative", "ObjectLen", i32);
        return false;
    }
    so->ObjectLen = s_widen(i32);

    if (!s_read_mandatory(job, "Services", &so->services, errmsg))
        return false;

    s_read_warned_int(job, "Recursion", &so->recursion_level);
    // The level is lowered by one before the scan: a negative depth has no meaning and the
    // lowest one would not survive that step.
    if (so->recursion_level < 0) {
        s_fail(errmsg, "Key %s found, but value %d is negative", "Recursion", so->recursion_level);
        return false;
    }

    const char* shm = fq_worker_json_get_mandatory_text(job, "shmID", errmsg);
    if (!shm)
        return false;
    so->shmid = fq_worker_shmid_from_text(shm);

    s_read_warned_int(job, "CUST_CHECK_MIME_TYPE", &so->CheckMime);
    s_read_warned_int(job, "CUST_ACTIVE_CONTENT", &so->BlockActiveContent);
    s_read_warned_int(job, "SCANEXTRACT", &so->RecurseIntoArchives);
    s_read_warned_int(job, "SCANEXTRACT_DEPTH", &so->SCANEXTRACT_DEPTH);
    s_read_warned_int64(job, "SCANEXTRACT_MAX_FILES", &so->SCANEXTRACT_MAX_FILES);

    i64 = 0;
    s_read_warned_int64(job, "SCANEXTRACT_SIZE", &i64);
    so->SCANEXTRACT_SIZE = s_widen(i64);

    if (json_object_object_get_ex(job, "SCAN_EXTENSION_MAX_LEN", &value)) {
        i32 = fq_worker_json_get_int(value);
        if (i32 > 0)
            so->SCAN_EXTENSION_MAX_LEN = static_cast<size_t>(i32);
    }

    s_read_warned_int(job, "SCANEXTRACT_RATIO", &so->SCANEXTRACT_RATIO);

    if (json_object_object_get_ex(job, "SCANEXTRACT_NO_VIRUSSCAN", &value))
        so->SCANEXTRACT_NO_VIRUSSCAN = fq_worker_json_get_int(value) == 1;

    s_read_warned_int(job, "ENFORCE_MIME_POLICY_IN_ARCHIVES", &so->enforce_mime_policy_in_archives);
    s_read_warned_int(job, "ENFORCE_ACTIVECONTENT_POLICY_IN_ARCHIVES", &so->enforce_activecontent_policy_in_archives);

    if (!s_read_silent_text(job, "BLOCKEXTENSIONS", &so->BLOCKEXTENSIONS, errmsg) ||
        !s_read_silent_text(job, "SCANEXTENSIONS", &so->SCANEXTENSIONS, errmsg) ||
        !s_read_silent_text(job, "BLOCKMIMETYPES", &so->BLOCKMIMETYPES, errmsg) ||
        !s_read_silent_text(job, "SCANMIMETYPES", &so->SCANMIMETYPES, errmsg) ||
        !s_read_silent_text(job, "MIME-type", &so->MIMEtype, errmsg) ||
        !s_read_silent_text(job, "File-type", &so->Filetype, errmsg) ||
        !s_read_silent_text(job, "Extension", &so->extension, errmsg))
        return false;

    if (!s_read_mandatory(job, "realmID", &so->realmID, errmsg) ||
        !s_read_mandatory(job, "EventID", &so->eventID, errmsg))
        return false;

    if (!s_read_silent_text(job, "CLEANQUARANTINE", &so->CLEANQUARANTINE, errmsg))
        return false;

    if (!s_read_mandatory(job, "Hostname", &so->CLIENT_HOSTNAME_FQDN, errmsg) ||
        !s_read_mandatory(job, "SID", &so->SID, errmsg))
        return false;

    s_read_warned_int64(job, "PID", &so->PID);
    s_read_warned_int64(job, "TID", &so->TID);
    s_read_warned_int(job, "ENFORCE_MIME_EXTENSION_MATCH", &cfg->ENFORCE_MIME_EXTENSION_MATCH);
    s_read_warned_int(job, "REQUIRE_EXTENSION", &cfg->REQUIRE_EXTENSION);
    s_read_warned_int(job, "BLOCKENCRYPTED", &cfg->BLOCKENCRYPTED);
    s_read_warned_int(job, "BLOCKHTML_IN_PDF", &cfg->BLOCKHTML_IN_PDF);
    s_read_warned_int(job, "SCANBASE64", &cfg->SCANBASE64);
    s_read_warned_int(job, "SCANUUENCODED", &cfg->SCANUUENCODED);
    s_read_warned_int(job, "SCANXMLCONTENT", &cfg->SCANXMLCONTENT);
    s_read_warned_int(job, "LONGMIMETYPES", &cfg->LONGMIMETYPES);

    i32 = 0;
    s_read_warned_int(job, "SCAN_MIN_SIZE", &i32);
    cfg->SCAN_MIN_SIZE = s_widen(i32);
    i32 = 0;
    s_read_warned_int(job, "SCAN_MAX_SIZE", &i32);
    cfg->SCAN_MAX_SIZE = s_widen(i32);

    const char* html = fq_worker_json_get_mandatory_text(job, "HTMLDETECTION", errmsg);
    if (!html)
        return false;
    cfg->HTMLDETECTION = fq_worker_htmldetection_from_text(html);

    s_read_warned_int(job, "SCANTIMEOUT", &cfg->ScanTimeout);
    // The budget is widened to an unsigned count of milliseconds: a negative one would never run out.
    if (cfg->ScanTimeout < 0) {
        s_fail(errmsg, "Key %s found, but value %d is negative", "SCANTIMEOUT", cfg->ScanTimeout);
        return false;
    }
    s_read_warned_int(job, "SCANBANDWIDTH", &cfg->ScanBandwidth);
    return true;
}

}  // namespace

int32_t fq_worker_json_get_int(json_object* value)
{
    if (json_object_is_type(value, json_type_double) && isnan(json_object_get_double(value)))
        return 0;
    return json_object_get_int(value);
}

int64_t fq_worker_json_get_int64(json_object* value)
{
    if (json_object_is_type(value, json_type_double) && isnan(json_object_get_double(value)))
        return 0;
    return json_object_get_int64(value);
}

const char* fq_worker_json_get_mandatory_text(json_object* job, const char* key, char* errmsg)
{
    json_object* value = nullptr;
    if (!job || !json_object_object_get_ex(job, key, &value)) {
        s_fail(errmsg, "Failed to read %s from JSON", key);
        return nullptr;
    }
    const char* text = json_object_get_string(value);
    if (!text || !*text) {
        s_fail(errmsg, "Key %s found, but value is empty", key);
        return nullptr;
    }
    return text;
}

enum HTMLDETECTION fq_worker_htmldetection_from_text(const char* text)
{
    if (!text)
        return SAFE;
    if (strcasecmp(text, "OFF") == 0)
        return OFF;
    if (strcasecmp(text, "RESTRICTIVE") == 0)
        return RESTRICTIVE;
    if (strcasecmp(text, "SVG") == 0)
        return SVG;
    return SAFE;
}

int32_t fq_worker_shmid_from_text(const char* text)
{
    if (!text)
        return 0;
    // Out-of-range text saturates in strtol; only the low 32 bits are kept either way.
    const long v = strtol(text, nullptr, 16);
    return static_cast<int32_t>(static_cast<uint32_t>(static_cast<unsigned long>(v)));
}

fq_worker_scanobject_t* fq_worker_GetScanJobDetails(json_object* job, char* errmsg)
{
    fq_scanobject_ptr so(static_cast<fq_worker_scanobject_t*>(calloc(1, sizeof(fq_worker_scanobject_t))));
    if (!so) {
        s_fail(errmsg, "Failed to allocate scanobject struct");
        return nullptr;
    }
    so->scanjob_json = job;

    so->ScanConfig = static_cast<fq_scan_config*>(calloc(1, sizeof(fq_scan_config)));
    if (!so->ScanConfig) {
        s_fail(errmsg, "Failed to allocate scanobject->ScanConfig struct");
        return nullptr;
    }

    so->enforce_mime_policy_in_archives = 1;
    so->enforce_activecontent_policy_in_archives = 1;
    so->SCANEXTRACT_RATIO = 1032;
    so->SCANEXTRACT_DEPTH = 20;
    so->SCAN_EXTENSION_MAX_LEN = 5;

    so->ActiveContent = static_cast<fq_worker_active_content_t*>(calloc(1, sizeof(fq_worker_active_content_t)));
    if (!so->ActiveContent) {
        s_fail(errmsg, "Failed to allocate scanobject-ActiveContent struct");
        return nullptr;
    }

    if (!s_read_fields(so.get(), job, errmsg))
        return nullptr;
    return so.release();
}

void fq_worker_FreeScanObject(fq_worker_scanobject_t** scanobject)
{
    if (!scanobject || !*scanobject)
        return;
    fq_worker_scanobject_t* so = *scanobject;
    char** texts[] = {&so->ObjectName,     &so->services,      &so->SCANEXTENSIONS,  &so->SCANMIMETYPES,
                      &so->BLOCKEXTENSIONS, &so->BLOCKMIMETYPES, &so->CLEANQUARANTINE, &so->CLIENT_HOSTNAME_FQDN,
                      &so->SID,             &so->MIMEtype,      &so->Filetype,        &so->extension,
                      &so->realmID,         &so->eventID,       &so->sid,             &so->hostname};
    for (char** t : texts) {
        free(*t);
        *t = nullptr;
    }
    if (so->ActiveContent) {
        free(so->ActiveContent->CSV_injection_regex);
        free(so->ActiveContent);
    }
    free(so->ScanConfig);
    free(so);
    *scanobject = nullptr;
}
