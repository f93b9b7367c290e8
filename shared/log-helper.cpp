#include "log-helper.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <archive.h>
#include <archive_entry.h>

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

// Owns the archive being written; on failure the partial archive is removed again.
struct s_archive_writer {
    struct archive* a = nullptr;
    struct archive_entry* entry = nullptr;
    const char* path = nullptr;
    bool opened = false;

    ~s_archive_writer()
    {
        if (entry != nullptr)
            archive_entry_free(entry);
        if (a != nullptr)
            archive_write_free(a);
    }

    // Closes the archive; false if the archive could not be completed.
    bool close()
    {
        bool ok = archive_write_close(a) == ARCHIVE_OK;
        archive_write_free(a);
        a = nullptr;
        return ok;
    }

    void discard()
    {
        if (a != nullptr) {
            archive_write_free(a);
            a = nullptr;
        }
        if (opened)
            unlink(path);
    }
};

// Moves the trace file into "<file>_<local time>.zip". On any failure the trace file
// stays as it is (and goes on growing); the next line tries again.
int s_switch_logfile(const char* filename)
{
    time_t now = time(nullptr);
    struct tm tm;
    char stamp[64] = "";
    if (localtime_r(&now, &tm) != nullptr)
        strftime(stamp, sizeof(stamp), "%F__%H-%M-%S", &tm);
    char zipname[4096];
    snprintf(zipname, sizeof(zipname), "%s_%s.zip", filename, stamp);

    s_archive_writer w;
    w.path = zipname;
    w.a = archive_write_new();
    if (w.a == nullptr || archive_write_set_format_zip(w.a) != ARCHIVE_OK ||
        archive_write_open_filename(w.a, zipname) != ARCHIVE_OK) {
        log_error("Failed to open new archive %s for writing", zipname);
        return -1;
    }
    w.opened = true;

    struct stat st;
    if (stat(filename, &st) == -1) {
        log_error("Failed to stat trace file %s: %s", filename, FQstrerror(errno));
        w.discard();
        return -1;
    }

    w.entry = archive_entry_new();
    if (w.entry == nullptr) {
        log_error("Failed to create archive entry for %s", filename);
        w.discard();
        return -1;
    }
    archive_entry_set_pathname(w.entry, filename);
    archive_entry_set_size(w.entry, st.st_size);
    archive_entry_set_filetype(w.entry, AE_IFREG);
    archive_entry_set_perm(w.entry, 0644);
    if (archive_write_header(w.a, w.entry) != ARCHIVE_OK) {
        log_error("Failed to write archive header for %s into %s: %s", filename, zipname,
                  archive_error_string(w.a) ? archive_error_string(w.a) : "");
        w.discard();
        return -1;
    }

    int fd = open(filename, O_RDONLY | O_CLOEXEC);
    if (fd == -1) {
        log_error("Failed to open trace file %s for reading: %s", filename, FQstrerror(errno));
        w.discard();
        return -1;
    }

    char block[8192];
    bool copied = true;
    for (;;) {
        ssize_t n = read(fd, block, sizeof(block));
        if (n == 0)
            break;
        if (n < 0) {
            if (errno == EINTR)
                continue;
            // An incomplete archive is worse than none: keep the trace file as it is.
            log_error("Failed to read trace file %s: %s", filename, FQstrerror(errno));
            copied = false;
            break;
        }
        if (archive_write_data(w.a, block, (size_t)n) < 0) {
            log_error("Failed to write trace file %s into archive %s: %s", filename, zipname,
                      archive_error_string(w.a) ? archive_error_string(w.a) : "");
            copied = false;
            break;
        }
    }
    close(fd);

    if (!copied) {
        w.discard();
        return -1;
    }
    if (!w.close()) {
        log_error("Failed to complete archive %s", zipname);
        w.discard();
        return -1;
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
