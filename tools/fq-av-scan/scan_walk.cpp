// fq-av-scan's walk: the files a command line names, in a stable order. A link named on the command
// line is followed; inside a tree links are followed only when asked, every directory is entered once
// so that loops end, and a path that cannot be read is reported on its own instead of ending the run.
#include "scan_walk.h"

#include <dirent.h>
#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <set>
#include <utility>

namespace fqscan {

namespace {

using DirId = std::pair<dev_t, ino_t>;

std::string s_join(const std::string& dir, const std::string& name)
{
    if (!dir.empty() && dir.back() == '/')
        return dir + name;
    return dir + "/" + name;
}

// "dir///" -> "dir", "/" stays.
std::string s_trim_slashes(std::string p)
{
    while (p.size() > 1 && p.back() == '/')
        p.pop_back();
    return p;
}

WalkItem s_error(const std::string& path, const std::string& text)
{
    WalkItem w;
    w.path = path;
    w.error = text;
    return w;
}

WalkItem s_skip(const std::string& path, const std::string& why)
{
    WalkItem w;
    w.path = path;
    w.skipped = why;
    return w;
}

void s_walk_dir(const std::string& dir, bool follow, std::set<DirId>& seen, std::vector<WalkItem>& out)
{
    DIR* d = opendir(dir.c_str());
    if (!d) {
        out.push_back(s_error(dir, strerror(errno)));
        return;
    }
    std::vector<std::string> names;
    errno = 0;
    while (struct dirent* e = readdir(d)) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0)
            continue;
        names.emplace_back(e->d_name);
        errno = 0;
    }
    const int read_errno = errno;
    closedir(d);
    if (read_errno != 0)
        out.push_back(s_error(dir, std::string("cannot read directory: ") + strerror(read_errno)));
    std::sort(names.begin(), names.end());

    for (const std::string& name : names) {
        const std::string path = s_join(dir, name);
        struct stat st;
        if (lstat(path.c_str(), &st) != 0) {
            // Gone between the listing and now: nothing to scan.
            if (errno != ENOENT)
                out.push_back(s_error(path, strerror(errno)));
            continue;
        }
        bool via_link = false;
        if (S_ISLNK(st.st_mode)) {
            if (!follow) {
                out.push_back(s_skip(path, "symbolic link"));
                continue;
            }
            if (stat(path.c_str(), &st) != 0) {
                out.push_back(s_error(path, std::string("broken symbolic link: ") + strerror(errno)));
                continue;
            }
            via_link = true;
        }
        if (S_ISDIR(st.st_mode)) {
            if (!seen.insert({st.st_dev, st.st_ino}).second) {
                out.push_back(s_skip(path, "directory already scanned"));
                continue;
            }
            s_walk_dir(path, follow, seen, out);
        } else if (S_ISREG(st.st_mode)) {
            WalkItem w;
            w.path = path;
            w.nofollow = !via_link;
            out.push_back(std::move(w));
        } else {
            out.push_back(s_skip(path, "not a regular file"));
        }
    }
}

}  // namespace

std::vector<WalkItem> collect_files(const std::vector<std::string>& args, bool follow)
{
    std::vector<WalkItem> out;
    std::set<DirId> seen;
    for (const std::string& arg : args) {
        const std::string path = s_trim_slashes(arg);
        struct stat st;
        if (path.empty() || stat(path.c_str(), &st) != 0) {
            out.push_back(s_error(path.empty() ? arg : path, strerror(path.empty() ? ENOENT : errno)));
            continue;
        }
        if (S_ISDIR(st.st_mode)) {
            if (!seen.insert({st.st_dev, st.st_ino}).second)
                continue;  // named twice, or inside a tree named before
            s_walk_dir(path, follow, seen, out);
        } else if (S_ISREG(st.st_mode)) {
            WalkItem w;
            w.path = path;
            out.push_back(std::move(w));
        } else {
            out.push_back(s_error(path, "not a regular file"));
        }
    }
    return out;
}

}  // namespace fqscan
