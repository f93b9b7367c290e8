// Path and file helpers of the foundation: tests on paths, the creation and removal of folders, and
// copies of files and trees below the worker's base directory. Removal never follows a symbolic link
// out of the tree it was given and never blocks on a FIFO where a folder was expected; a copy never
// overwrites what is already there.
#include "fqhlp-path-file-operations.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "fq_raii.h"
#include "fqerror.h"
#include "fqhlp-string.h"
#include "log.h"

namespace {

constexpr size_t s_path_max = 4096;

std::string s_join(const char* a, const char* b)
{
    std::string p(a);
    p += '/';
    p += b;
    return p;
}

bool s_is_dot(const char* name)
{
    return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

// Directory flags that never follow a final symbolic link and never block on
// a FIFO that happens to sit where a folder was expected.
constexpr int s_dir_open_flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

// Empties the directory open on dfd (which this takes over) and removes
// nothing outside it: every entry is handled relative to dfd, and an entry is
// only descended into if it opens as a real directory without following links.
// Returns 0, or 1 when an entry could not be removed.
int s_empty_dir(int dfd)
{
    fq_dir_ptr dir(fdopendir(dfd));
    if (!dir) {
        close(dfd);
        return 1;
    }
    for (;;) {
        errno = 0;
        struct dirent* de = readdir(dir.get());
        if (de == nullptr)
            return errno == 0 ? 0 : 1;
        if (s_is_dot(de->d_name))
            continue;

        int child = openat(dirfd(dir.get()), de->d_name, s_dir_open_flags);
        if (child >= 0) {
            // A sub-folder that cannot be emptied shows up as the failing
            // rmdir of its non-empty parent; go on with the rest meanwhile.
            s_empty_dir(child);
            unlinkat(dirfd(dir.get()), de->d_name, AT_REMOVEDIR);
            continue;
        }
        if (errno == ENOENT)
            continue;  // gone meanwhile
        // Files, symbolic links (ELOOP) and anything else that is no folder.
        if (unlinkat(dirfd(dir.get()), de->d_name, 0) == 0)
            continue;
        // A folder we may not open (EACCES, EMFILE): still try to remove it.
        if (errno == EISDIR && unlinkat(dirfd(dir.get()), de->d_name, AT_REMOVEDIR) == 0)
            continue;
        if (errno == ENOENT)
            continue;
        return 1;
    }
}

}  // namespace

int fqhlp_IsFile(const char* path)
{
    if (path == nullptr || *path == '\0')
        return 0;
    return access(path, F_OK) == 0 ? 1 : 0;
}

int fqhlp_IsDir(const char* path)
{
    struct stat st;
    if (path == nullptr || stat(path, &st) != 0)
        return 0;
    return S_ISDIR(st.st_mode) ? 1 : 0;
}

int fqhlp_IsRegularFile(const char* path)
{
    struct stat st;
    if (path == nullptr || stat(path, &st) != 0)
        return 0;
    return S_ISREG(st.st_mode) ? 1 : 0;
}

int fqhlp_IsRegularFileD(const char* dir, const char* fname)
{
    if (dir == nullptr || fname == nullptr)
        return 0;
    return fqhlp_IsRegularFile(s_join(dir, fname).c_str());
}

int fqhlp_IsWritable(const char* path)
{
    if (path == nullptr)
        return 0;
    return access(path, W_OK) == 0 ? 1 : 0;
}

int fqhlp_GetFileSize(const char* pszfilename, size_t* size)
{
    if (pszfilename == nullptr || size == nullptr) {
        log_error("Invalid arguments");
        return -1;
    }
    fq_cstr_ptr name(strdup(pszfilename));
    if (!name) {
        log_error("Failed to allocate %s", "filename");
        return -1;
    }
    fqhlp_TrimWhitespace(name.get());
    if (name.get()[0] == '\0') {
        log_error("Invalid filename (empty)");
        return -1;
    }
    struct stat st;
    if (stat(name.get(), &st) != 0) {
        log_error("Can't stat file \"%s\": %s", name.get(), FQstrerror(errno));
        return -1;
    }
    *size = static_cast<size_t>(st.st_size);
    return 0;
}

time_t fqhlp_get_file_mtime(const char* dir, const char* file)
{
    if (dir == nullptr || file == nullptr) {
        log_error("Invalid arguments");
        return -1;
    }
    if (strlen(dir) + strlen(file) > s_path_max - 1)
        return -1;
    std::string path = s_join(dir, file);
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        log_error("Could not stat %s: %s", path.c_str(), FQstrerror(errno));
        return -1;
    }
    return st.st_mtime;
}

char* fqhlp_FlattenPath(const char* path_in)
{
    static char flattened[s_path_max];

    if (path_in == nullptr || *path_in == '\0') {
        log_error("Invalid path argument provided");
        return nullptr;
    }
    size_t len = strnlen(path_in, sizeof(flattened));
    if (len >= sizeof(flattened)) {
        // A cut name could collide with another file's; refuse instead.
        log_error("Path too long to flatten (more than %zu characters)", sizeof(flattened) - 1);
        return nullptr;
    }
    memset(flattened, 0, sizeof(flattened));
    for (size_t i = 0; i < len; i++)
        flattened[i] = path_in[i] == '/' ? '_' : path_in[i];
    log_debug("Flattened \"%s\" to \"%s\"", path_in, flattened);
    return flattened;
}

int fqhlp_create_dir(const char* dirname, bool change_mode, mode_t mode)
{
    if (dirname == nullptr) {
        log_error("Invalid arguments");
        return -1;
    }
    if (!fqhlp_IsDir(dirname)) {
        if (mkdir(dirname, 0755) != 0) {
            log_error("Failed to create directory %s, %s", dirname, FQstrerror(errno));
            return -1;
        }
    }
    if (change_mode && chmod(dirname, mode) != 0) {
        log_error("Failed to chmod directory %s, %s", dirname, FQstrerror(errno));
        return -1;
    }
    return 0;
}

int fqhlp_RemoveDir(const char* which_dir)
{
    if (which_dir == nullptr)
        return 0;
    // "link/" would make the kernel follow the link despite O_NOFOLLOW.
    std::string root(which_dir);
    while (root.size() > 1 && root.back() == '/')
        root.pop_back();

    int fd = open(root.c_str(), s_dir_open_flags);
    if (fd < 0)
        return 0;  // not there, not a folder, or a link: nothing of ours to remove
    s_empty_dir(fd);
    return rmdir(root.c_str()) == 0 ? 0 : 1;
}

int copy_file(const char* source, const char* dest)
{
    struct stat st;
    if (source == nullptr || dest == nullptr || stat(source, &st) != 0)
        return -1;

    fq_fd_guard in(open(source, O_RDONLY | O_CLOEXEC));
    if (in.get() < 0) {
        log_error("%s %s", FQstrerror(errno), source);
        return -1;
    }
    // O_EXCL: never overwrite what is already there.
    fq_fd_guard out(open(dest, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, st.st_mode & 07777));
    if (out.get() < 0) {
        log_error("%s %s", FQstrerror(errno), dest);
        return -1;
    }

    int result = 0;
    char buf[4096];
    for (;;) {
        ssize_t nread = read(in.get(), buf, sizeof(buf));
        if (nread == 0)
            break;
        if (nread < 0) {
            if (errno == EINTR)
                continue;
            result = -1;
            break;
        }
        const char* p = buf;
        while (nread > 0) {
            ssize_t nwritten = write(out.get(), p, static_cast<size_t>(nread));
            if (nwritten >= 0) {
                nread -= nwritten;
                p += nwritten;
            } else if (errno != EINTR) {
                result = -1;
                break;
            }
        }
        if (result != 0)
            break;
    }

    // The caller reports errno of the copy, not of the clean-up.
    int saved = errno;
    fchmod(out.get(), 0755);
    errno = saved;
    return result;
}

int copy_dir_recursive(const char* source, const char* dest)
{
    if (source == nullptr || dest == nullptr) {
        log_error("Invalid arguments");
        return -1;
    }
    fq_dir_ptr dir(opendir(source));
    if (!dir) {
        log_error("Failed to open source dir %s", source);
        return -1;
    }
    log_debug("copying %s to %s", source, dest);
    if (chdir(source) != 0) {
        log_error("Failed to change directory to %s, %s", source, FQstrerror(errno));
        return -1;
    }
    if (!fqhlp_IsDir(dest)) {
        log_trace("%s does not yet exist", dest);
        if (fqhlp_create_dir(dest, true, 0750) != 0) {
            log_trace("Failed to create %s (%s", dest, FQstrerror(errno));
            return -1;
        }
    }
    if (!fqhlp_IsWritable(dest)) {
        log_error("%s is not writable (%d), %s", dest, errno, FQstrerror(errno));
        return -1;
    }

    for (;;) {
        errno = 0;
        struct dirent* de = readdir(dir.get());
        if (de == nullptr) {
            if (errno != 0) {
                log_error("Failed to read directory %s, %s", source, FQstrerror(errno));
                return -1;
            }
            return 0;
        }
        if (s_is_dot(de->d_name))
            continue;

        // The bare name, relative to source (the working directory), with links followed.
        struct stat st;
        if (stat(de->d_name, &st) != 0) {
            log_error("Failed to stat %s, %s", de->d_name, FQstrerror(errno));
            return -1;
        }
        std::string target = s_join(dest, de->d_name);
        if (S_ISDIR(st.st_mode)) {
            if (fqhlp_create_dir(target.c_str(), true, 0755) != 0)
                return -1;
            std::string subdir = s_join(source, de->d_name);
            if (copy_dir_recursive(subdir.c_str(), target.c_str()) != 0)
                return -1;
            if (chdir(source) != 0) {
                log_error("Failed to change directory to %s, %s", source, FQstrerror(errno));
                return -1;
            }
        } else {
            if (copy_file(de->d_name, target.c_str()) != 0) {
                log_error("error copying %s, %s", de->d_name, FQstrerror(errno));
                return -1;
            }
            if (chmod(target.c_str(), st.st_mode & 07777) != 0) {
                log_error("Failed to chmod file %s, %s", target.c_str(), FQstrerror(errno));
                return -1;
            }
        }
    }
}
