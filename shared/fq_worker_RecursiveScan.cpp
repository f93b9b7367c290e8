// The scan driver: walks one object through the services of its job. It applies the limits the
// worker decides alone (depth, empty object, SCAN_MIN_SIZE, SCAN_MAX_SIZE), stages the object once or
// reuses the client's key, builds the forwarded job once, and asks each service in turn with what is
// left of the time budget, merging each answer into the consolidated result. Every reply is read as
// untrusted: anything but a well-formed verdict with a known code is a service failure, so no
// failure anywhere in the chain can end in a clean verdict.
#include "fq_worker_RecursiveScan.h"

#include <errno.h>
#include <math.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <memory>
#include <new>
#include <string>
#include <vector>

#include "fq_worker.h"
#include "fq_nats_names.h"
#include "fq_worker_forward_job.h"
#include "fq_worker_scanobject.h"
#include "fqhlp_timeout.h"
#include "log.h"

namespace {

constexpr size_t s_errbuf_len = 1024;

__attribute__((format(printf, 2, 3))) void s_set_error(char* buf, const char* fmt, ...)
{
    if (!buf)
        return;
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, s_errbuf_len, fmt, ap);
    va_end(ap);
}

bool s_empty(const char* text)
{
    return !text || !*text;
}

// Cuts text to at most max bytes without splitting a UTF-8 sequence.
void s_cut_utf8(std::string& text, size_t max)
{
    if (text.size() <= max)
        return;
    size_t n = max;
    while (n > 0 && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80)
        n--;
    text.resize(n);
}

// Replaces *slot by a copy of text; the old text stays if the copy can't be made.
bool s_replace_text(char** slot, const char* text)
{
    char* copy = strdup(text ? text : "");
    if (!copy) {
        log_error("Failed to allocate %s", "text copy");
        return false;
    }
    free(*slot);
    *slot = copy;
    return true;
}

void s_drop_entries(fq_worker_scan_result_t* result)
{
    if (result->fileScanResults) {
        for (int32_t i = 0; i < result->no_of_files_scanned; i++)
            fq_worker_free_file_scan_result(&result->fileScanResults[i]);
        free(result->fileScanResults);
    }
    result->fileScanResults = nullptr;
    result->no_of_files_scanned = 0;
}

// A failed call: no verdict of the service survives, so the driver records the failure itself.
void s_fail(fq_worker_scan_result_t* result, const char* text, bool as_reason)
{
    s_drop_entries(result);
    result->rc = SERVICE_ERROR;
    s_replace_text(&result->error, text);
    if (as_reason)
        s_replace_text(&result->blocking_reason, text);
}

enum class s_read { absent, ok, invalid };

// An integer member. Numbers, and strings that hold nothing but a number, are read; a fraction,
// a boolean, null, an object or an array is no integer, so a reply can't pass one off as a code.
s_read s_read_int64(json_object* obj, const char* key, int64_t* out)
{
    json_object* value = nullptr;
    if (!json_object_object_get_ex(obj, key, &value))
        return s_read::absent;
    switch (json_object_get_type(value)) {
    case json_type_int:
        *out = json_object_get_int64(value);
        return s_read::ok;
    case json_type_double: {
        const double d = json_object_get_double(value);
        if (!isfinite(d) || floor(d) != d)
            return s_read::invalid;
        *out = d >= 9.2233720368547758e18 ? INT64_MAX : d <= -9.2233720368547758e18 ? INT64_MIN
                                                                                     : static_cast<int64_t>(d);
        return s_read::ok;
    }
    case json_type_string: {
        const char* text = json_object_get_string(value);
        char* end = nullptr;
        errno = 0;
        const long long v = strtoll(text, &end, 10);
        if (end == text)
            return s_read::invalid;
        while (*end == ' ' || *end == '\t' || *end == '\r' || *end == '\n')
            end++;
        if (*end != '\0')
            return s_read::invalid;
        *out = v;  // out of range saturates, like json-c's own reading
        return s_read::ok;
    }
    default:
        return s_read::invalid;
    }
}

int32_t s_saturate_int32(int64_t v)
{
    return v > INT32_MAX ? INT32_MAX : v < INT32_MIN ? INT32_MIN : static_cast<int32_t>(v);
}

// A text member as json-c renders it (any other JSON value as its JSON text); null for absent or JSON null.
const char* s_text_of(json_object* obj, const char* key, bool* present)
{
    json_object* value = nullptr;
    *present = json_object_object_get_ex(obj, key, &value);
    return *present && value ? json_object_get_string(value) : nullptr;
}

struct s_parsed_reply {
    int32_t rc = 0;
    std::string error;
    std::vector<fq_file_scan_result_ptr> entries;
};

// The fault texts go to error and the log; the caller adds which service it was.
#define S_FAULT(...)                                   \
    do {                                               \
        s_set_error(error, __VA_ARGS__);               \
        log_error(__VA_ARGS__);                        \
        return -1;                                     \
    } while (0)

// An optional text of an entry: empty when absent; too long refuses the reply.
int s_copy_entry_text(json_object* entry, const char* key, bool mandatory, char** slot, char* error)
{
    bool present = false;
    const char* text = s_text_of(entry, key, &present);
    if (mandatory && !present)
        S_FAULT("Failed to read %s from JSON", key);
    if (mandatory && s_empty(text))
        S_FAULT("Key %s found, but value is empty", key);
    if (!text)
        text = "";
    if (strlen(text) > FQ_SERVICE_REPLY_MAX_TEXT)
        S_FAULT("Key %s is longer than %d bytes", key, FQ_SERVICE_REPLY_MAX_TEXT);
    *slot = strdup(text);
    if (!*slot) {
        s_set_error(error, "Failed to allocate file scan result struct");
        log_error("Failed to allocate file scan result struct");
        return SERVICE_ERROR;
    }
    return 0;
}

// Reads one entry of "Results" in the order of its members; 0, -1 or -1000.
int s_parse_entry(json_object* entry, int index, fq_file_scan_result_ptr& out, char* error)
{
    if (!json_object_is_type(entry, json_type_object))
        S_FAULT("Entry %d of Results is not an object", index);
    fq_file_scan_result_ptr file(fq_worker_new_file_scan_result());
    if (!file) {
        s_set_error(error, "Failed to allocate file scan result struct");
        return SERVICE_ERROR;
    }
    int64_t v = 0;
    switch (s_read_int64(entry, "ReturnCode", &v)) {
    case s_read::absent:
        log_warn("Object %s not found", "ReturnCode");
        file->rc = 0;
        break;
    case s_read::invalid:
        S_FAULT("Key %s of entry %d holds no integer", "ReturnCode", index);
    case s_read::ok:
        file->rc = s_saturate_int32(v);
        break;
    }
    const struct {
        const char* key;
        bool mandatory;
        char** slot;
    } texts[] = {
        {"File-name", true, &file->filename},         {"MIME-type", false, &file->mime_type},
        {"MIME-encoding", false, &file->mime_encoding}, {"File-type", false, &file->file_type},
        {"Extension", false, &file->extension},       {"Virusname", false, &file->blocking_reason},
    };
    for (const auto& t : texts) {
        const int rc = s_copy_entry_text(entry, t.key, t.mandatory, t.slot, error);
        if (rc != 0)
            return rc;
    }
    file->error = strdup("");
    if (!file->error) {
        s_set_error(error, "Failed to allocate file scan result struct");
        return SERVICE_ERROR;
    }
    switch (s_read_int64(entry, "Object-type", &v)) {
    case s_read::absent:
        log_warn("Object %s not found", "Object-type");
        file->objecttype = VS_OT_UNKNOWN;
        break;
    case s_read::invalid:
        S_FAULT("Key %s of entry %d holds no integer", "Object-type", index);
    case s_read::ok:
        file->objecttype = s_saturate_int32(v);
        break;
    }
    switch (s_read_int64(entry, "File-size", &v)) {
    case s_read::absent:
        log_warn("Object %s not found", "File-size");
        file->filesize = 0;
        break;
    case s_read::invalid:
        S_FAULT("Key %s of entry %d holds no integer", "File-size", index);
    case s_read::ok:
        if (v < 0)
            S_FAULT("Key %s of entry %d holds a negative size", "File-size", index);
        file->filesize = static_cast<size_t>(v);
        break;
    }
    log_debug("Result %d: file %s, rc %d, size %zu, MIME-type %s, MIME-encoding %s, File-type %s, Extension %s, "
              "Virusname %s, Object-type %d",
              index, file->filename, file->rc, file->filesize, file->mime_type, file->mime_encoding, file->file_type,
              file->extension, file->blocking_reason, file->objecttype);
    out = std::move(file);
    return 0;
}

// Reads the whole reply into parsed; nothing outside parsed is touched. 0, -1 or -1000.
int s_parse_reply(json_object* reply, s_parsed_reply& parsed, char* error)
{
    if (!json_object_is_type(reply, json_type_object))
        S_FAULT("Reply is not a JSON object");

    int64_t v = 0;
    switch (s_read_int64(reply, "ReturnCode", &v)) {
    case s_read::absent:
        // A reply without a verdict proves nothing about the object.
        log_warn("Object %s not found", "ReturnCode");
        S_FAULT("Failed to read %s from JSON", "ReturnCode");
    case s_read::invalid:
        S_FAULT("Key %s holds no integer", "ReturnCode");
    case s_read::ok:
        parsed.rc = s_saturate_int32(v);
        break;
    }

    if (parsed.rc == SERVICE_ERROR) {
        bool present = false;
        const char* text = s_text_of(reply, "Error", &present);
        if (!present)
            S_FAULT("Failed to read %s from JSON", "Error");
        if (s_empty(text))
            S_FAULT("Key %s found, but value is empty", "Error");
        parsed.error = text;
        s_cut_utf8(parsed.error, FQ_SERVICE_REPLY_MAX_ERROR);
        return 0;
    }

    int64_t announced = 0;
    switch (s_read_int64(reply, "FilesScanned", &announced)) {
    case s_read::absent:
        log_warn("Object %s not found", "FilesScanned");
        announced = 0;
        break;
    case s_read::invalid:
        S_FAULT("Key %s holds no integer", "FilesScanned");
    case s_read::ok:
        if (announced < 0 || announced > FQ_SERVICE_REPLY_MAX_ENTRIES)
            S_FAULT("Key %s holds %lld, outside 0 to %d", "FilesScanned", static_cast<long long>(announced),
                    FQ_SERVICE_REPLY_MAX_ENTRIES);
        break;
    }
    if (announced == 0)
        return 0;

    json_object* results = nullptr;
    if (!json_object_object_get_ex(reply, "Results", &results))
        S_FAULT("Failed to read %s from JSON", "Results");
    if (!json_object_is_type(results, json_type_array))
        S_FAULT("Key %s holds no array", "Results");
    const size_t present = json_object_array_length(results);
    // A service that reports fewer files than it says it scanned has not accounted for all of them.
    if (present < static_cast<size_t>(announced))
        S_FAULT("Results holds %zu entries, FilesScanned announces %lld", present, static_cast<long long>(announced));

    // Grows with what is really there, not with what was announced.
    for (int i = 0; i < static_cast<int>(announced); i++) {
        fq_file_scan_result_ptr file;
        const int rc = s_parse_entry(json_object_array_get_idx(results, i), i, file, error);
        if (rc != 0)
            return rc;
        parsed.entries.push_back(std::move(file));
    }
    return 0;
}

#undef S_FAULT

// Puts a completely read reply into result. Everything that can fail happens before result changes.
int s_commit(s_parsed_reply& parsed, fq_worker_scan_result_t* result, char* error)
{
    fq_worker_file_scan_result_t** array = nullptr;
    if (!parsed.entries.empty()) {
        array = static_cast<fq_worker_file_scan_result_t**>(calloc(parsed.entries.size(), sizeof(*array)));
        if (!array) {
            s_set_error(error, "Failed to allocate File scan result array");
            log_error("Failed to allocate File scan result array");
            return -1;
        }
    }
    char* error_copy = nullptr;
    if (parsed.rc == SERVICE_ERROR) {
        error_copy = strdup(parsed.error.c_str());
        if (!error_copy) {
            free(array);
            s_set_error(error, "Failed to allocate file scan result struct");
            log_error("Failed to allocate file scan result struct");
            return SERVICE_ERROR;
        }
    }
    // A later link of a "+" chain replaces what the earlier one reported.
    s_drop_entries(result);
    for (size_t i = 0; i < parsed.entries.size(); i++)
        array[i] = parsed.entries[i].release();
    result->fileScanResults = array;
    result->no_of_files_scanned = static_cast<int32_t>(parsed.entries.size());
    result->rc = parsed.rc;
    if (error_copy) {
        free(result->error);
        result->error = error_copy;
    }
    return 0;
}

// The reply's "Blocking-reason", cut to a sane length; empty when absent.
std::string s_reply_blocking_reason(json_object* reply)
{
    bool present = false;
    const char* text = s_text_of(reply, "Blocking-reason", &present);
    std::string reason = text ? text : "";
    s_cut_utf8(reason, FQ_SERVICE_REPLY_MAX_TEXT);
    return reason;
}

void s_set_reason(fq_worker_scan_result_t* result, const char* reason, const char* fallback)
{
    if (s_empty(reason)) {
        log_error("Could not get blocking reason - returning generic message");
        reason = fallback;
    }
    s_replace_text(&result->blocking_reason, reason);
}

// A file the service failed on must say so in words, or the client's -1000 would carry none.
void s_name_silent_failures(fq_worker_scan_result_t* result, const char* service)
{
    for (int32_t i = 0; result->fileScanResults && i < result->no_of_files_scanned; i++) {
        fq_worker_file_scan_result_t* f = result->fileScanResults[i];
        if (!f || f->rc != SERVICE_ERROR || !s_empty(f->error))
            continue;
        char text[s_errbuf_len];
        snprintf(text, sizeof(text), "Service %s reported an error for file %s without a text", service,
                 s_empty(f->filename) ? "(unnamed)" : f->filename);
        s_replace_text(&f->error, text);
    }
}

// The transport of the scan path: one attempt, no extra time.
json_object* s_send_via_connection(void* ctx, const char* service, fq_const_request_reply_t* rr, uint64_t timeout_ms,
                                   char* errormessage)
{
    return fq_connection_send_recv_json_data(static_cast<fq_connection_config*>(ctx), service, rr, timeout_ms, 0, 0,
                                             errormessage);
}

}  // namespace

char** fq_worker_tokenize_services(char* services)
{
    size_t separators = 0;
    for (const char* p = services; p && *p; p++)
        separators += *p == ';';
    auto** list = static_cast<char**>(calloc(separators + 2, sizeof(char*)));
    if (!list) {
        log_error("Failed to allocate %s", "services list");
        return nullptr;
    }
    if (!services)
        return list;
    size_t n = 0;
    char* save = nullptr;
    for (char* token = strtok_r(services, ";", &save); token; token = strtok_r(nullptr, ";", &save)) {
        // Never ask ourselves, and never the cloud scan service.
        if (strcasecmp(token, "fq-av-cloudscan") == 0 || strcasecmp(token, "fq-av-scanproxy") == 0) {
            log_trace("Skipping %s", token);
            continue;
        }
        list[n] = strdup(token);
        if (!list[n]) {
            log_error("Failed to allocate %s", "services list");
            fq_worker_free_services_list(&list);
            return nullptr;
        }
        n++;
    }
    return list;
}

int fq_worker_check_services(const char* services, char* error)
{
    if (!services)
        return 0;
    std::unique_ptr<char, decltype(&free)> copy(strdup(services), &free);
    char** list = copy ? fq_worker_tokenize_services(copy.get()) : nullptr;
    if (!list) {
        s_set_error(error, "Failed to create services list");
        return -1;
    }
    int rc = 0;
    // Every name a token can lead to: the primary, then each link of its "+" chain.
    for (char** token = list; *token && rc == 0; ++token) {
        std::string name = *token;
        for (;;) {
            const size_t plus = name.find('+');
            const std::string service = name.substr(0, plus);
            char why[128];
            if (fq_nats_check_name(service.c_str(), FQ_NAME_SERVICE, why, sizeof(why)) != 0) {
                s_set_error(error, "Scan request refused: Services entry '%s' %s",
                            fq_nats_printable(service.c_str()).c_str(), why);
                log_error("%s", error ? error : "Scan request refused: invalid Services entry");
                rc = -1;
                break;
            }
            if (plus == std::string::npos || plus + 1 == name.size())
                break;
            name = "fq-av-" + name.substr(plus + 1);
        }
    }
    fq_worker_free_services_list(&list);
    return rc;
}

void fq_worker_free_services_list(char*** list)
{
    if (!list || !*list)
        return;
    for (char** p = *list; *p; p++)
        free(*p);
    free(*list);
    *list = nullptr;
}

int fq_worker_parse_scanresult_json(json_object* reply, fq_worker_scan_result_t* result, char* error)
{
    if (!result) {
        s_set_error(error, "Invalid pointer result");
        log_error("Invalid pointer result");
        return -1;
    }
    try {
        s_parsed_reply parsed;
        const int rc = s_parse_reply(reply, parsed, error);
        if (rc != 0)
            return rc;
        return s_commit(parsed, result, error);
    } catch (const std::bad_alloc&) {
        s_set_error(error, "Failed to allocate file scan result struct");
        log_error("Failed to allocate file scan result struct");
        return SERVICE_ERROR;
    }
}

int fq_worker_map_service_rc(const char* service, fq_worker_scan_result_t* result, const char* reply_blocking_reason,
                             char* errormessage)
{
    if (!service)
        service = "";
    if (!result) {
        log_error("Invalid pointer result");
        s_set_error(errormessage, "Invalid pointer result");
        return SERVICE_ERROR;
    }
    const int32_t rc = result->rc;
    switch (rc) {
    case SCAN_OK:
        return SCAN_OK;
    case SCAN_NOT_COMPLETED:
        s_replace_text(&result->blocking_reason, reply_blocking_reason);
        if (!s_empty(reply_blocking_reason)) {
            log_debug("Scan not completed: %s", reply_blocking_reason);
            s_set_error(errormessage, "%s", reply_blocking_reason);
        } else {
            log_error("Could not get blocking reason - returning generic message");
            s_replace_text(&result->blocking_reason, "Scan could not be completed");
        }
        log_info("Blocking Reason: %s", result->blocking_reason ? result->blocking_reason : "");
        return SCAN_NOT_COMPLETED;
    case SCAN_FILE_CLEANED:
        s_set_reason(result, reply_blocking_reason, "Virus found");
        log_info("Malware cleaned: %s", result->blocking_reason ? result->blocking_reason : "");
        return SCAN_FILE_CLEANED;
    case SCAN_POLICY_VIOLATION:
    case SCAN_ACTIVE_CONTENT_FOUND:
    case SCAN_VIRUS_FOUND:
        s_set_reason(result, reply_blocking_reason,
                     rc == SCAN_POLICY_VIOLATION       ? "Policy Violation"
                     : rc == SCAN_ACTIVE_CONTENT_FOUND ? "Active content found"
                                                       : "Virus found");
        log_info("Blocking Reason: %s", result->blocking_reason ? result->blocking_reason : "");
        return rc;
    case SERVICE_ERROR: {
        // Even a code without a text must carry one to the client.
        if (s_empty(result->error)) {
            char text[s_errbuf_len];
            snprintf(text, sizeof(text), "Service %s reported an error without a text", service);
            s_replace_text(&result->error, text);
        }
        log_error("Scan Error: %s", result->error ? result->error : "");
        if (errormessage && !*errormessage)
            s_set_error(errormessage, "%s", result->error ? result->error : "");
        s_drop_entries(result);
        return SERVICE_ERROR;
    }
    default: {
        log_error("Received invalid replycode: %d", rc);
        char text[s_errbuf_len];
        snprintf(text, sizeof(text), "Invalid reply code %d received from service %s", rc, service);
        s_set_error(errormessage, "%s", text);
        s_fail(result, text, false);
        return SERVICE_ERROR;
    }
    }
}

int fq_worker_scan_with_service(fq_worker_service_send_f_t send, void* send_ctx, const char* service_in,
                                const char* request_json_str, const char* data, size_t datalen, uint64_t timeout_ms,
                                fq_worker_scan_result_t* result, char* errormessage, const char* staged_data_key)
{
    char own_errormessage[s_errbuf_len] = "";
    if (!errormessage)
        errormessage = own_errormessage;
    if (!result) {
        s_set_error(errormessage, "Invalid pointer result");
        log_error("Invalid pointer result");
        return SERVICE_ERROR;
    }
    if (!send || s_empty(service_in)) {
        s_set_error(errormessage, "No service to scan with");
        log_error("No service to scan with");
        s_fail(result, errormessage, true);
        return SERVICE_ERROR;
    }
    try {
        std::string token = service_in;
        // Each link of a "+" chain has one "+" fewer than the one before, so the loop ends.
        for (;;) {
            const size_t plus = token.find('+');
            const bool has_plus = plus != std::string::npos;
            const std::string service = token.substr(0, plus);
            const std::string secondary = has_plus ? token.substr(plus + 1) : std::string();
            if (service.empty()) {
                s_set_error(errormessage, "Invalid service token '%s'", token.c_str());
                log_error("%s", errormessage);
                s_fail(result, errormessage, true);
                return SERVICE_ERROR;
            }

            fq_const_rr_ptr rr(fq_const_request_reply_new());
            if (!rr) {
                s_set_error(errormessage, "Failed to allocate request for service %s", service.c_str());
                log_error("%s", errormessage);
                s_fail(result, errormessage, true);
                return SERVICE_ERROR;
            }
            rr->request->json_txt = request_json_str;
            rr->request->data = reinterpret_cast<const unsigned char*>(data);
            rr->request->data_len = datalen;
            rr->request->staged_data_key = staged_data_key;

            fq_json_ptr reply(send(send_ctx, service.c_str(), rr.get(), timeout_ms, errormessage));
            // The transport may leave a reply text; the request's texts stay with the caller.
            free(rr->reply->json_txt);
            rr.reset();
            if (!reply) {
                // No answer is a failure whatever the token says.
                if (!*errormessage)
                    s_set_error(errormessage, "Failed to get reply from service %s", service.c_str());
                log_error("%s", errormessage);
                s_fail(result, errormessage, true);
                return SERVICE_ERROR;
            }

            char parse_error[s_errbuf_len] = "";
            if (fq_worker_parse_scanresult_json(reply.get(), result, parse_error) != 0) {
                s_set_error(errormessage, "Failed to parse JSON reply from service %s: %s", service.c_str(),
                            parse_error);
                log_error("%s", errormessage);
                s_fail(result, errormessage, false);
                return SERVICE_ERROR;
            }
            s_name_silent_failures(result, service.c_str());
            const std::string reason = s_reply_blocking_reason(reply.get());

            if (result->rc != SCAN_NOT_COMPLETED || !has_plus)
                return fq_worker_map_service_rc(service.c_str(), result, reason.c_str(), errormessage);

            s_replace_text(&result->blocking_reason, reason.c_str());
            log_warn("Service %s did not complete the scan because %s , but '+' overrides the result'", token.c_str(),
                     reason.c_str());
            if (secondary.empty()) {
                log_warn("Scan did not complete with service %s, but '+' is not configured for secondary service. "
                         "returning SCAN_OK to try next service",
                         service.c_str());
                return SCAN_OK;
            }
            char next[s_errbuf_len];
            snprintf(next, sizeof(next), "fq-av-%s", secondary.c_str());
            token = next;
        }
    } catch (const std::bad_alloc&) {
        s_set_error(errormessage, "Out of memory while scanning with service %s", service_in);
        log_error("%s", errormessage);
        s_fail(result, errormessage, true);
        return SERVICE_ERROR;
    }
}

// ---------------------------------------------------------------------------
// The driver

namespace {

void s_write_error(char* error, const char* text)
{
    if (error)
        snprintf(error, 1024, "%s", text);
}

char* s_dup(const char* text)
{
    return strdup(text ? text : "");
}

// The entry that stands for the whole object when a size limit decides without any service.
fq_file_scan_result_ptr s_synthetic_entry(const char* name, size_t datalen, int rc, const char* mime_type,
                                    const char* file_type, const char* blocking_reason)
{
    fq_file_scan_result_ptr f(fq_worker_new_file_scan_result());
    if (!f)
        return f;
    f->rc = rc;
    f->filename = s_dup(name);
    f->filesize = datalen;
    f->mime_type = s_dup(mime_type);
    f->mime_encoding = s_dup("");
    f->file_type = s_dup(file_type);
    f->extension = s_dup("");
    f->blocking_reason = s_dup(blocking_reason);
    f->error = s_dup("");
    f->objecttype = VS_OT_UNKNOWN;
    if (!f->filename || !f->mime_type || !f->mime_encoding || !f->file_type || !f->extension ||
        !f->blocking_reason || !f->error)
        f.reset();
    return f;
}

// 0 when the size limit is off (0) or absent.
uint64_t s_size_limit(json_object* job, const char* key)
{
    json_object* value = nullptr;
    if (!json_object_object_get_ex(job, key, &value))
        return 0;
    return static_cast<uint64_t>(fq_worker_json_get_int64(value));
}

void s_hand_out_reason(char** blocking_reason, const fq_worker_scan_result_t* this_scan, const char* error)
{
    if (!blocking_reason)
        return;
    const char* reason = nullptr;
    if (this_scan->blocking_reason)
        reason = this_scan->blocking_reason;
    else if (this_scan->error && *this_scan->error)
        reason = this_scan->error;
    else if (error && *error)
        reason = error;
    if (reason)
        *blocking_reason = strdup(reason);
}

}  // namespace

int fqworker_RecursiveScan(const char* name, const char* data, size_t datalen, fq_worker_scanobject_t* scanobject,
                           fq_worker_scan_result_t* result, char* error, char** blocking_reason,
                           bool UseSharedMemoryForRecursion, uint64_t timeout_ms, const char* inbound_kv_key)
{
    fq_connection_config* cfg =
        scanobject && scanobject->worker_config ? scanobject->worker_config->connection_config : nullptr;
    return fqworker_RecursiveScan_via(s_send_via_connection, cfg, name, data, datalen, scanobject, result, error,
                                      blocking_reason, UseSharedMemoryForRecursion, timeout_ms, inbound_kv_key);
}

int fqworker_RecursiveScan_via(fq_worker_service_send_f_t send, void* send_ctx, const char* name, const char* data,
                               size_t datalen, fq_worker_scanobject_t* scanobject, fq_worker_scan_result_t* result,
                               char* error, char** blocking_reason, bool UseSharedMemoryForRecursion,
                               uint64_t timeout_ms, const char* inbound_kv_key)
{
    (void)UseSharedMemoryForRecursion;  // objects never travel through shared memory
    const uint64_t enter_time_ms = fq_current_time_ms();
    if (!scanobject || !scanobject->scanjob_json || !scanobject->worker_config || !result) {
        s_write_error(error, "Invalid arguments to the scan driver");
        log_error("Invalid arguments to the scan driver");
        return SERVICE_ERROR;
    }
    json_object* job = scanobject->scanjob_json;
    fq_connection_config* cfg = scanobject->worker_config->connection_config;

    // A job that names a subject the broker could misread is refused whatever else it says.
    json_object* services_member = nullptr;
    if (json_object_object_get_ex(job, "Services", &services_member) &&
        fq_worker_check_services(json_object_get_string(services_member), error) != 0) {
        result->rc = SERVICE_ERROR;
        return SERVICE_ERROR;
    }

    if (scanobject->recursion_level >= scanobject->SCANEXTRACT_DEPTH) {
        free(result->blocking_reason);
        result->blocking_reason = strdup("Maximum extraction depth reached");
        result->rc = SCAN_POLICY_VIOLATION;
        return SCAN_POLICY_VIOLATION;
    }

    if (datalen != 0 && !data) {
        char text[1024];
        snprintf(text, sizeof(text),
                 "Scan data unavailable: NULL buffer for %ld expected byte(s) — refusing to report clean for an "
                 "unscanned object",
                 static_cast<long>(datalen));
        s_write_error(error, text);
        log_error("%s", text);
        result->rc = SERVICE_ERROR;
        return SERVICE_ERROR;
    }
    if (datalen == 0) {
        log_debug("No data to scan");
        return SCAN_OK;
    }

    const uint64_t min_size = s_size_limit(job, "SCAN_MIN_SIZE");
    if (min_size != 0 && static_cast<uint64_t>(datalen) < min_size) {
        log_debug("File %s size %zu below SCAN_MIN_SIZE %zu - returning synthetic clean reply", name ? name : "",
                  datalen, static_cast<size_t>(min_size));
        fq_file_scan_result_ptr f = s_synthetic_entry(name, datalen, SCAN_RECURSIVE_OK, "application/vnd.fernquill.smallfile",
                                                "Small file, size below scan threshold", "");
        if (!f) {
            s_write_error(error, "Failed to allocate small-file scan result");
            log_error("Failed to allocate small-file scan result");
            return SERVICE_ERROR;
        }
        if (fq_worker_add_file_scan_result(result, f.get()) != 0) {
            s_write_error(error, "Failed to add small-file scan result to consolidated results");
            log_error("Failed to add small-file scan result to consolidated results");
            return SERVICE_ERROR;
        }
        result->rc = SCAN_OK;
        return SCAN_OK;
    }
    const uint64_t max_size = s_size_limit(job, "SCAN_MAX_SIZE");
    if (max_size != 0 && static_cast<uint64_t>(datalen) > max_size) {
        log_debug("File %s size %zu exceeds SCAN_MAX_SIZE %zu - returning synthetic policy-violation reply",
                  name ? name : "", datalen, static_cast<size_t>(max_size));
        fq_file_scan_result_ptr f =
            s_synthetic_entry(name, datalen, SCAN_POLICY_VIOLATION, "application/vnd.fernquill.largefile",
                              "Large file, size above scan threshold", "File too large");
        if (!f) {
            s_write_error(error, "Failed to allocate large-file scan result");
            log_error("Failed to allocate large-file scan result");
            return SERVICE_ERROR;
        }
        if (fq_worker_add_file_scan_result(result, f.get()) != 0) {
            s_write_error(error, "Failed to add large-file scan result to consolidated results");
            log_error("Failed to add large-file scan result to consolidated results");
            return SERVICE_ERROR;
        }
        free(result->blocking_reason);
        result->blocking_reason = strdup("File too large");
        result->rc = SCAN_POLICY_VIOLATION;
        if (blocking_reason)
            *blocking_reason = strdup("File too large");
        return SCAN_POLICY_VIOLATION;
    }

    const char* services_text = fq_worker_json_get_mandatory_text(job, "Services", error);
    if (!services_text)
        return -1;
    fq_cstr_ptr services_copy(strdup(services_text));
    fq_services_list_ptr service_list(services_copy ? fq_worker_tokenize_services(services_copy.get()) : nullptr);
    if (!service_list) {
        s_write_error(error, "Failed to create services list");
        log_error("Failed to create services list");
        return SERVICE_ERROR;
    }

    // One staging for all services: the inbound key, or one the driver makes and removes again.
    fq_staged_key owned(cfg);
    const char* staging_key = nullptr;
    const char* i_data = data;
    size_t i_datalen = datalen;
    if (inbound_kv_key && *inbound_kv_key) {
        staging_key = inbound_kv_key;
        i_data = nullptr;
        i_datalen = 0;
        log_debug("RecursiveScan: reusing inbound KV key '%s' across service fan-out", inbound_kv_key);
    } else {
        char stage_err[1024] = "";
        if (fq_connection_stage_scan_data(cfg, data, datalen, timeout_ms, &owned.key, stage_err) == 0 && owned.key) {
            staging_key = owned.key;
            i_data = nullptr;
            i_datalen = 0;
            log_debug("RecursiveScan: staged buffer once under KV key '%s'", owned.key);
        } else if (stage_err[0]) {
            log_debug("RecursiveScan: staging unavailable (%s); using per-call transfer", stage_err);
        }
    }

    fq_json_ptr recursion_scanjob(json_object_new_object());
    if (!recursion_scanjob) {
        s_write_error(error, "Failed to allocate recursion scanjob JSON");
        log_error("Failed to allocate recursion scanjob JSON");
        return SERVICE_ERROR;
    }
    const char* request_json_txt = nullptr;
    if (fq_worker_encodescanjobtoJSON(recursion_scanjob.get(), scanobject, name, datalen, &request_json_txt, -1,
                                      error) != 0 ||
        !request_json_txt) {
        s_write_error(error, "Failed to create scanjob_json");
        log_error("Failed to create scanjob_json");
        return SERVICE_ERROR;
    }

    // The key joins the forwarded job once, while it is still an object, so that no service
    // request has to parse and write the job again to add it.
    if (staging_key) {
        json_object_object_add(recursion_scanjob.get(), "_kv_key", json_object_new_string(staging_key));
        request_json_txt = json_object_to_json_string_ext(recursion_scanjob.get(), FQ_FORWARD_JOB_TEXT_FLAGS);
        if (!request_json_txt) {
            s_write_error(error, "Failed to create scanjob_json");
            log_error("Failed to create scanjob_json");
            return SERVICE_ERROR;
        }
    }

    for (char** token = service_list.get(); *token; ++token) {
        if (fq_timeout_expired(enter_time_ms, timeout_ms)) {
            s_write_error(error, "Service side timeout");
            return SERVICE_ERROR;
        }
        fq_scan_result_ptr this_scan(fq_worker_new_scan_result());
        if (!this_scan) {
            s_write_error(error, "Failed to allocate results struct for this scan");
            log_error("Failed to allocate results struct for this scan");
            return SERVICE_ERROR;
        }
        this_scan->error = static_cast<char*>(calloc(1, 1024));
        if (!this_scan->error) {
            log_error("Failed to allocate memory for %s", "this_scan->error");
            return -1;
        }
        const uint64_t remaining_time_ms = fq_remaining_time_ms(enter_time_ms, timeout_ms);
        log_debug("Scanning with service %s, timeout: %dms", *token, static_cast<int>(remaining_time_ms));
        const int rc = fq_worker_scan_with_service(send, send_ctx, *token, request_json_txt, i_data, i_datalen,
                                                   remaining_time_ms, this_scan.get(), error, nullptr);
        log_debug("Service %s returns %d", *token, rc);

        if (rc == SCAN_OK && strcmp(*token, "fq-av-mimescan") == 0) {
            if (this_scan->no_of_files_scanned > 0 && this_scan->fileScanResults && this_scan->fileScanResults[0]) {
                const fq_worker_file_scan_result_t* mime = this_scan->fileScanResults[0];
                if (fq_worker_add_mime_to_scanjob(recursion_scanjob.get(), mime->mime_type, mime->mime_encoding,
                                                  mime->file_type, mime->extension, &request_json_txt, error) != 0) {
                    s_write_error(error, "Failed to update scan request with MIME-scan results");
                    return SERVICE_ERROR;
                }
            } else {
                // Nothing to pass on; the later services decide on the bytes alone.
                log_warn("Service %s answered without a file entry; later services get no MIME members", *token);
            }
        }

        if ((rc == SERVICE_ERROR || rc == SCAN_NOT_COMPLETED) && this_scan->no_of_files_scanned == 0) {
            // A failure must reach the summary as an entry of its own.
            fq_file_scan_result_ptr f(fq_worker_new_file_scan_result());
            if (!f) {
                log_error("Failed to allocate %s", "fileScanResult");
                return SERVICE_ERROR;
            }
            f->filename = s_dup(scanobject->ObjectName ? scanobject->ObjectName : name);
            f->filesize = scanobject->ObjectLen;
            f->rc = rc;
            f->blocking_reason = s_dup(error);
            f->error = s_dup(error);
            f->objecttype = VS_OT_UNKNOWN;
            if (!f->filename || !f->blocking_reason || !f->error ||
                fq_worker_add_file_scan_result(this_scan.get(), f.get()) != 0) {
                s_write_error(error, "Failed to add filescan result");
                log_error("Failed to add filescan result");
            }
        }

        if (fq_worker_merge_scanresults(result, this_scan.get()) != 0) {
            s_write_error(error, "Failed to merge this scan's results into consolidated results");
            log_error("Failed to merge this scan's results into consolidated results");
            return SERVICE_ERROR;
        }
        if (rc != SCAN_OK) {
            s_hand_out_reason(blocking_reason, this_scan.get(), error);
            return rc;
        }
    }
    return SCAN_OK;
}
