// fq-av-clamav: serves the scan service fq-av-clamav, the engine a worker calls for the bytes of an
// object. Each staged object is scanned with one libclamav engine shared by all serving threads;
// archives are unpacked with libarchive, and every nested file is answered as its own result entry.
// A database that does not load stops the program before it serves, and the engine is released only
// after the last request that uses it is done.
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

#include "clamav_engine.h"
#include "clamav_job.h"
#include "fq_request_reply_types.h"
#include "log.h"
#include "peer_common.h"

namespace {

// The engine stays until the last request that uses it is done; requests that come in while
// the program stops are refused instead.
struct s_context {
    fqclam_engine_t* engine = nullptr;
    std::mutex mu;
    std::condition_variable idle;
    int active = 0;
    bool closed = false;
};

constexpr auto s_release_grace = std::chrono::seconds(30);

bool s_is_dir(const std::string& path)
{
    struct stat st;
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The shipped database: where the package puts it or beside the binary, else in the source tree
// the program was built from (a run from the build directory).
std::string s_default_database()
{
    char exe[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", exe, sizeof(exe) - 1);
    if (n > 0) {
        std::string dir(exe, (size_t)n);
        dir.erase(dir.find_last_of('/') + 1);
        // Installed from the package: /usr/bin/fq-av-clamav and /usr/share/fq-av-scanproxy/test-db.
        for (const std::string& candidate : {dir + "../share/fq-av-scanproxy/test-db", dir + FQCLAM_BESIDE_DB_DIR}) {
            char real[PATH_MAX];
            if (s_is_dir(candidate) && realpath(candidate.c_str(), real))
                return real;
        }
    }
    return FQCLAM_SOURCE_DB_DIR;
}

int s_clamav_handler(void* context, fq_const_request_reply_t* rr)
{
    auto* ctx = static_cast<s_context*>(context);
    if (!rr || !rr->reply)
        return -1;
    {
        std::lock_guard<std::mutex> lock(ctx->mu);
        if (ctx->closed) {
            peer_set_error(rr, SERVICE_ERROR, "fq-av-clamav is stopping");
            return -1;
        }
        ++ctx->active;
    }
    char* reply = fqclam_scan_job(ctx->engine, rr->request ? rr->request->json_txt : nullptr,
                                  rr->request ? rr->request->data : nullptr, rr->request ? rr->request->data_len : 0);
    {
        std::lock_guard<std::mutex> lock(ctx->mu);
        --ctx->active;
    }
    ctx->idle.notify_all();
    if (!reply) {
        peer_set_error(rr, SERVICE_ERROR, "Failed to allocate %s", "reply");
        return -1;
    }
    free(rr->reply->json_txt);
    rr->reply->json_txt = reply;
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    std::string database;
    peer_program_t program{
        "fq-av-clamav",
        "[options]",
        "Serves the scan service fq-av-clamav in its queue group: scans each staged object with\n"
        "libclamav and unpacks archives (zip, 7z, rar, tar, cpio, iso, ar, cab, lha, xar, also\n"
        "compressed) itself, up to the job's SCANEXTRACT_DEPTH, SCANEXTRACT_MAX_FILES and\n"
        "SCANEXTRACT_SIZE. The object and every nested file (\"<parent>/<member>\") get one result\n"
        "entry each. ReturnCode 0 clean, -210 virus found (Virusname of the entry), -100 when the\n"
        "scan could not be completed (limits, damaged or encrypted archives), -1000 with Error on a\n"
        "failure. A ping {\"Command\": 3} is answered {\"ReturnCode\": 0}.",
        {
            {"database", "DIR",
             "signature database directory (default: the shipped TEST database of two signatures, EICAR and "
             "the project's samples; give a real one for production)",
             [&database](const char* v) {
                 database = v;
                 return !database.empty();
             }},
        },
    };
    peer_options_t opts;
    const int rc = peer_parse_command_line(argc, argv, program, &opts);
    if (rc >= 0)
        return rc;
    log_set_level(opts.log_level);

    const bool test_only = database.empty();
    if (test_only)
        database = s_default_database();
    char error[1024] = "";
    s_context ctx;
    ctx.engine = fqclam_engine_load(database.c_str(), error);
    if (!ctx.engine) {
        fprintf(stderr, "%s: %s\n", program.name, error);
        return PEER_EXIT_USAGE;
    }
    if (test_only) {
        // Whatever the log level: an operator must not mistake this for a virus scanner.
        fprintf(stderr,
                "%s: WARNING: no --database given: scanning with the shipped TEST signatures only (%u, from %s). "
                "Real malware will NOT be found. Give --database DIR with a ClamAV signature database.\n",
                program.name, fqclam_engine_signatures(ctx.engine), database.c_str());
        fqclam_engine_set_test_database(ctx.engine, true);
    }

    const int status = peer_serve(program, opts, {"fq-av-clamav", s_clamav_handler, &ctx, true});

    std::unique_lock<std::mutex> lock(ctx.mu);
    ctx.closed = true;
    if (ctx.idle.wait_for(lock, s_release_grace, [&ctx] { return ctx.active == 0; }))
        fqclam_engine_free(&ctx.engine);
    else
        log_warn("%s: %d scans still running; leaving the engine to the end of the process", program.name,
                 ctx.active);
    return status;
}
