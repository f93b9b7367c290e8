// Verdicts: a record per file, the consolidated record of a request, the merge of each service's
// entries into it, the summary that works verdicts up from nested files to their parents, and the
// reply text the client gets. This is the last step of a scan job before its reply leaves. A merge
// only ever makes a verdict worse, never better, and a failed scan's reply carries its error and no
// file verdicts.
#include "fq_worker_scan_result.h"

#include <errno.h>
#include <json-c/json.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <string_view>
#include <unordered_map>

#include "fq_raii.h"
#include "fq_request_reply_types.h"
#include "fqerror.h"
#include "fqhlp_network.h"
#include "fqhlp_replies.h"
#include "log.h"

namespace {

bool s_empty(const char* text)
{
    return !text || !*text;
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

// Cuts text to at most max bytes without splitting a UTF-8 sequence, so the reply stays valid JSON text.
void s_cut_utf8(std::string& text, size_t max)
{
    if (text.size() <= max)
        return;
    size_t n = max;
    while (n > 0 && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80)
        n--;
    text.resize(n);
}

const char* s_or_empty(const char* text)
{
    return text ? text : "";
}

// An entry of the reply's "Results" array, or null after the ERROR line.
json_object* s_file_result_json(const fq_worker_file_scan_result_t* file)
{
    fq_json_ptr entry(json_object_new_object());
    if (!entry) {
        log_error("Failed to add file-scan result");
        return nullptr;
    }
    const struct {
        const char* key;
        json_object* value;
    } members[] = {
        {"ReturnCode", json_object_new_int(file->rc)},
        {"File-name", json_object_new_string(s_or_empty(file->filename))},
        {"File-size", json_object_new_uint64(static_cast<uint64_t>(file->filesize))},
        {"MIME-type", json_object_new_string(s_or_empty(file->mime_type))},
        {"MIME-encoding", json_object_new_string(s_or_empty(file->mime_encoding))},
        {"File-type", json_object_new_string(s_or_empty(file->file_type))},
        {"Extension", json_object_new_string(s_or_empty(file->extension))},
        {"Object-type", json_object_new_int(file->objecttype)},
        // Clients tell "no reason given" (a blank) from "reason known to be empty".
        {"Virusname", json_object_new_string(file->blocking_reason ? file->blocking_reason : " ")},
    };
    bool ok = true;
    for (const auto& m : members) {
        if (!ok || !m.value || json_object_object_add(entry.get(), m.key, m.value) != 0) {
            json_object_put(m.value);
            ok = false;
        }
    }
    if (!ok) {
        log_error("Failed to add file-scan result to array");
        return nullptr;
    }
    return entry.release();
}

// Adds value under key; on failure value is released and false returned.
bool s_add_member(json_object* obj, const char* key, json_object* value)
{
    if (!value || json_object_object_add(obj, key, value) != 0) {
        json_object_put(value);
        log_error("Failed to add file-scan result to array");
        return false;
    }
    return true;
}

}  // namespace

fq_worker_file_scan_result_t* fq_worker_new_file_scan_result(void)
{
    auto* file = static_cast<fq_worker_file_scan_result_t*>(calloc(1, sizeof(fq_worker_file_scan_result_t)));
    if (!file) {
        log_error("Failed to allocate new file scan result struct");
        return nullptr;
    }
    file->objecttype = VS_OT_UNKNOWN;
    return file;
}

void fq_worker_free_file_scan_result(fq_worker_file_scan_result_t** file)
{
    if (!file || !*file)
        return;
    fq_worker_file_scan_result_t* f = *file;
    free(f->filename);
    free(f->mime_type);
    free(f->mime_encoding);
    free(f->file_type);
    free(f->extension);
    free(f->blocking_reason);
    free(f->error);
    free(f);
    *file = nullptr;
}

fq_worker_scan_result_t* fq_worker_new_scan_result(void)
{
    auto* result = static_cast<fq_worker_scan_result_t*>(calloc(1, sizeof(fq_worker_scan_result_t)));
    if (!result) {
        log_error("Failed to allocate new scan result struct");
        return nullptr;
    }
    if (pthread_mutex_init(&result->mutex, nullptr) != 0) {
        log_error("Failed to allocate new scan result struct");
        free(result);
        return nullptr;
    }
    return result;
}

void fq_worker_free_scan_result(fq_worker_scan_result_t** result)
{
    if (!result || !*result)
        return;
    fq_worker_scan_result_t* r = *result;
    free(r->blocking_reason);
    free(r->error);
    if (r->fileScanResults) {
        for (int32_t i = 0; i < r->no_of_files_scanned; i++)
            fq_worker_free_file_scan_result(&r->fileScanResults[i]);
        free(r->fileScanResults);
    }
    free(r->cleanedBuffer);
    pthread_mutex_destroy(&r->mutex);
    free(r);
    *result = nullptr;
}

int fq_worker_add_file_scan_result(fq_worker_scan_result_t* consolidated, const fq_worker_file_scan_result_t* file)
{
    if (!consolidated) {
        log_error("got NULL pointer");
        return -1;
    }
    if (!file) {
        log_error("got NULL file scan result - nothing to add");
        return -1;
    }
    const int32_t count = consolidated->no_of_files_scanned < 0 ? 0 : consolidated->no_of_files_scanned;
    if (count == INT32_MAX) {
        log_error("Failed to reallocate filescan results: %s", FQstrerror(EOVERFLOW));
        return -1;
    }
    auto** grown = static_cast<fq_worker_file_scan_result_t**>(
        realloc(consolidated->fileScanResults,
                (static_cast<size_t>(count) + 1) * sizeof(fq_worker_file_scan_result_t*)));
    if (!grown) {
        log_error("Failed to reallocate filescan results: %s", FQstrerror(errno));
        return -1;
    }
    consolidated->fileScanResults = grown;
    grown[count] = nullptr;

    fq_worker_file_scan_result_t* copy = fq_worker_new_file_scan_result();
    if (!copy)
        return -1;
    copy->rc = file->rc;
    copy->filesize = file->filesize;
    copy->objecttype = file->objecttype;
    const struct {
        char** to;
        const char* from;
    } texts[] = {
        {&copy->filename, file->filename},         {&copy->mime_type, file->mime_type},
        {&copy->mime_encoding, file->mime_encoding}, {&copy->file_type, file->file_type},
        {&copy->extension, file->extension},       {&copy->blocking_reason, file->blocking_reason},
        {&copy->error, file->error},
    };
    for (const auto& t : texts) {
        *t.to = strdup(s_or_empty(t.from));
        if (!*t.to) {
            log_error("Failed to allocate new file scan result struct");
            fq_worker_free_file_scan_result(&copy);
            return -1;
        }
    }
    grown[count] = copy;
    consolidated->no_of_files_scanned = count + 1;
    return 0;
}

int fq_worker_merge_scanresults(fq_worker_scan_result_t* consolidated, fq_worker_scan_result_t* result)
{
    if (!consolidated) {
        log_error("Invalid pointer consolidated");
        return -1;
    }
    if (!result) {
        log_error("Invalid pointer result");
        return -1;
    }
    fq_mutex_lock lock(&consolidated->mutex);

    // First index of each file name, so that a merge stays linear in the number of entries.
    // The views point into the entries' own texts, which live as long as the entries.
    std::unordered_map<std::string_view, int32_t> first_index;
    for (int32_t i = 0; consolidated->fileScanResults && i < consolidated->no_of_files_scanned; i++) {
        const fq_worker_file_scan_result_t* f = consolidated->fileScanResults[i];
        if (f)
            first_index.emplace(s_or_empty(f->filename), i);
    }

    for (int32_t n = 0; result->fileScanResults && n < result->no_of_files_scanned; n++) {
        const fq_worker_file_scan_result_t* entry = result->fileScanResults[n];
        if (!entry)
            continue;
        const char* name = s_or_empty(entry->filename);
        auto found = first_index.find(name);
        if (found == first_index.end()) {
            log_debug("Adding new file entry for %s", name);
            if (fq_worker_add_file_scan_result(consolidated, entry) != 0)
                return -1;
            const int32_t at = consolidated->no_of_files_scanned - 1;
            first_index.emplace(consolidated->fileScanResults[at]->filename, at);
            continue;
        }

        fq_worker_file_scan_result_t* known = consolidated->fileScanResults[found->second];
        if (entry->rc < known->rc)
            known->rc = entry->rc;
        if (known->filesize == 0)
            known->filesize = entry->filesize;
        // The first service to supply a text keeps it.
        char** const slots[] = {&known->file_type, &known->mime_type, &known->mime_encoding,
                                &known->extension, &known->blocking_reason, &known->error};
        const char* const news[] = {entry->file_type, entry->mime_type, entry->mime_encoding,
                                    entry->extension, entry->blocking_reason, entry->error};
        for (size_t k = 0; k < sizeof(slots) / sizeof(slots[0]); k++) {
            if (s_empty(*slots[k]) && !s_empty(news[k]) && !s_replace_text(slots[k], news[k]))
                return -1;
        }
        if (known->objecttype == 0)
            known->objecttype = entry->objecttype;
    }
    return 0;
}

int fq_worker_create_scan_results_summary(fq_worker_scan_result_t* result)
{
    if (!result) {
        log_error("Invalid pointer result");
        return -1;
    }
    if (result->no_of_files_scanned <= 0 || !result->fileScanResults)
        return 0;

    const int32_t count = result->no_of_files_scanned;
    fq_worker_file_scan_result_t** entries = result->fileScanResults;
    std::string reasons;
    int blocks = 0;

    for (int32_t i = 0; i < count; i++) {
        fq_worker_file_scan_result_t* file = entries[i];
        if (!file)
            continue;
        // Blocking verdicts and incomplete scans count; a cleaned file was delivered clean.
        if (!(file->rc <= SCAN_RESULT_BLOCK || file->rc == SCAN_NOT_COMPLETED))
            continue;

        const char* reason = s_or_empty(file->blocking_reason);
        if (reasons.find(reason) == std::string::npos) {
            if (blocks > 0 && !reasons.empty())
                reasons += "; ";
            reasons += reason;
            s_cut_utf8(reasons, FQ_SCAN_REASONS_MAX);
        }
        blocks++;

        const char* fname = s_or_empty(file->filename);
        const size_t flen = strlen(fname);
        for (int32_t j = 0; j < count; j++) {
            fq_worker_file_scan_result_t* parent = entries[j];
            if (j == i || !parent)
                continue;
            // A plain prefix: "x" is the parent of "x/a" and also of "x2".
            const char* pname = s_or_empty(parent->filename);
            const size_t plen = strlen(pname);
            if (plen > flen || memcmp(fname, pname, plen) != 0)
                continue;
            if (parent->rc > file->rc) {
                log_trace("  Previous rc %d is less critical than current rc %d, updating rc", parent->rc, file->rc);
                parent->rc = file->rc;
            }
            if (s_empty(parent->blocking_reason))
                s_replace_text(&parent->blocking_reason, reason);
        }

        if (file->rc <= result->rc) {
            result->rc = file->rc;
            // An entry without a text never wipes out the reason an earlier one gave.
            if (!s_empty(file->error))
                s_replace_text(&result->error, file->error);
        }
    }
    s_replace_text(&result->blocking_reason, reasons.c_str());
    return 0;
}

char* fq_worker_create_scan_reply(fq_worker_scan_result_t* result)
{
    if (!result) {
        log_error("got NULL scan result - cannot build a scan reply");
        char* text = nullptr;
        fq_reply_set_ERROR(&text, SERVICE_ERROR, "Worker could not assemble a scan result");
        return text;
    }
    fq_json_ptr reply(json_object_new_object());
    if (!reply) {
        log_error("Failed to allocate new json object reply_json");
        return nullptr;
    }
    if (!s_add_member(reply.get(), "ReturnCode", json_object_new_int(result->rc)))
        return nullptr;

    if (result->rc == SERVICE_ERROR) {
        // A failed scan carries no file verdicts, however many the record holds.
        const char* host = fqhlp_GetMyFQDN();
        const char* error = s_empty(result->error) ? FQ_SCAN_ERROR_WITHOUT_TEXT : result->error;
        if (!s_add_member(reply.get(), "Error", json_object_new_string(error)) ||
            !s_add_member(reply.get(), "WorkerHostname", json_object_new_string(s_or_empty(host))))
            return nullptr;
    } else {
        if (result->blocking_reason &&
            !s_add_member(reply.get(), "Blocking-reason", json_object_new_string(result->blocking_reason)))
            return nullptr;
        if (!s_add_member(reply.get(), "FilesScanned", json_object_new_int(result->no_of_files_scanned)))
            return nullptr;
        json_object* results_array = json_object_new_array();
        if (!results_array) {
            log_error("Failed to allocate new json object results_array");
            return nullptr;
        }
        if (!s_add_member(reply.get(), "Results", results_array))
            return nullptr;
        for (int32_t i = 0; result->fileScanResults && i < result->no_of_files_scanned; i++) {
            const fq_worker_file_scan_result_t* file = result->fileScanResults[i];
            if (!file)
                continue;
            json_object* entry = s_file_result_json(file);
            if (!entry)
                return nullptr;
            if (json_object_array_add(results_array, entry) != 0) {
                json_object_put(entry);
                log_error("Failed to add file-scan result to array");
                return nullptr;
            }
        }
    }

    const char* text =
        json_object_to_json_string_ext(reply.get(), JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_NOSLASHESCAPE);
    char* copy = text ? strdup(text) : nullptr;
    if (!copy) {
        log_error("Failed to create JSON text buffer");
        char* fallback = nullptr;
        fq_reply_set_ERROR(&fallback, SERVICE_ERROR, "Failed to create JSON text buffer");
        return fallback;
    }
    return copy;
}
