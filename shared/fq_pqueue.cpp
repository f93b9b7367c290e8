// The persistent queue under the log and event delivery. Records are pushed here by any thread of
// any process (main at start and stop, the load monitor, the update thread) and taken out by the
// dispatcher thread of each process that shares the directory. An entry moves through its life by
// renames only (temp_ -> pending -> claimed_<pid>_ -> gone or pending again), so no reader ever
// sees half an entry and two claimers can never both win one. There is no index: the listing of
// data/ is the queue. It must never drop an entry to make room and never block a pusher on the
// claim lock; a full queue refuses the new entry instead.
#include "fq_pqueue.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "fq_raii.h"
#include "fq_uuid.h"
#include "fqerror.h"
#include "fqhlp-path-file-operations.h"
#include "log.h"

namespace {

constexpr size_t s_path_max = 4096;
constexpr char s_claimed[] = "claimed_";
constexpr char s_temp[] = "temp_";

int64_t s_now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

bool s_starts_with(const char* s, const char* prefix)
{
    return strncmp(s, prefix, strlen(prefix)) == 0;
}

char* s_dup(const std::string& s)
{
    return strdup(s.c_str());
}

void s_free_object(fq_pqueue* q)
{
    if (!q)
        return;
    free(q->queue_dir);
    free(q->queue_data_dir);
    free(q->controlfile);
    free(q->semaphore_name);
    delete q;
}

fq_pqueue* s_new_object(const std::string& queue_dir, const char* qname, size_t max_entries, size_t maxsize,
                        fq_pqueue_full_behaviour if_full)
{
    auto* q = new (std::nothrow) fq_pqueue{};
    if (!q)
        return nullptr;
    q->lock_fd = -1;
    q->queue_dir = s_dup(queue_dir);
    q->queue_data_dir = s_dup(queue_dir + "/data");
    q->controlfile = s_dup(queue_dir + "/control");
    q->semaphore_name = s_dup(std::string("fq_") + qname);
    q->max_elements = max_entries;
    q->max_size = maxsize;
    q->if_full = if_full;
    if (!q->queue_dir || !q->queue_data_dir || !q->controlfile || !q->semaphore_name) {
        log_error("Failed to allocate %s", "pqueue");
        s_free_object(q);
        return nullptr;
    }
    return q;
}

// A new file gets mode 0666 whatever the umask: every process of every user sharing the queue
// takes its lock on it. The umask is left alone, since other threads create files meanwhile.
int s_write_controlfile(fq_pqueue* q, bool create_only)
{
    const int flags = O_WRONLY | O_CREAT | O_CLOEXEC | (create_only ? O_EXCL : O_TRUNC);
    fq_fd_guard fd(open(q->controlfile, flags, 0666));
    if (!fd)
        return create_only && errno == EEXIST ? 1 : -1;
    if (create_only)
        fchmod(fd.get(), 0666);
    fq_file_ptr f(fdopen(fd.get(), "w"));
    if (!f)
        return -1;
    fd.release();
    setvbuf(f.get(), nullptr, _IONBF, 0);
    if (fprintf(f.get(), "%ld\n%ld\n%d\n", static_cast<long>(q->max_elements), static_cast<long>(q->max_size),
                static_cast<int>(q->if_full)) < 0 ||
        fflush(f.get()) != 0)
        return -1;
    return fclose(f.release()) == 0 ? 0 : -1;
}

// Limits that are no positive numbers would refuse every entry; such a file counts as unreadable.
int s_read_controlfile(fq_pqueue* q)
{
    fq_file_ptr f(fopen(q->controlfile, "r"));
    if (!f) {
        log_error("failed to open control file %s: %s", q->controlfile, FQstrerror(errno));
        return -1;
    }
    char lines[3][128];
    for (auto& line : lines) {
        if (!fgets(line, sizeof(line), f.get())) {
            log_error("failed to read control file %s: %s", q->controlfile,
                      ferror(f.get()) ? FQstrerror(errno) : "unexpected end of file");
            return -1;
        }
    }
    const long max_elements = atol(lines[0]);
    const long max_size = atol(lines[1]);
    const long if_full = atol(lines[2]);
    if (max_elements <= 0 || max_size <= 0 || (if_full != RINGBUFFER && if_full != FAIL)) {
        log_error("failed to read control file %s: %s", q->controlfile, "values out of range");
        return -1;
    }
    q->max_elements = static_cast<size_t>(max_elements);
    q->max_size = static_cast<size_t>(max_size);
    q->if_full = static_cast<fq_pqueue_full_behaviour>(if_full);
    return 0;
}

// Counts every regular file in data/, whatever its name: temporary and claimed files take room too.
bool s_list_stats(const fq_pqueue* q, size_t* elements, size_t* bytes)
{
    fq_dir_ptr dir(opendir(q->queue_data_dir));
    if (!dir)
        return false;
    size_t n = 0;
    size_t sum = 0;
    while (struct dirent* de = readdir(dir.get())) {
        struct stat st;
        if (fstatat(dirfd(dir.get()), de->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode))
            continue;
        ++n;
        sum += static_cast<size_t>(st.st_size);
    }
    *elements = n;
    *bytes = sum;
    return true;
}

// With stat_mutex held. A directory that cannot be read keeps the old counters.
void s_recount_locked(fq_pqueue* q)
{
    size_t n = 0;
    size_t bytes = 0;
    if (s_list_stats(q, &n, &bytes)) {
        q->current_elements = n;
        q->current_size = bytes;
    }
    q->counted_at_ms = s_now_ms();
}

void s_recount(fq_pqueue* q)
{
    std::lock_guard<std::mutex> lock(q->stat_mutex);
    s_recount_locked(q);
}

bool s_make_dir(const char* path)
{
    if (mkdir(path, 0770) == 0)
        return chmod(path, 0770) == 0;  // exactly 0770, whatever the umask
    return errno == EEXIST && fqhlp_IsDir(path);
}

// "<prefix><uuid>.dat" with a new time-based UUID.
std::string s_entry_name(char prefix)
{
    unsigned char uu[FQ_UUID_BYTES];
    char text[FQ_UUID_TEXT_LEN + 1];
    fq_uuid_generate_time_safe(uu);
    fq_uuid_unparse_lower(uu, text);
    return std::string(1, prefix) + text + ".dat";
}

bool s_write_all(int fd, const char* data, size_t len)
{
    size_t done = 0;
    while (done < len) {
        const ssize_t w = write(fd, data + done, len - done);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0) {
            if (w == 0)
                errno = EIO;
            return false;
        }
        done += static_cast<size_t>(w);
    }
    return true;
}

// The name a claimed entry had before its claim ("claimed_<digits>_<L|E>..."), or null.
const char* s_claimed_original_name(const char* name)
{
    if (!s_starts_with(name, s_claimed))
        return nullptr;
    const char* p = name + strlen(s_claimed);
    const char* digits = p;
    while (*p >= '0' && *p <= '9')
        ++p;
    if (p == digits || *p != '_')
        return nullptr;
    ++p;
    return *p == 'L' || *p == 'E' ? p : nullptr;
}

struct s_candidate_t {
    bool timed;
    uint64_t time;
    std::string name;
};

// Oldest first, by the time in the entry's UUID; names without one after all others.
bool s_older(const s_candidate_t& a, const s_candidate_t& b)
{
    if (a.timed != b.timed)
        return a.timed;
    if (a.time != b.time)
        return a.time < b.time;
    return a.name < b.name;
}

}  // namespace

fq_pqueue* fq_pqueue_open(const char* rundir, const char* qname, size_t max_entries, size_t maxsize_on_disk,
                          int file_flags, fq_pqueue_full_behaviour if_full)
{
    if (!rundir || !qname || !*qname) {
        log_error("Invalid parameters");
        return nullptr;
    }
    const std::string path = std::string(rundir) + "/" + qname;
    if (path.size() + 64 >= s_path_max) {
        log_error("Queue path %s is too long", path.c_str());
        return nullptr;
    }
    if (!fqhlp_IsDir(path.c_str()) || !fqhlp_IsWritable(path.c_str()))
        return fq_pqueue_create_new(qname, rundir, max_entries, maxsize_on_disk, file_flags, if_full);

    log_debug("Queue %s exists and is accessible", path.c_str());
    fq_pqueue* q = s_new_object(path, qname, max_entries, maxsize_on_disk, if_full);
    if (!q)
        return nullptr;
    // A queue that lost its control file gets a new one with the caller's limits: without it no
    // claim could ever take the lock.
    const int written = s_write_controlfile(q, true);
    if (written < 0 || (written > 0 && s_read_controlfile(q) != 0))
        log_error("Failed to read controlfile");
    // A data/ removed from outside would make every push fail.
    if (!s_make_dir(q->queue_data_dir))
        log_error("Failed to create %s: %s", q->queue_data_dir, FQstrerror(errno));
    s_recount(q);
    if (file_flags & O_TRUNC) {
        log_debug("Flag O_TRUNC passed, truncating queue %s", path.c_str());
        fq_pqueue_purge(q);
    }
    log_debug("pqueue %s opened", path.c_str());
    return q;
}

fq_pqueue* fq_pqueue_create_new(const char* qname, const char* q_dir, size_t max_entries, size_t maxsize_on_disk,
                                int file_flags, fq_pqueue_full_behaviour if_full)
{
    if ((file_flags & ~O_CREAT) != 0) {
        errno = ENOENT;
        return nullptr;
    }
    if (!qname || !q_dir) {
        log_error("Invalid parameters");
        return nullptr;
    }
    const std::string path = std::string(q_dir) + "/" + qname;
    struct stat st;
    if (stat(path.c_str(), &st) == 0 && (!S_ISDIR(st.st_mode) || !fqhlp_IsWritable(path.c_str()))) {
        log_error("%s not writable - check permissions", path.c_str());
        return nullptr;
    }
    fq_pqueue* q = s_new_object(path, qname, max_entries, maxsize_on_disk, if_full);
    if (!q)
        return nullptr;
    for (const char* dir : {q->queue_dir, q->queue_data_dir}) {
        if (!s_make_dir(dir)) {
            log_error("Failed to create %s: %s", dir, FQstrerror(errno));
            s_free_object(q);
            return nullptr;
        }
    }
    // Another process may have created the queue a moment ago: its control file stands.
    const int written = s_write_controlfile(q, true);
    if (written < 0) {
        log_error("Failed to save queue control file");
        s_free_object(q);
        return nullptr;
    }
    if (written > 0 && s_read_controlfile(q) != 0)
        log_error("Failed to read controlfile");
    s_recount(q);
    return q;
}

int fq_pqueue_push(fq_pqueue* q, char prefix, const char* data, size_t datalen)
{
    if (!q || !data || datalen == 0 || prefix == '\0') {
        log_error("Invalid parameters");
        return -1;
    }
    if (datalen > FQ_PQUEUE_MAX_ENTRY_BYTES) {
        log_error("Entry of %zu bytes refused: entries are at most %d bytes", datalen, FQ_PQUEUE_MAX_ENTRY_BYTES);
        return -1;
    }
    {
        // The counters are this process's view; they are refreshed from the directory now and then,
        // and always before an entry is refused, so a queue emptied by any dispatcher takes entries again.
        std::lock_guard<std::mutex> lock(q->stat_mutex);
        auto full = [&] {
            return q->current_elements + 1 > q->max_elements || q->current_size + datalen > q->max_size;
        };
        if (s_now_ms() - q->counted_at_ms >= FQ_PQUEUE_RECOUNT_MS || full())
            s_recount_locked(q);
        if (full()) {
            log_warn("Queue full: %zu Elements (max %zu), %zu bytes (max %zu)", q->current_elements, q->max_elements,
                     q->current_size, q->max_size);
            return -1;
        }
        // Taken before the file exists, so that threads pushing at once cannot pass the limit together.
        q->current_elements += 1;
        q->current_size += datalen;
    }
    auto give_back = [&] {
        std::lock_guard<std::mutex> lock(q->stat_mutex);
        q->current_elements -= std::min<size_t>(q->current_elements, 1);
        q->current_size -= std::min(q->current_size, datalen);
    };

    const std::string dir = std::string(q->queue_data_dir) + "/";
    std::string name;
    std::string temp;
    fq_fd_guard fd;
    for (int attempt = 0; attempt < 8 && !fd; ++attempt) {
        name = s_entry_name(prefix);
        temp = dir + s_temp + name;
        fd.reset(open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
        if (!fd && errno != EEXIST)
            break;
    }
    if (!fd || !s_write_all(fd.get(), data, datalen) || close(fd.release()) != 0) {
        log_error("Failed to write buffer to file %s, %s", temp.c_str(), FQstrerror(errno));
        unlink(temp.c_str());
        give_back();
        return -1;
    }
    // A pending name is never replaced: the rare UUID seen twice gets a new one.
    std::string final_name = dir + name;
    for (int attempt = 0; attempt < 8; ++attempt) {
        if (renameat2(AT_FDCWD, temp.c_str(), AT_FDCWD, final_name.c_str(), RENAME_NOREPLACE) == 0)
            return 0;
        if (errno != EEXIST)
            break;
        final_name = dir + s_entry_name(prefix);
    }
    log_error("Failed to rename %s to %s: %s", temp.c_str(), final_name.c_str(), FQstrerror(errno));
    unlink(temp.c_str());
    give_back();
    return -1;
}

int fq_pqueue_lock(fq_pqueue* q)
{
    if (!q)
        return -1;
    // The mutex first: lock_fd is one per object, and a second thread must not overwrite it.
    if (!q->mutex.try_lock())
        return -1;
    const int fd = open(q->controlfile, O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        log_error("Failed to open %s: %s", q->controlfile, FQstrerror(errno));
        q->mutex.unlock();
        return -1;
    }
    if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
        close(fd);
        q->mutex.unlock();
        return -1;
    }
    q->lock_fd = fd;
    return 0;
}

int fq_pqueue_unlock(fq_pqueue* q)
{
    if (!q || q->lock_fd < 0)
        return -1;
    flock(q->lock_fd, LOCK_UN);
    close(q->lock_fd);
    q->lock_fd = -1;
    q->mutex.unlock();
    return 0;
}

int fq_pqueue_claim_batch(fq_pqueue* q, const char* prefix_filter, size_t max_batch, fq_pqueue_data*** out)
{
    if (!q || !prefix_filter || !*prefix_filter || max_batch == 0 || !out) {
        log_error("Invalid parameters");
        return -1;
    }
    *out = nullptr;
    std::vector<s_candidate_t> names;
    {
        fq_dir_ptr dir(opendir(q->queue_data_dir));
        if (!dir) {
            log_error("Failed to open %s: %s", q->queue_data_dir, FQstrerror(errno));
            return -1;
        }
        // The whole listing, so that the oldest entries go first, not the first ones listed.
        while (struct dirent* de = readdir(dir.get())) {
            if (de->d_name[0] == '\0' || !strchr(prefix_filter, de->d_name[0]))
                continue;
            s_candidate_t c{false, 0, de->d_name};
            c.timed = fq_uuid_text_time(de->d_name + 1, &c.time) == 0;
            names.push_back(std::move(c));
        }
    }
    const size_t take = std::min(max_batch, names.size());
    std::partial_sort(names.begin(), names.begin() + static_cast<std::ptrdiff_t>(take), names.end(), s_older);

    auto** batch = static_cast<fq_pqueue_data**>(calloc(max_batch, sizeof(fq_pqueue_data*)));
    if (!batch) {
        log_error("Failed to allocate memory for %s", "batch");
        return -1;
    }
    const std::string dir = std::string(q->queue_data_dir) + "/";
    const std::string claimed = dir + s_claimed + std::to_string(getpid()) + "_";
    int count = 0;
    for (size_t i = 0; i < take; ++i) {
        const std::string from = dir + names[i].name;
        const std::string to = claimed + names[i].name;
        if (rename(from.c_str(), to.c_str()) != 0) {
            log_trace("Could not claim %s: %s", names[i].name.c_str(), FQstrerror(errno));  // another claimer won
            continue;
        }
        auto* entry = static_cast<fq_pqueue_data*>(calloc(1, sizeof(fq_pqueue_data)));
        if (entry) {
            entry->id = s_dup(to);
            entry->restore_id = s_dup(from);
            entry->prefix = names[i].name[0];
        }
        if (!entry || !entry->id || !entry->restore_id) {
            log_error("Failed to record claim for %s; rolling back", names[i].name.c_str());
            rename(to.c_str(), from.c_str());
            fq_pqueue_data_free(entry);
            break;
        }
        batch[count++] = entry;
    }
    if (count == 0) {
        free(batch);
        return 0;
    }
    *out = batch;
    return count;
}

int fq_pqueue_reclaim_stale_claims(fq_pqueue* q, time_t max_age_secs)
{
    if (!q) {
        log_error("Invalid parameters");
        return -1;
    }
    if (fq_pqueue_lock(q) != 0) {
        log_debug("Queue busy; skipping stale-claim reclaim sweep");
        return 0;
    }
    std::vector<std::string> claims;
    std::vector<std::string> temps;
    {
        fq_dir_ptr dir(opendir(q->queue_data_dir));
        if (!dir) {
            log_error("Failed to open %s: %s", q->queue_data_dir, FQstrerror(errno));
            fq_pqueue_unlock(q);
            return -1;
        }
        // A rename keeps the modification time: the age counts from the push, not from the claim.
        const time_t limit = time(nullptr) - max_age_secs;
        while (struct dirent* de = readdir(dir.get())) {
            struct stat st;
            if (fstatat(dirfd(dir.get()), de->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode) ||
                st.st_mtime < 0 || st.st_mtime > limit)
                continue;
            if (s_starts_with(de->d_name, s_claimed))
                claims.emplace_back(de->d_name);
            else if (s_starts_with(de->d_name, s_temp))
                temps.emplace_back(de->d_name);
        }
    }
    const std::string dir = std::string(q->queue_data_dir) + "/";
    int count = 0;
    for (const std::string& name : claims) {
        const char* original = s_claimed_original_name(name.c_str());
        if (!original) {
            log_warn("Cannot parse claim filename '%s'; leaving in place", name.c_str());
            continue;
        }
        const std::string from = dir + name;
        const std::string to = dir + original;
        if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) {
            log_debug("Reclaimed stale claimed entry %s -> %s", from.c_str(), to.c_str());
            ++count;
        } else {
            log_error("Failed to reclaim stale claimed entry '%s': %s", from.c_str(), FQstrerror(errno));
        }
    }
    // A temporary file this old belongs to a push that died before its rename; it will never be delivered.
    int removed = 0;
    for (const std::string& name : temps) {
        if (unlinkat(AT_FDCWD, (dir + name).c_str(), 0) == 0) {
            log_debug("Removed abandoned temporary entry %s", name.c_str());
            ++removed;
        }
    }
    fq_pqueue_unlock(q);
    if (count > 0)
        log_info("Re-entered %d stale claimed queue entr%s into the dispatch pool", count, count == 1 ? "y" : "ies");
    if (removed > 0)
        log_info("Removed %d abandoned temporary queue entr%s", removed, removed == 1 ? "y" : "ies");
    return count;
}

int fq_pqueue_data_read(fq_pqueue_data* data)
{
    if (!data || !data->id) {
        log_error("Invalid parameters");
        return -1;
    }
    free(data->data);
    data->data = nullptr;
    data->datalen = 0;
    fq_fd_guard fd(open(data->id, O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
    struct stat st;
    if (!fd || fstat(fd.get(), &st) != 0) {
        log_error("Failed to get size of %s: %s", data->id, FQstrerror(errno));
        return -1;
    }
    // The file may come from anyone who can write to data/: its size is checked before the allocation.
    if (!S_ISREG(st.st_mode) || st.st_size > FQ_PQUEUE_MAX_ENTRY_BYTES) {
        log_error("Entry %s is no regular file of at most %d bytes", data->id, FQ_PQUEUE_MAX_ENTRY_BYTES);
        return -1;
    }
    const size_t size = static_cast<size_t>(st.st_size);
    fq_cstr_ptr buf(static_cast<char*>(calloc(size + 1, 1)));
    if (!buf) {
        log_error("Failed to allocate memory for %s", "data->data");
        return -1;
    }
    size_t done = 0;
    while (done < size) {
        const ssize_t r = read(fd.get(), buf.get() + done, size - done);
        if (r < 0 && errno == EINTR)
            continue;
        if (r < 0) {
            log_error("Failed to read %s into buffer: %s", data->id, FQstrerror(errno));
            return -1;
        }
        if (r == 0)
            break;
        done += static_cast<size_t>(r);
    }
    data->data = buf.release();
    data->datalen = done;
    return 0;
}

int fq_pqueue_data_free(fq_pqueue_data* ptr)
{
    if (!ptr)
        return -1;
    free(ptr->id);
    free(ptr->restore_id);
    free(ptr->data);
    free(ptr);
    return 0;
}

int fq_pqueue_pending(fq_pqueue* q, const char* prefix_filter)
{
    if (!q || !prefix_filter)
        return -1;
    fq_dir_ptr dir(opendir(q->queue_data_dir));
    if (!dir)
        return -1;
    const std::string mine = std::string(s_claimed) + std::to_string(getpid()) + "_";
    int n = 0;
    while (struct dirent* de = readdir(dir.get())) {
        if ((de->d_name[0] != '\0' && strchr(prefix_filter, de->d_name[0])) || s_starts_with(de->d_name, mine.c_str()))
            ++n;
    }
    return n;
}

int fq_pqueue_purge(fq_pqueue* q)
{
    if (!q)
        return -1;
    if (fq_pqueue_lock(q) != 0) {
        log_error("Queue %s is busy; not purged", q->queue_dir);
        return -1;
    }
    fqhlp_RemoveDir(q->queue_data_dir);
    if (!s_make_dir(q->queue_data_dir))
        log_error("Failed to create %s: %s", q->queue_data_dir, FQstrerror(errno));
    s_recount(q);
    int rc = 0;
    if (s_write_controlfile(q, false) != 0) {
        log_error("Failed to save queue control file");
        rc = -1;
    }
    fq_pqueue_unlock(q);
    return rc;
}

int fq_pqueue_close(fq_pqueue* q)
{
    if (!q)
        return -1;
    if (q->lock_fd >= 0)
        fq_pqueue_unlock(q);
    s_free_object(q);
    return 0;
}
