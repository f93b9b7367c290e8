// Starting, watching and stopping the real programs in tests.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace fqtest {

// A temporary directory, removed with everything below it when the object goes.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

struct Child {
    pid_t pid = -1;
    std::string stdout_path;
    std::string stderr_path;
};

// Starts argv[0] with the given arguments; stdout and stderr go to files in dir.
// extra_env entries are "NAME=value" added to the test's environment.
Child spawn(const std::vector<std::string>& argv, const std::string& dir,
            const std::vector<std::string>& extra_env = {});

// Waits for the child to end; true with its exit status (or 128+signal) in *status.
bool wait_exit(pid_t pid, std::chrono::milliseconds limit, int* status);

// Ends a process this test started: SIGTERM, then SIGKILL after the limit.
void stop_process(pid_t pid, std::chrono::milliseconds limit = std::chrono::milliseconds(5000));

bool process_alive(pid_t pid);

std::string read_file(const std::string& path);
void write_file(const std::string& path, const std::string& content);
// The names in a directory (without . and ..), sorted; empty if it cannot be read.
std::vector<std::string> list_dir(const std::string& dir);

// Polls cond until it holds or the limit has passed.
bool wait_until(const std::function<bool()>& cond, std::chrono::milliseconds limit);

}  // namespace fqtest
