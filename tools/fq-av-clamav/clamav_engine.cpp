// fq-av-clamav's engine: one libclamav engine for the process, loaded from a database folder and
// compiled once, then shared read-only by every serving thread. It turns libclamav's answers into four
// verdicts (clean, virus, incomplete, error). It never calls clean what libclamav could not look at
// whole, and never starts from a folder without signatures, which would call everything clean.
#include "clamav_engine.h"

#include <clamav.h>
#include <stdio.h>
#include <string.h>

#include <mutex>

#include "log.h"

struct fqclam_engine_t {
    cl_engine* engine = nullptr;
    unsigned signatures = 0;
    std::string dbdir;
    std::string description;
};

namespace {

// Names libclamav gives to its own alerts about what it could not look at.
const char s_limits_prefix[] = "Heuristics.Limits.Exceeded";
const char s_encrypted_prefix[] = "Heuristics.Encrypted";

// The largest object a job can announce; libclamav must not skip anything below it.
const long long s_max_object_size = 2147483647LL;

// What one scan call found, filled by the virus-found callback: without the callback
// libclamav leaves virname unset for its heuristic alerts.
struct s_scan_context {
    std::string virname;
};

void s_on_virus_found(int fd, const char* virname, void* context)
{
    (void)fd;
    auto* ctx = static_cast<s_scan_context*>(context);
    if (ctx && ctx->virname.empty() && virname)
        ctx->virname = virname;
}

void s_on_message(enum cl_msg severity, const char* fullmsg, const char* msg, void* context)
{
    (void)fullmsg;
    (void)context;
    std::string text = msg ? msg : "";
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.pop_back();
    if (severity >= CL_MSG_ERROR)
        log_error("libclamav: %s", text.c_str());
    else if (severity >= CL_MSG_WARN)
        log_warn("libclamav: %s", text.c_str());
    else
        log_trace("libclamav: %s", text.c_str());
}

bool s_starts_with(const std::string& s, const char* prefix)
{
    return s.compare(0, strlen(prefix), prefix) == 0;
}

cl_error_t s_library_init()
{
    static std::once_flag once;
    static cl_error_t rc = CL_SUCCESS;
    std::call_once(once, [] {
        cl_set_clcb_msg(s_on_message);
        rc = cl_init(CL_INIT_DEFAULT);
    });
    return rc;
}

}  // namespace

fqclam_engine_t* fqclam_engine_load(const char* dbdir, char* errmsg)
{
    if (!dbdir || !*dbdir) {
        snprintf(errmsg, 1024, "No database directory given");
        log_error("%s", errmsg);
        return nullptr;
    }
    cl_error_t rc = s_library_init();
    if (rc != CL_SUCCESS) {
        snprintf(errmsg, 1024, "libclamav could not be initialised: %s", cl_strerror(rc));
        log_error("%s", errmsg);
        return nullptr;
    }
    auto* e = new fqclam_engine_t;
    e->engine = cl_engine_new();
    if (!e->engine) {
        snprintf(errmsg, 1024, "libclamav could not create an engine");
        log_error("%s", errmsg);
        delete e;
        return nullptr;
    }
    // Bytecode signatures run code from the database; this engine never loads them.
    cl_engine_set_num(e->engine, CL_ENGINE_BYTECODE_SECURITY, CL_BYTECODE_TRUST_NOTHING);
    // Anything libclamav skipped for size would otherwise pass as clean.
    cl_engine_set_num(e->engine, CL_ENGINE_MAX_FILESIZE, s_max_object_size);
    cl_engine_set_num(e->engine, CL_ENGINE_MAX_SCANSIZE, s_max_object_size);
    cl_engine_set_clcb_virus_found(e->engine, s_on_virus_found);

    const unsigned dboptions = CL_DB_STDOPT & ~(unsigned)CL_DB_BYTECODE;
    rc = cl_load(dbdir, e->engine, &e->signatures, dboptions);
    if (rc != CL_SUCCESS) {
        snprintf(errmsg, 1024, "Failed to load the signature database %s: %s", dbdir, cl_strerror(rc));
        log_error("%s", errmsg);
        fqclam_engine_free(&e);
        return nullptr;
    }
    if (e->signatures == 0) {
        snprintf(errmsg, 1024, "The signature database %s holds no signature", dbdir);
        log_error("%s", errmsg);
        fqclam_engine_free(&e);
        return nullptr;
    }
    rc = cl_engine_compile(e->engine);
    if (rc != CL_SUCCESS) {
        snprintf(errmsg, 1024, "Failed to compile the signature database %s: %s", dbdir, cl_strerror(rc));
        log_error("%s", errmsg);
        fqclam_engine_free(&e);
        return nullptr;
    }
    log_info("libclamav %s: %u signatures loaded from %s", cl_retver(), e->signatures, dbdir);
    e->dbdir = dbdir;
    fqclam_engine_set_test_database(e, false);
    return e;
}

void fqclam_engine_free(fqclam_engine_t** engine)
{
    if (!engine || !*engine)
        return;
    if ((*engine)->engine)
        cl_engine_free((*engine)->engine);
    delete *engine;
    *engine = nullptr;
}

unsigned fqclam_engine_signatures(const fqclam_engine_t* engine)
{
    return engine ? engine->signatures : 0;
}

fqclam_verdict_t fqclam_engine_scan(const fqclam_engine_t* engine, const void* data, size_t len, const char* name,
                                    bool parse_archives, std::string* detail)
{
    detail->clear();
    if (!engine || !engine->engine) {
        *detail = "No scan engine";
        return FQCLAM_ERROR;
    }
    // Nothing to match in no bytes, and libclamav maps no empty buffer.
    if (len == 0)
        return FQCLAM_CLEAN;

    cl_fmap_t* map = cl_fmap_open_memory(data, len);
    if (!map) {
        *detail = "libclamav could not map the data";
        log_error("%s of %s (%zu bytes)", detail->c_str(), name, len);
        return FQCLAM_ERROR;
    }
    cl_scan_options options = {};
    options.parse = ~0u;
    if (!parse_archives)
        options.parse &= ~(uint32_t)CL_SCAN_PARSE_ARCHIVE;
    // Content that libclamav could not look into is reported instead of passing silently.
    options.heuristic = CL_SCAN_HEURISTIC_EXCEEDS_MAX | CL_SCAN_HEURISTIC_ENCRYPTED_ARCHIVE;

    s_scan_context ctx;
    const char* virname = nullptr;
    unsigned long scanned = 0;
    const cl_error_t rc = cl_scanmap_callback(map, name, &virname, &scanned, engine->engine, &options, &ctx);
    cl_fmap_close(map);

    switch (rc) {
    case CL_CLEAN:
        return FQCLAM_CLEAN;
    case CL_VIRUS: {
        std::string found = !ctx.virname.empty() ? ctx.virname : (virname ? virname : "");
        if (s_starts_with(found, s_limits_prefix)) {
            *detail = "Engine limit exceeded (" + found + ")";
            return FQCLAM_INCOMPLETE;
        }
        if (s_starts_with(found, s_encrypted_prefix)) {
            *detail = "Encrypted content cannot be scanned (" + found + ")";
            return FQCLAM_INCOMPLETE;
        }
        *detail = found.empty() ? "Unnamed signature" : found;
        return FQCLAM_VIRUS;
    }
    case CL_ETIMEOUT:
    case CL_EMAXREC:
    case CL_EMAXSIZE:
    case CL_EMAXFILES:
        *detail = std::string("Engine limit exceeded (") + cl_strerror(rc) + ")";
        return FQCLAM_INCOMPLETE;
    default:
        *detail = std::string("Scan engine error: ") + cl_strerror(rc);
        log_error("%s while scanning %s", detail->c_str(), name);
        return FQCLAM_ERROR;
    }
}

void fqclam_engine_set_test_database(fqclam_engine_t* engine, bool test_only)
{
    if (!engine)
        return;
    engine->description = std::string("libclamav ") + cl_retver() + ", " + std::to_string(engine->signatures) +
                          " signatures from " + engine->dbdir;
    if (test_only)
        engine->description += " (TEST SIGNATURES ONLY: this is no virus database; start with --database)";
}

const char* fqclam_engine_description(const fqclam_engine_t* engine)
{
    return engine ? engine->description.c_str() : "";
}
