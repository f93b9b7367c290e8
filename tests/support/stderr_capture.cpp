#include "stderr_capture.h"

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "process_util.h"

namespace fqtest {

StderrCapture::StderrCapture()
{
    char tmpl[] = "/tmp/fq-stderr.XXXXXX";
    int fd = mkstemp(tmpl);
    if (fd < 0)
        return;
    path_ = tmpl;
    fflush(stderr);
    saved_fd_ = dup(2);
    dup2(fd, 2);
    close(fd);
}

StderrCapture::~StderrCapture()
{
    stop();
    if (!path_.empty())
        unlink(path_.c_str());
}

std::string StderrCapture::text() const
{
    fflush(stderr);
    return path_.empty() ? "" : read_file(path_);
}

std::string StderrCapture::stop()
{
    if (saved_fd_ >= 0) {
        fflush(stderr);
        dup2(saved_fd_, 2);
        close(saved_fd_);
        saved_fd_ = -1;
    }
    return text();
}

int StderrCapture::count(const std::string& needle) const
{
    const std::string t = text();
    int n = 0;
    for (size_t pos = t.find(needle); pos != std::string::npos; pos = t.find(needle, pos + needle.size()))
        ++n;
    return n;
}

}  // namespace fqtest
