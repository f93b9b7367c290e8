// One scan job of fq-av-clamav: the object's bytes scanned by the engine, archives unpacked level by
// level with libarchive (its built-in filters only, never an external program) within the job's depth,
// file, byte and time limits, and one reply entry per file. Whatever cannot be unpacked or read ends
// in SCAN_NOT_COMPLETED with its reason; a job without all of its bytes is an error, never clean.
#include "clamav_job.h"

#include <archive.h>
#include <archive_entry.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <vector>

#include "fq_raii.h"
#include "fq_request_reply_types.h"
#include "fqhlp_replies.h"
#include "log.h"

namespace {

const char s_depth_reason[] = "Archive nesting depth limit reached";
const char s_files_reason[] = "Limit of files in archives reached";
const char s_bytes_reason[] = "Limit of unpacked bytes reached";
const char s_time_reason[] = "Scan time limit reached";
const char s_encrypted_reason[] = "Encrypted archive member cannot be read";

const size_t s_read_block = 64 * 1024;

struct s_entry {
    std::string name;
    uint64_t size = 0;
    int rc = SCAN_OK;
    std::string virusname;  // signature name, or why the file could not be scanned
};

int64_t s_now_ms()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

// Opens data as an archive of a format that libarchive unpacks; null for anything else.
// Only decompression filters built into the library: no external program is ever started.
fq_archive_read_ptr s_open_archive(const void* data, size_t len)
{
    fq_archive_read_ptr a(archive_read_new());
    if (!a)
        return nullptr;
    archive_read_support_filter_gzip(a.get());
    archive_read_support_filter_bzip2(a.get());
    archive_read_support_filter_xz(a.get());
    archive_read_support_filter_lzma(a.get());
    archive_read_support_filter_lzip(a.get());
    archive_read_support_filter_zstd(a.get());
    archive_read_support_filter_compress(a.get());
    archive_read_support_format_zip(a.get());
    archive_read_support_format_7zip(a.get());
    archive_read_support_format_rar(a.get());
    archive_read_support_format_rar5(a.get());
    archive_read_support_format_tar(a.get());
    archive_read_support_format_cpio(a.get());
    archive_read_support_format_iso9660(a.get());
    archive_read_support_format_ar(a.get());
    archive_read_support_format_cab(a.get());
    archive_read_support_format_lha(a.get());
    archive_read_support_format_xar(a.get());
    const int r = archive_read_open_memory(a.get(), data, len);
    if (r != ARCHIVE_OK && r != ARCHIVE_WARN)
        return nullptr;
    return a;
}

// Member paths as labels: valid UTF-8 without control characters, no leading "/" or "./".
std::string s_member_name(struct archive_entry* h, int64_t ordinal)
{
    const char* raw = archive_entry_pathname_utf8(h);
    if (!raw)
        raw = archive_entry_pathname(h);
    std::string in = raw ? raw : "";
    std::string out;
    out.reserve(in.size());
    for (size_t i = 0; i < in.size();) {
        const unsigned char c = (unsigned char)in[i];
        size_t n = c < 0x80 ? 1 : (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 0;
        bool ok = n > 0 && i + n <= in.size();
        for (size_t k = 1; ok && k < n; ++k)
            ok = ((unsigned char)in[i + k] & 0xC0) == 0x80;
        if (!ok || (n == 1 && (c < 0x20 || c == 0x7F))) {
            out += '?';
            ++i;
            continue;
        }
        out.append(in, i, n);
        i += n;
    }
    for (;;) {
        if (!out.empty() && out[0] == '/')
            out.erase(0, 1);
        else if (out.compare(0, 2, "./") == 0)
            out.erase(0, 2);
        else
            break;
    }
    if (out.empty())
        out = "unnamed-" + std::to_string(ordinal);
    return out;
}

// The walk over one object and everything nested in it.
class s_walk {
public:
    s_walk(const fqclam_engine_t* engine, const fqclam_limits_t& limits) : engine_(engine), limits_(limits)
    {
        deadline_ms_ = limits.timeout_ms > 0 ? s_now_ms() + limits.timeout_ms : 0;
    }

    void scan(const std::string& name, const unsigned char* data, size_t len, int level);

    const std::vector<s_entry>& entries() const { return entries_; }
    // Set when the engine failed: the whole job is then an error, whatever else was found.
    const std::string& failure() const { return failure_; }
    // The first reason why something could not be scanned.
    const std::string& incomplete_reason() const { return incomplete_reason_; }

private:
    void mark(size_t idx, int rc, const std::string& text);
    void unpack(struct archive* a, size_t idx, const std::string& name, int level);
    bool read_member(struct archive* a, size_t parent_idx, std::vector<unsigned char>* out, std::string* why,
                     bool* fatal);

    const fqclam_engine_t* engine_;
    fqclam_limits_t limits_;
    int64_t deadline_ms_ = 0;
    std::vector<s_entry> entries_;
    int64_t files_ = 0;
    uint64_t bytes_ = 0;
    bool stop_ = false;
    std::string failure_;
    std::string incomplete_reason_;
    // One read buffer for the whole walk: a member is read completely before its scan descends.
    std::vector<unsigned char> block_;
};

void s_walk::mark(size_t idx, int rc, const std::string& text)
{
    s_entry& e = entries_[idx];
    if (rc == SCAN_NOT_COMPLETED && incomplete_reason_.empty())
        incomplete_reason_ = text;
    if (rc < e.rc) {
        e.rc = rc;
        e.virusname = text;
    }
}

void s_walk::scan(const std::string& name, const unsigned char* data, size_t len, int level)
{
    const size_t idx = entries_.size();
    entries_.push_back(s_entry{name, len, SCAN_OK, ""});
    if (deadline_ms_ && s_now_ms() >= deadline_ms_) {
        mark(idx, SCAN_NOT_COMPLETED, s_time_reason);
        stop_ = true;
        return;
    }

    fq_archive_read_ptr a = s_open_archive(data, len);
    // What libarchive cannot open, libclamav may still unpack itself (formats only it knows).
    std::string detail;
    switch (fqclam_engine_scan(engine_, data, len, name.c_str(), a == nullptr, &detail)) {
    case FQCLAM_CLEAN:
        break;
    case FQCLAM_VIRUS:
        log_info("Virus found in %s: %s", name.c_str(), detail.c_str());
        mark(idx, SCAN_VIRUS_FOUND, detail);
        break;
    case FQCLAM_INCOMPLETE:
        log_info("Scan of %s not completed: %s", name.c_str(), detail.c_str());
        mark(idx, SCAN_NOT_COMPLETED, detail);
        break;
    case FQCLAM_ERROR:
        failure_ = detail + " (" + name + ")";
        stop_ = true;
        return;
    }
    if (!a)
        return;
    if (level >= limits_.depth) {
        log_info("Not unpacking %s: %s (%d)", name.c_str(), s_depth_reason, limits_.depth);
        mark(idx, SCAN_NOT_COMPLETED, s_depth_reason);
        return;
    }
    unpack(a.get(), idx, name, level);
}

// Reads the current member into *out within the job's byte budget. False when the member could
// not be read (*why has libarchive's text; *fatal when the archive cannot be read any further)
// or the budget ran out (stop_ is set then).
bool s_walk::read_member(struct archive* a, size_t parent_idx, std::vector<unsigned char>* out, std::string* why,
                         bool* fatal)
{
    *fatal = false;
    block_.resize(s_read_block);
    for (;;) {
        const la_ssize_t n = archive_read_data(a, block_.data(), block_.size());
        if (n == 0)
            return true;
        if (n < 0) {
            const char* err = archive_error_string(a);
            *why = err ? err : "unknown error";
            *fatal = n == ARCHIVE_FATAL;
            return false;
        }
        if (bytes_ + (uint64_t)n > limits_.max_bytes) {
            mark(parent_idx, SCAN_NOT_COMPLETED, s_bytes_reason);
            stop_ = true;
            return false;
        }
        bytes_ += (uint64_t)n;
        out->insert(out->end(), block_.data(), block_.data() + n);
    }
}

void s_walk::unpack(struct archive* a, size_t idx, const std::string& name, int level)
{
    int64_t ordinal = 0;
    while (!stop_) {
        struct archive_entry* h = nullptr;
        const int r = archive_read_next_header(a, &h);
        if (r == ARCHIVE_EOF)
            return;
        if (r == ARCHIVE_FATAL || r == ARCHIVE_RETRY || !h) {
            const char* err = archive_error_string(a);
            const std::string why = std::string("Damaged archive: ") + (err ? err : "unreadable header");
            log_info("%s: %s", name.c_str(), why.c_str());
            mark(idx, SCAN_NOT_COMPLETED, why);
            return;
        }
        ++ordinal;
        if (r != ARCHIVE_FAILED && archive_entry_filetype(h) != AE_IFREG)
            continue;  // directories, links and devices carry no bytes of their own
        const std::string child = name + "/" + s_member_name(h, ordinal);
        if (++files_ > limits_.max_files) {
            log_info("%s: %s (%lld)", name.c_str(), s_files_reason, (long long)limits_.max_files);
            mark(idx, SCAN_NOT_COMPLETED, s_files_reason);
            stop_ = true;
            return;
        }
        const uint64_t announced = archive_entry_size_is_set(h) && archive_entry_size(h) > 0
                                       ? (uint64_t)archive_entry_size(h)
                                       : 0;
        if (r == ARCHIVE_FAILED || archive_entry_is_encrypted(h)) {
            const char* err = archive_error_string(a);
            const std::string why = r == ARCHIVE_FAILED
                                        ? std::string("Archive member cannot be read: ") + (err ? err : "bad header")
                                        : std::string(s_encrypted_reason);
            log_info("%s: %s", child.c_str(), why.c_str());
            entries_.push_back(s_entry{child, announced, SCAN_OK, ""});
            mark(entries_.size() - 1, SCAN_NOT_COMPLETED, why);
            continue;
        }

        std::vector<unsigned char> bytes;
        if (announced > 0 && announced <= limits_.max_bytes - std::min(bytes_, limits_.max_bytes))
            bytes.reserve(announced);
        std::string why;
        bool fatal = false;
        if (!read_member(a, idx, &bytes, &why, &fatal)) {
            if (stop_) {
                log_info("%s: %s (%llu)", child.c_str(), s_bytes_reason, (unsigned long long)limits_.max_bytes);
                return;
            }
            log_info("%s: archive member cannot be read: %s", child.c_str(), why.c_str());
            // The archive's own verdict first: it names the reason the client gets.
            if (fatal)
                mark(idx, SCAN_NOT_COMPLETED, "Damaged archive: " + why);
            entries_.push_back(s_entry{child, announced, SCAN_OK, ""});
            mark(entries_.size() - 1, SCAN_NOT_COMPLETED, "Archive member cannot be read: " + why);
            if (fatal)
                return;
            continue;
        }
        scan(child, bytes.data(), bytes.size(), level + 1);
    }
}

// Any JSON number or numeric text, as json-c reads it; def when the member is absent.
int64_t s_get_int64(json_object* job, const char* key, int64_t def)
{
    json_object* v = nullptr;
    if (!job || !json_object_object_get_ex(job, key, &v) || !v)
        return def;
    return json_object_get_int64(v);
}

std::string s_build_reply(const s_walk& walk, const fqclam_engine_t* engine)
{
    int rc = SCAN_OK;
    for (const s_entry& e : walk.entries())
        rc = std::min(rc, e.rc);

    fq_json_ptr reply(json_object_new_object());
    fq_json_ptr results(json_object_new_array());
    if (!reply || !results)
        return "";
    json_object_object_add(reply.get(), "ReturnCode", json_object_new_int(rc));
    if (rc == SCAN_VIRUS_FOUND)
        json_object_object_add(reply.get(), "Blocking-reason", json_object_new_string("Virus found"));
    else if (rc == SCAN_NOT_COMPLETED)
        json_object_object_add(reply.get(), "Blocking-reason",
                               json_object_new_string(walk.incomplete_reason().c_str()));
    json_object_object_add(reply.get(), "FilesScanned", json_object_new_int64((int64_t)walk.entries().size()));
    json_object_object_add(reply.get(), "Engine", json_object_new_string(fqclam_engine_description(engine)));
    for (const s_entry& e : walk.entries()) {
        json_object* o = json_object_new_object();
        if (!o)
            return "";
        json_object_object_add(o, "ReturnCode", json_object_new_int(e.rc));
        json_object_object_add(o, "File-name", json_object_new_string(e.name.c_str()));
        json_object_object_add(o, "File-size", json_object_new_uint64(e.size));
        json_object_object_add(o, "Object-type", json_object_new_int(-1));
        json_object_object_add(o, "Virusname", json_object_new_string(e.virusname.c_str()));
        json_object_array_add(results.get(), o);
    }
    json_object_object_add(reply.get(), "Results", results.release());
    return json_object_to_json_string_ext(reply.get(), JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
}

char* s_error_reply(const std::string& text)
{
    log_error("%s", text.c_str());
    char* out = nullptr;
    fq_reply_set_ERROR(&out, SERVICE_ERROR, text.c_str());
    return out;
}

}  // namespace

void fqclam_read_limits(json_object* job, fqclam_limits_t* limits)
{
    // The worker forwards 0 for a limit the client did not set.
    const int64_t depth = s_get_int64(job, "SCANEXTRACT_DEPTH", 0);
    limits->depth = depth > 0 ? (int)std::min<int64_t>(depth, FQCLAM_CEILING_DEPTH) : FQCLAM_DEFAULT_DEPTH;

    const int64_t files = s_get_int64(job, "SCANEXTRACT_MAX_FILES", 0);
    limits->max_files = files > 0 ? std::min<int64_t>(files, FQCLAM_CEILING_MAX_FILES) : FQCLAM_DEFAULT_MAX_FILES;

    const int64_t bytes = s_get_int64(job, "SCANEXTRACT_SIZE", 0);
    limits->max_bytes =
        bytes > 0 ? std::min<uint64_t>((uint64_t)bytes, FQCLAM_CEILING_MAX_BYTES) : FQCLAM_DEFAULT_MAX_BYTES;

    const int64_t timeout = s_get_int64(job, "SCANTIMEOUT", 0);
    limits->timeout_ms = timeout > 0 ? timeout : 0;
}

char* fqclam_scan_job(const fqclam_engine_t* engine, const char* job_json, const unsigned char* data, size_t len)
{
    fq_json_ptr job(job_json ? json_tokener_parse(job_json) : nullptr);
    if (!job || !json_object_is_type(job.get(), json_type_object))
        return s_error_reply("Invalid request: not a JSON object");
    json_object* command = nullptr;
    if (json_object_object_get_ex(job.get(), "Command", &command) && json_object_get_int(command) == PING_SERVICE) {
        char* out = nullptr;
        fq_reply_set_OK(&out);
        return out;
    }
    json_object* name_obj = nullptr;
    const char* name = json_object_object_get_ex(job.get(), "ObjectName", &name_obj)
                           ? json_object_get_string(name_obj)
                           : nullptr;
    if (!name)
        return s_error_reply("Failed to read ObjectName from JSON");
    if (!*name)
        return s_error_reply("Key ObjectName found, but value is empty");
    if (!data || len == 0)
        return s_error_reply(std::string("No data to scan for ") + name);
    // Only an object whose bytes are all here can be called clean.
    json_object* len_obj = nullptr;
    if (json_object_object_get_ex(job.get(), "ObjectLen", &len_obj)) {
        const int64_t announced = json_object_get_int64(len_obj);
        if (announced < 0 || (uint64_t)announced != len)
            return s_error_reply("ObjectLen " + std::to_string(announced) + " does not match the " +
                                 std::to_string(len) + " bytes received for " + name);
    }

    fqclam_limits_t limits;
    fqclam_read_limits(job.get(), &limits);
    log_debug("Scanning %s (%zu bytes; depth %d, files %lld, bytes %llu, time %lld ms)", name, len, limits.depth,
              (long long)limits.max_files, (unsigned long long)limits.max_bytes, (long long)limits.timeout_ms);

    s_walk walk(engine, limits);
    walk.scan(name, data, len, 0);
    if (!walk.failure().empty())
        return s_error_reply(walk.failure());

    const std::string text = s_build_reply(walk, engine);
    if (text.empty())
        return s_error_reply("Failed to build the scan reply");
    char* out = strdup(text.c_str());
    if (!out)
        log_error("Failed to allocate %s", "the scan reply");
    return out;
}
