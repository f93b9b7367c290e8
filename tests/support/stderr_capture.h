// Sends what the process writes to stderr (the log's screen lines) into a file while it lives.
#pragma once

#include <string>

namespace fqtest {

class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture();
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;
    // What was captured so far.
    std::string text() const;
    // Puts stderr back and returns everything captured.
    std::string stop();
    // Occurrences of needle in what was captured so far.
    int count(const std::string& needle) const;
    bool contains(const std::string& needle) const { return count(needle) > 0; }

private:
    std::string path_;
    int saved_fd_ = -1;
};

}  // namespace fqtest
