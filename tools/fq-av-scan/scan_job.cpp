// fq-av-scan's side of the wire: the policy (defaults, then a policy file, then the options), the job
// text for one file, and the reading of the worker's reply into a verdict. The reply is untrusted:
// only a well-formed scan reply with a known code is a verdict, and nothing else ever reads as OK.
#include "scan_job.h"

#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <utility>

#include "fq_raii.h"

namespace fqscan {

namespace {

void s_set_int(json_object* o, const char* key, int64_t v)
{
    json_object_object_add(o, key, json_object_new_int64(v));
}

void s_set_str(json_object* o, const char* key, const std::string& v)
{
    json_object_object_add(o, key, json_object_new_string(v.c_str()));
}

// Every member the worker reads or forwards, so that it never has to fall back on its own
// defaults (and log a warning for each). Texts the worker insists on get plain values.
json_object* s_defaults(const std::string& hostname)
{
    json_object* p = json_object_new_object();
    if (!p)
        return nullptr;
    s_set_int(p, "Command", 101);  // SCAN_ONLY
    s_set_str(p, "Services", kDefaultServices);
    s_set_int(p, "Recursion", 0);
    s_set_str(p, "shmID", "0xffffffff");
    s_set_int(p, "CUST_CHECK_MIME_TYPE", 0);
    s_set_int(p, "CUST_ACTIVE_CONTENT", 0);
    s_set_int(p, "CUST_CLEAN", 0);
    s_set_int(p, "SCANEXTRACT", 1);
    s_set_int(p, "SCANEXTRACT_DEPTH", kDefaultExtractDepth);
    s_set_int(p, "SCANEXTRACT_MAX_FILES", 0);
    s_set_int(p, "SCANEXTRACT_SIZE", 0);
    s_set_int(p, "SCANEXTRACT_RATIO", 1032);
    s_set_int(p, "SCANEXTRACT_NO_VIRUSSCAN", 0);
    s_set_int(p, "ENFORCE_MIME_POLICY_IN_ARCHIVES", 1);
    s_set_int(p, "ENFORCE_ACTIVECONTENT_POLICY_IN_ARCHIVES", 1);
    s_set_str(p, "BLOCKEXTENSIONS", "");
    s_set_str(p, "SCANEXTENSIONS", "");
    s_set_str(p, "BLOCKMIMETYPES", "");
    s_set_str(p, "SCANMIMETYPES", "");
    s_set_str(p, "realmID", "default");
    s_set_str(p, "CLEANQUARANTINE", "");
    s_set_str(p, "Hostname", hostname.empty() ? "localhost" : hostname);
    s_set_str(p, "SID", "FQS");
    s_set_int(p, "PID", (int64_t)getpid());
    s_set_int(p, "TID", 0);
    s_set_int(p, "ENFORCE_MIME_EXTENSION_MATCH", 0);
    s_set_int(p, "REQUIRE_EXTENSION", 0);
    s_set_int(p, "BLOCKENCRYPTED", 0);
    s_set_int(p, "BLOCKHTML_IN_PDF", 0);
    s_set_int(p, "SCANBASE64", 0);
    s_set_int(p, "SCANUUENCODED", 0);
    s_set_int(p, "SCANXMLCONTENT", 0);
    s_set_int(p, "LONGMIMETYPES", 0);
    s_set_int(p, "SCAN_MIN_SIZE", 0);
    s_set_int(p, "SCAN_MAX_SIZE", 0);
    s_set_str(p, "HTMLDETECTION", "SAFE");
    s_set_int(p, "SCANTIMEOUT", kDefaultScanTimeoutMs);
    s_set_int(p, "SCANBANDWIDTH", 0);
    s_set_str(p, "Scan-Servers", "default");
    s_set_int(p, "SCANALLEMBEDDED", 0);
    s_set_str(p, "XML_MODE", "XML");
    s_set_str(p, "SVG_MODE", "SVG");
    s_set_int(p, "INCLUDE_EVENT_ID_IN_MESSAGE", 0);
    s_set_str(p, "EVENT_ID_DELIMITER", "#");
    s_set_int(p, "SCANBESTEFFORT", 0);
    s_set_int(p, "SCANALLFILES", 0);
    return p;
}

// Members the worker refuses a job without (or cannot forward without), apart from the ones
// made for each object.
const char* const s_required_texts[] = {"Services", "shmID",        "realmID",  "Hostname",          "SID",
                                        "HTMLDETECTION", "Scan-Servers", "XML_MODE", "SVG_MODE", "EVENT_ID_DELIMITER"};

// Members that belong to each object and are never taken from a policy.
const char* const s_per_object[] = {"ObjectName", "ObjectLen", "EventID", "_kv_key", "_reqid", "_reply_subj"};

bool s_load_file(const std::string& path, std::string* text, std::string* error)
{
    FILE* f = fopen(path.c_str(), "rb");
    if (!f) {
        *error = "cannot open policy file " + path + ": " + strerror(errno);
        return false;
    }
    char buf[8192];
    size_t n;
    while ((n = fread(buf, 1, sizeof(buf), f)) > 0) {
        text->append(buf, n);
        if (text->size() > 16 * 1024 * 1024) {
            fclose(f);
            *error = "policy file " + path + " is too large";
            return false;
        }
    }
    const bool failed = ferror(f) != 0;
    fclose(f);
    if (failed) {
        *error = "cannot read policy file " + path;
        return false;
    }
    return true;
}

json_object* s_member(json_object* o, const char* key)
{
    json_object* v = nullptr;
    return o && json_object_object_get_ex(o, key, &v) ? v : nullptr;
}

std::string s_text(json_object* o, const char* key)
{
    json_object* v = s_member(o, key);
    const char* s = v ? json_object_get_string(v) : nullptr;
    return s ? s : "";
}

// Virusname texts of the entries that count against the object, each once, joined by "; ".
std::string s_entry_reasons(json_object* reply)
{
    std::string out;
    json_object* results = s_member(reply, "Results");
    if (!results || !json_object_is_type(results, json_type_array))
        return out;
    const size_t n = json_object_array_length(results);
    for (size_t i = 0; i < n; ++i) {
        json_object* e = json_object_array_get_idx(results, i);
        json_object* rc = s_member(e, "ReturnCode");
        if (!rc || json_object_get_int(rc) >= 0 || json_object_get_int(rc) == -1000)
            continue;
        std::string v = s_text(e, "Virusname");
        if (v.empty() || v == " " || out.find(v) != std::string::npos)
            continue;
        if (!out.empty())
            out += "; ";
        out += v;
    }
    return out;
}

const char* s_default_reason(int rc)
{
    switch (rc) {
    case -210:
        return "Virus found";
    case -202:
        return "Active content found";
    case -200:
        return "Policy violation";
    case -199:
        return "Blocked";
    case -101:
        return "Malware cleaned";
    case -100:
        return "Scan not completed";
    default:
        return "Blocked";
    }
}

std::string s_entry_verdict(int rc, const std::string& virus)
{
    const std::string reason = (virus.empty() || virus == " ") ? s_default_reason(rc) : virus;
    if (rc == 0 || rc == 1)
        return "OK";
    if (rc == -210)
        return reason + " FOUND";
    if (rc == -1000)
        return "ERROR";
    if (rc == -202 || rc == -200 || rc == -199 || rc == -101 || rc == -100)
        return reason + " BLOCKED";
    return "code " + std::to_string(rc);
}

}  // namespace

json_object* build_policy(const PolicyOptions& opts, const std::string& hostname, std::string* error)
{
    fq_json_ptr policy(s_defaults(hostname));
    if (!policy) {
        *error = "out of memory";
        return nullptr;
    }
    if (!opts.policy_file.empty()) {
        std::string text;
        if (!s_load_file(opts.policy_file, &text, error))
            return nullptr;
        json_tokener* tok = json_tokener_new();
        if (!tok) {
            *error = "out of memory";
            return nullptr;
        }
        fq_json_ptr file(json_tokener_parse_ex(tok, text.c_str(), (int)text.size()));
        const enum json_tokener_error jerr = json_tokener_get_error(tok);
        json_tokener_free(tok);
        if (!file || jerr != json_tokener_success) {
            *error = "policy file " + opts.policy_file + " is not valid JSON: " +
                     json_tokener_error_desc(jerr == json_tokener_success ? json_tokener_continue : jerr);
            return nullptr;
        }
        if (!json_object_is_type(file.get(), json_type_object)) {
            *error = "policy file " + opts.policy_file + " must hold one JSON object";
            return nullptr;
        }
        json_object_object_foreach(file.get(), key, value)
        {
            bool per_object = false;
            for (const char* k : s_per_object)
                per_object = per_object || strcmp(k, key) == 0;
            if (per_object)
                continue;
            json_object_object_add(policy.get(), key, json_object_get(value));
        }
    }
    if (!opts.services.empty())
        s_set_str(policy.get(), "Services", opts.services);
    if (opts.timeout_ms >= 0)
        s_set_int(policy.get(), "SCANTIMEOUT", opts.timeout_ms);
    if (opts.max_size >= 0)
        s_set_int(policy.get(), "SCAN_MAX_SIZE", opts.max_size);
    if (opts.depth >= 0)
        s_set_int(policy.get(), "SCANEXTRACT_DEPTH", opts.depth);

    for (const char* key : s_required_texts) {
        json_object* v = s_member(policy.get(), key);
        const char* s = v ? json_object_get_string(v) : nullptr;
        if (!v || json_object_is_type(v, json_type_null) || !s || !*s) {
            *error = std::string("policy member ") + key + " must not be empty";
            return nullptr;
        }
    }
    return policy.release();
}

int64_t reply_wait_ms(json_object* policy)
{
    json_object* v = s_member(policy, "SCANTIMEOUT");
    int64_t t = v ? json_object_get_int(v) : 0;
    if (t < 0)
        t = 0;
    // The worker answers within its budget; the margin covers the broker and the staging.
    int64_t margin = t / 10;
    if (margin < 2000)
        margin = 2000;
    return t + margin;
}

std::string job_text(json_object* policy, const std::string& object_name, size_t object_len,
                     const std::string& event_id, const char* kv_key)
{
    // The policy is shared by all scanning threads: copy it instead of taking references, since
    // json-c's reference counts are not safe to change from several threads at once.
    json_object* copy = nullptr;
    if (json_object_deep_copy(policy, &copy, nullptr) != 0 || !copy)
        return "";
    fq_json_ptr job(copy);
    s_set_str(job.get(), "ObjectName", object_name);
    s_set_int(job.get(), "ObjectLen", (int64_t)object_len);
    s_set_str(job.get(), "EventID", event_id);
    if (kv_key && *kv_key)
        s_set_str(job.get(), "_kv_key", kv_key);
    return json_object_to_json_string_ext(job.get(), JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
}

std::string new_event_id()
{
    uuid_t id;
    uuid_generate_random(id);
    char text[37];
    uuid_unparse_lower(id, text);
    return text;
}

Outcome& Outcome::operator=(Outcome&& o) noexcept
{
    if (this != &o) {
        json_object_put(reply);
        verdict = o.verdict;
        rc = o.rc;
        reason = std::move(o.reason);
        reply = std::exchange(o.reply, nullptr);
    }
    return *this;
}

Outcome::~Outcome()
{
    json_object_put(reply);
}

Outcome error_outcome(const std::string& text)
{
    Outcome o;
    o.verdict = Verdict::Error;
    o.rc = -1000;
    o.reason = text;
    return o;
}

Outcome interpret_reply(const char* text, size_t len)
{
    if (!text || len == 0)
        return error_outcome("empty reply from the worker");
    json_tokener* tok = json_tokener_new();
    if (!tok)
        return error_outcome("out of memory");
    json_object* parsed = json_tokener_parse_ex(tok, text, (int)len);
    const enum json_tokener_error jerr = json_tokener_get_error(tok);
    json_tokener_free(tok);
    if (!parsed || jerr != json_tokener_success || !json_object_is_type(parsed, json_type_object)) {
        json_object_put(parsed);
        return error_outcome("reply from the worker is not a JSON object");
    }
    Outcome o;
    o.reply = parsed;
    json_object* rcv = s_member(parsed, "ReturnCode");
    if (!rcv) {
        o.reason = "reply from the worker has no ReturnCode";
        return o;
    }
    // The worker writes the code as a number, and as a text after a failed quarantine.
    errno = 0;
    char* end = nullptr;
    const char* rctext = json_object_get_string(rcv);
    const long rc = rctext ? strtol(rctext, &end, 10) : 0;
    if (!rctext || end == rctext || *end != '\0' || errno != 0 || rc < INT32_MIN || rc > INT32_MAX) {
        o.reason = std::string("reply from the worker has an unreadable ReturnCode: ") + (rctext ? rctext : "");
        return o;
    }
    o.rc = (int)rc;
    switch (o.rc) {
    case 1:  // how the worker reports a clean object
        o.verdict = Verdict::Ok;
        break;
    case -1000: {
        const std::string err = s_text(parsed, "Error");
        o.reason = err.empty() ? "the worker reported a failure without a text" : err;
        break;
    }
    case -1:
        o.reason = "the worker refused the request (ReturnCode -1)";
        break;
    case -210:
    case -202:
    case -200:
    case -199:
    case -101:
    case -100: {
        o.verdict = o.rc == -210 ? Verdict::Found : Verdict::Blocked;
        std::string reason = s_text(parsed, "Blocking-reason");
        if (reason.empty() || reason == " ")
            reason = s_entry_reasons(parsed);
        if (reason.empty())
            reason = s_default_reason(o.rc);
        o.reason = reason;
        break;
    }
    default:
        // 0 never comes back for a scan: whatever sent it did not scan the object.
        o.reason = "unexpected ReturnCode " + std::to_string(o.rc) + " in the reply";
        break;
    }
    return o;
}

std::string verdict_text(const Outcome& o)
{
    switch (o.verdict) {
    case Verdict::Ok:
        return "OK";
    case Verdict::Found:
        return o.reason + " FOUND";
    case Verdict::Blocked:
        return o.reason + " BLOCKED";
    case Verdict::Error:
    default:
        return "ERROR " + o.reason;
    }
}

std::vector<std::string> entry_lines(const Outcome& o)
{
    std::vector<std::string> lines;
    json_object* results = s_member(o.reply, "Results");
    if (!results || !json_object_is_type(results, json_type_array))
        return lines;
    const size_t n = json_object_array_length(results);
    for (size_t i = 0; i < n; ++i) {
        json_object* e = json_object_array_get_idx(results, i);
        json_object* rcv = s_member(e, "ReturnCode");
        const int rc = rcv ? json_object_get_int(rcv) : 0;
        std::string line = s_text(e, "File-name") + ": " + s_entry_verdict(rc, s_text(e, "Virusname"));
        std::string details;
        const std::string mime = s_text(e, "MIME-type");
        if (!mime.empty())
            details = mime;
        if (json_object* size = s_member(e, "File-size")) {
            if (!details.empty())
                details += ", ";
            details += std::to_string(json_object_get_int64(size)) + " bytes";
        }
        if (!details.empty())
            line += " (" + details + ")";
        lines.push_back(line);
    }
    return lines;
}

}  // namespace fqscan
