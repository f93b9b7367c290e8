// The on-disk side of fq-av-quarantine. Every name in the directory is one the store made itself
// from the time and a random UUID; nothing a request says (object names, hosts, ids) ever becomes
// a path. All access goes through the directory's descriptor without following symbolic links,
// so neither a request nor a planted link can make it read or write outside the directory.
#include "quarantine_store.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sodium.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <algorithm>

namespace {

// "YYYYMMDDTHHMMSSZ-" and a lower-case UUID.
constexpr size_t s_stamp_len = 16;
constexpr size_t s_id_len = s_stamp_len + 1 + 36;
// A pass phrase file holds one line; anything larger is not one.
constexpr off_t s_passphrase_file_max = 65536;

bool s_id_char_ok(size_t i, char c)
{
    if (i < 8 || (i > 8 && i < 15))
        return c >= '0' && c <= '9';
    if (i == 8)
        return c == 'T';
    if (i == 15)
        return c == 'Z';
    if (i == 16)
        return c == '-';
    const size_t u = i - (s_stamp_len + 1);
    if (u == 8 || u == 13 || u == 18 || u == 23)
        return c == '-';
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
}

bool s_ends_with(const std::string& s, const char* suffix)
{
    const size_t n = strlen(suffix);
    return s.size() >= n && s.compare(s.size() - n, n, suffix) == 0;
}

std::string s_utc(time_t t, const char* format)
{
    struct tm tm;
    char buf[64] = "";
    if (gmtime_r(&t, &tm))
        strftime(buf, sizeof(buf), format, &tm);
    return buf;
}

std::string s_new_id()
{
    uuid_t u;
    uuid_generate(u);
    char text[37];
    uuid_unparse_lower(u, text);
    return s_utc(time(nullptr), "%Y%m%dT%H%M%SZ") + "-" + text;
}

// mkdir -p with mode 0700 for what it creates.
bool s_make_directory(const std::string& path, std::string* error)
{
    for (size_t pos = 1; pos <= path.size(); ++pos) {
        if (pos != path.size() && path[pos] != '/')
            continue;
        const std::string part = path.substr(0, pos);
        if (mkdir(part.c_str(), 0700) != 0 && errno != EEXIST) {
            *error = "cannot create " + part + ": " + strerror(errno);
            return false;
        }
    }
    return true;
}

bool s_read_all_at(int dir_fd, const std::string& name, off_t max, std::vector<unsigned char>* out,
                   std::string* error, bool follow_links = false)
{
    fq_fd_guard fd(openat(dir_fd, name.c_str(), O_RDONLY | O_CLOEXEC | (follow_links ? 0 : O_NOFOLLOW)));
    struct stat st;
    if (!fd || fstat(fd.get(), &st) != 0) {
        *error = "cannot open " + name + ": " + strerror(errno);
        return false;
    }
    if (!S_ISREG(st.st_mode) || (max > 0 && st.st_size > max)) {
        *error = name + (S_ISREG(st.st_mode) ? " is too large" : " is not a regular file");
        return false;
    }
    out->assign(static_cast<size_t>(st.st_size), 0);
    size_t done = 0;
    while (done < out->size()) {
        const ssize_t r = read(fd.get(), out->data() + done, out->size() - done);
        if (r < 0 && errno == EINTR)
            continue;
        if (r <= 0) {
            *error = "cannot read " + name + ": " + (r < 0 ? strerror(errno) : "the file became shorter");
            return false;
        }
        done += static_cast<size_t>(r);
    }
    return true;
}

// The modification time of a name in the directory, without following a link; 0 if unknown.
time_t s_mtime_at(int dir_fd, const std::string& name)
{
    struct stat st;
    return fstatat(dir_fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 ? st.st_mtime : 0;
}

// Every name in the directory. The listing works on a duplicate of the descriptor, which
// shares its position with the original: it starts from the top each time.
std::vector<std::string> s_names(int dir_fd)
{
    std::vector<std::string> names;
    const int dup_fd = fcntl(dir_fd, F_DUPFD_CLOEXEC, 0);
    DIR* d = dup_fd >= 0 ? fdopendir(dup_fd) : nullptr;
    if (!d) {
        if (dup_fd >= 0)
            close(dup_fd);
        return names;
    }
    rewinddir(d);
    while (struct dirent* e = readdir(d))
        names.push_back(e->d_name);
    closedir(d);
    return names;
}

}  // namespace

bool qstore_parse_id(const std::string& text, std::string* id)
{
    std::string candidate = s_ends_with(text, ".bin") ? text.substr(0, text.size() - 4) : text;
    if (candidate.size() != s_id_len)
        return false;
    for (size_t i = 0; i < candidate.size(); ++i)
        if (!s_id_char_ok(i, candidate[i]))
            return false;
    *id = candidate;
    return true;
}

std::string qstore_sha256_hex(const unsigned char* data, size_t len)
{
    static const unsigned char s_nothing = 0;
    unsigned char digest[crypto_hash_sha256_BYTES];
    crypto_hash_sha256(digest, len ? data : &s_nothing, len);
    char hex[2 * crypto_hash_sha256_BYTES + 1];
    sodium_bin2hex(hex, sizeof(hex), digest, sizeof(digest));
    return hex;
}

bool qstore_read_passphrase_file(const char* path, std::string* passphrase, std::string* error)
{
    std::vector<unsigned char> bytes;
    std::string why;
    // Secrets are often mounted behind links: this one file may be reached through them.
    if (!s_read_all_at(AT_FDCWD, path, s_passphrase_file_max, &bytes, &why, true)) {
        *error = "cannot read the pass phrase file: " + why;
        return false;
    }
    std::string text(bytes.begin(), bytes.end());
    sodium_memzero(bytes.data(), bytes.size());
    // An editor's line end is not part of the pass phrase.
    if (!text.empty() && text.back() == '\n')
        text.pop_back();
    if (!text.empty() && text.back() == '\r')
        text.pop_back();
    *passphrase = std::move(text);
    return true;
}

bool qstore_write_new_file(int dir_fd, const std::string& name, const unsigned char* data, size_t len, mode_t mode,
                           std::string* error)
{
    const std::string tmp = "." + name + ".tmp";
    fq_fd_guard fd(openat(dir_fd, tmp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    if (!fd) {
        *error = "cannot create " + tmp + ": " + strerror(errno);
        return false;
    }
    auto fail = [&](const std::string& what, int err) {
        *error = what + ": " + strerror(err);
        fd.reset();
        unlinkat(dir_fd, tmp.c_str(), 0);
        return false;
    };
    size_t done = 0;
    while (done < len) {
        const ssize_t w = write(fd.get(), data + done, len - done);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0)
            return fail("cannot write " + tmp, w < 0 ? errno : EIO);
        done += static_cast<size_t>(w);
    }
    if (fsync(fd.get()) != 0)
        return fail("cannot write " + tmp, errno);
    if (close(fd.release()) != 0)
        return fail("cannot write " + tmp, errno);
    if (renameat2(dir_fd, tmp.c_str(), dir_fd, name.c_str(), RENAME_NOREPLACE) != 0)
        return fail("cannot create " + name, errno);
    fsync(dir_fd);
    return true;
}

bool QuarantineStore::open(const std::string& path, bool create, std::string* error)
{
    if (path.empty()) {
        *error = "no directory given";
        return false;
    }
    if (create && !s_make_directory(path, error))
        return false;
    fd_ = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd_ < 0) {
        *error = path + " is not a directory: " + strerror(errno);
        return false;
    }
    if (create && faccessat(fd_, ".", W_OK | X_OK, AT_EACCESS) != 0) {
        *error = path + " is not writable: " + strerror(errno);
        return false;
    }
    return true;
}

QuarantineStore::~QuarantineStore()
{
    if (fd_ >= 0)
        close(fd_);
}

bool QuarantineStore::put(json_object* meta, const unsigned char* data, size_t len, std::string* stored_name,
                          std::string* error)
{
    static const unsigned char s_nothing = 0;
    const std::string id = s_new_id();
    const std::string object_name = id + ".bin";
    json_object_object_add(meta, "QuarantineFilename", json_object_new_string(object_name.c_str()));
    std::string text =
        json_object_to_json_string_ext(meta, JSON_C_TO_STRING_PRETTY | JSON_C_TO_STRING_NOSLASHESCAPE);
    text += "\n";
    if (!qstore_write_new_file(fd_, object_name, len ? data : &s_nothing, len, 0600, error))
        return false;
    if (!qstore_write_new_file(fd_, id + ".json", reinterpret_cast<const unsigned char*>(text.data()), text.size(),
                               0600, error)) {
        unlinkat(fd_, object_name.c_str(), 0);
        return false;
    }
    *stored_name = object_name;
    return true;
}

std::vector<std::string> QuarantineStore::ids() const
{
    std::vector<std::string> out;
    std::string id;
    for (const std::string& name : s_names(fd_))
        if (s_ends_with(name, ".json") && qstore_parse_id(name.substr(0, name.size() - 5), &id))
            out.push_back(id);
    std::sort(out.begin(), out.end());
    return out;
}

fq_json_ptr QuarantineStore::metadata(const std::string& id, std::string* error) const
{
    std::vector<unsigned char> bytes;
    if (!s_read_all_at(fd_, id + ".json", 1 << 24, &bytes, error))
        return nullptr;
    bytes.push_back(0);
    fq_json_ptr meta(json_tokener_parse(reinterpret_cast<const char*>(bytes.data())));
    if (!meta || !json_object_is_type(meta.get(), json_type_object)) {
        *error = id + ".json is not a JSON object";
        return nullptr;
    }
    return meta;
}

bool QuarantineStore::read_object(const std::string& id, std::vector<unsigned char>* bytes, std::string* error) const
{
    return s_read_all_at(fd_, id + ".bin", 0, bytes, error);
}

time_t QuarantineStore::stored_at(const std::string& id) const
{
    std::string error;
    fq_json_ptr meta = metadata(id, &error);
    json_object* v = nullptr;
    struct tm tm = {};
    if (meta && json_object_object_get_ex(meta.get(), "StoredAt", &v)) {
        const char* text = json_object_get_string(v);
        const char* end = text ? strptime(text, "%Y-%m-%dT%H:%M:%SZ", &tm) : nullptr;
        if (end && *end == '\0')
            return timegm(&tm);
    }
    return s_mtime_at(fd_, id + ".json");
}

std::vector<std::string> QuarantineStore::purge(time_t cutoff, bool dry_run, int* removed_files, std::string* error)
{
    std::vector<std::string> removed;
    *removed_files = 0;
    auto remove = [&](const std::string& name) {
        if (dry_run || unlinkat(fd_, name.c_str(), 0) == 0 || errno == ENOENT) {
            ++*removed_files;
            return true;
        }
        *error = "cannot remove " + name + ": " + strerror(errno);
        return false;
    };
    for (const std::string& id : ids()) {
        if (stored_at(id) >= cutoff)
            continue;
        // The metadata first: from then on the object is no longer listed.
        if (!remove(id + ".json") || !remove(id + ".bin"))
            return removed;
        removed.push_back(id);
    }

    // Remains of stores that did not finish: an object whose metadata never came, hidden
    // temporary files. Judged by their own time.
    std::vector<std::string> leftovers;
    std::string id;
    for (const std::string& name : s_names(fd_)) {
        const bool temporary = name.size() > 5 && name[0] == '.' && s_ends_with(name, ".tmp");
        const std::string base = temporary ? name.substr(1, name.size() - 5) : name;
        const bool ours = (s_ends_with(base, ".bin") && qstore_parse_id(base, &id)) ||
                          (s_ends_with(base, ".json") && qstore_parse_id(base.substr(0, base.size() - 5), &id));
        if (!ours)
            continue;
        struct stat st;
        const bool complete_object = !temporary && s_ends_with(base, ".bin") &&
                                     fstatat(fd_, (id + ".json").c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0;
        if ((temporary || s_ends_with(base, ".bin")) && !complete_object && s_mtime_at(fd_, name) < cutoff)
            leftovers.push_back(name);
    }
    for (const std::string& name : leftovers)
        if (!remove(name))
            break;
    return removed;
}
