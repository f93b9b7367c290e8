// The trace file's set-up: its cross-process lock (a named semaphore per file) and the rotation of a
// full file into a zip archive. Every line written to the file passes the lock; a line logged from
// inside the lock or the rotation goes to stderr only, so the log never waits on itself. A failed
// rotation keeps the trace file as it is and leaves no partial archive behind.
#include "log-helper.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include <archive.h>
#include <archive_entry.h>

#include "fq_raii.h"
#include "fqerror.h"
#include "fqsemaphore.h"

namespace {

// "fq_log_" and the trace file's path with every '/' made '_': one name per file,
// shared by every process that traces to it.
void s_semaphore_name(const char* path, char* out, size_t outlen)
{
    snprintf(out, outlen, "fq_log_%s", path);
    for (char* p = out; *p != '\0'; ++p) {
        if (*p == '/')
            *p = '_';
    }
}

int s_lock_adapter(void* udata, int action)
{
    return FQLogLock(static_cast<sem_t*>(udata), static_cast<log_lock_actions_t>(action));
}

// Moves the trace file into "<file>_<local time>.zip". On any failure the trace file stays as it
// is (and goes on growing), a partial archive is removed again, and the next line tries again.
int s_switch_logfile(const char* filename)
{
    time_t now = time(nullptr);
    struct tm tm;
    char stamp[64] = "";
    if (localtime_r(&now, &tm) != nullptr)
        strftime(stamp, sizeof(stamp), "%F__%H-%M-%S", &tm);
    char zipname[4096];
    snprintf(zipname, sizeof(zipname), "%s_%s.zip", filename, stamp);

    fq_archive_write_ptr a(archive_write_new());
    fq_archive_entry_ptr entry;
    bool opened = false;
    auto discard = [&] {
        a.reset();
        if (opened)
            unlink(zipname);
        return -1;
    };
    if (!a || archive_write_set_format_zip(a.get()) != ARCHIVE_OK ||
        archive_write_open_filename(a.get(), zipname) != ARCHIVE_OK) {
        log_error("Failed to open new archive %s for writing", zipname);
        return -1;
    }
    opened = true;

    struct stat st;
    if (stat(filename, &st) == -1) {
        log_error("Failed to stat trace file %s: %s", filename, FQstrerror(errno));
        return discard();
    }

    entry.reset(archive_entry_new());
    if (!entry) {
        log_error("Failed to create archive entry for %s", filename);
        return discard();
    }
    archive_entry_set_pathname(entry.get(), filename);
    archive_entry_set_size(entry.get(), st.st_size);
    archive_entry_set_filetype(entry.get(), AE_IFREG);
    archive_entry_set_perm(entry.get(), 0644);
    if (archive_write_header(a.get(), entry.get()) != ARCHIVE_OK) {
        log_error("Failed to write archive header for %s into %s: %s", filename, zipname,
                  archive_error_string(a.get()) ? archive_error_string(a.get()) : "");
        return discard();
    }

    fq_fd_guard fd(open(filename, O_RDONLY | O_CLOEXEC));
    if (!fd) {
        log_error("Failed to open trace file %s for reading: %s", filename, FQstrerror(errno));
        return discard();
    }

    char block[8192];
    for (;;) {
        ssize_t n = read(fd.get(), block, sizeof(block));
        if (n == 0)
            break;
        if (n < 0) {
            if (errno == EINTR)
                continue;
            // An incomplete archive is worse than none: keep the trace file as it is.
            log_error("Failed to read trace file %s: %s", filename, FQstrerror(errno));
            return discard();
        }
        if (archive_write_data(a.get(), block, (size_t)n) < 0) {
            log_error("Failed to write trace file %s into archive %s: %s", filename, zipname,
                      archive_error_string(a.get()) ? archive_error_string(a.get()) : "");
            return discard();
        }
    }
    fd.reset();

    const bool closed = archive_write_close(a.get()) == ARCHIVE_OK;
    a.reset();
    if (!closed) {
        log_error("Failed to complete archive %s", zipname);
        return discard();
    }

    if (unlink(filename) == -1) {
        log_error("Failed to remove trace file %s after archiving: %s", filename, FQstrerror(errno));
        return -1;
    }
    return 0;
}

}  // namespace

int FQLogLock(sem_t* s, log_lock_actions_t action)
{
    if (s == nullptr || s == SEM_FAILED) {
        log_error("Invalid semaphore handle");
        return -1;
    }
    switch (action) {
    case LOG_ACTION_UNLOCK:
        return FQsem_post(s);
    case LOG_ACTION_LOCK:
        return FQsem_timedwait(s, 5000);
    default:
        log_error("Invalid action parameter value");
        return -1;
    }
}

int FQLogCheckLogSwitch(char* filename, size_t maxsize)
{
    if (filename == nullptr || filename[0] == '\0' || maxsize == 0)
        return 0;
    struct stat st;
    if (stat(filename, &st) == -1)
        return 0;  // not there yet: the next open creates it
    if ((unsigned long long)st.st_size < (unsigned long long)maxsize * 1000000ULL)
        return 0;
    return s_switch_logfile(filename);
}

int FQOpenTraceFile(const char* logfilename, int level, size_t maxsize)
{
    if (level != 0 && logfilename != nullptr && logfilename[0] != '\0') {
        char semname[4096];
        s_semaphore_name(logfilename, semname, sizeof(semname));
        sem_t* sem = FQsem_open(semname, O_CREAT, 0666, 0, 1);
        if (sem == SEM_FAILED) {
            log_error("Failed to open semaphore \"%s\"", semname);
            return -1;
        }
        // The lock before the file, so that a reader never sees a file without its lock.
        log_set_udata(sem);
        log_set_lock(s_lock_adapter);
        log_set_maxsize(maxsize);
        log_set_filename(logfilename);
        log_set_level(level);
        log_set_screentrace(0);
        return 0;
    }

    log_info("No trace configured");
    // Level and file first, so that a reader never sees a file without its lock.
    log_set_level(FQLOG_OFF);
    log_set_filename(nullptr);
    log_set_lock(nullptr);
    log_set_udata(nullptr);
    return 0;
}

namespace {

// Whether another process has the named semaphore mapped, which every process tracing to the
// same file does. The mapping shows the file's inode (glibc maps it under a temporary name), so
// that is what is compared. Processes this one may not look into are passed over: workers that
// share a trace file run as one user and can see each other.
bool s_semaphore_used_elsewhere(const char* semname)
{
    struct stat sem_st;
    if (stat((std::string("/dev/shm/sem.") + semname).c_str(), &sem_st) != 0)
        return false;
    const unsigned long want_ino = (unsigned long)sem_st.st_ino;
    DIR* proc = opendir("/proc");
    if (!proc)
        return true;
    fq_dir_ptr guard(proc);
    const pid_t self = getpid();
    while (struct dirent* e = readdir(proc)) {
        char* end = nullptr;
        const long pid = strtol(e->d_name, &end, 10);
        if (*end != '\0' || pid <= 0 || pid == self)
            continue;
        char path[64];
        snprintf(path, sizeof(path), "/proc/%ld/maps", pid);
        FILE* f = fopen(path, "r");
        if (!f)
            continue;  // gone, or not ours to look into
        fq_file_ptr maps(f);
        char line[4608];
        while (fgets(line, sizeof(line), f)) {
            unsigned long ino = 0;
            char name[4096] = "";
            // address perms offset dev inode path
            if (sscanf(line, "%*s %*s %*s %*s %lu %4095s", &ino, name) == 2 && ino == want_ino &&
                strncmp(name, "/dev/shm/sem.", 13) == 0)
                return true;
        }
    }
    return false;
}

}  // namespace

void FQCloseTraceFile(void)
{
    const char* filename = log_get_filename();
    if (!filename || !*filename)
        return;
    char semname[4096];
    s_semaphore_name(filename, semname, sizeof(semname));
    // Lines from here on go to stderr only. The semaphore stays mapped until the process ends,
    // since a thread that is still running may be writing a line under it right now.
    log_set_filename(nullptr);
    log_set_lock(nullptr);
    log_set_udata(nullptr);
    if (!s_semaphore_used_elsewhere(semname))
        sem_unlink(semname);
}
