// fq-av-scan: which files a command line names.
#pragma once

#include <string>
#include <vector>

namespace fqscan {

struct WalkItem {
    std::string path;
    std::string error;    // set: report this path as an error, do not scan it
    std::string skipped;  // set: not scanned on purpose (shown with --verbose)
    bool nofollow = false;  // met as a regular file inside a tree: must not turn into a link before it is opened
};

// The files of each argument, in order: a file as it is (a link named on the command line is
// followed), a directory recursively with its entries sorted by name. Inside a tree, symbolic
// links are not followed unless follow is set; whatever an in-tree link points at inside the
// tree is met at its own place anyway. Directories are entered once each, so loops end.
std::vector<WalkItem> collect_files(const std::vector<std::string>& args, bool follow);

}  // namespace fqscan
