// Starting, watching and stopping the real programs in tests, and the files around them.
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

// Starts argv (argv[0] looked up in PATH) with stdout appended to out and stderr to err (they may
// be the same file); extra_env entries are "NAME=value" added to this process's environment. The
// child gets SIGTERM should the starting thread die first, so a crashed test leaves nothing
// running. The PID, or -1.
pid_t spawn_to(const std::vector<std::string>& argv, const std::string& out, const std::string& err,
               const std::vector<std::string>& extra_env = {});
// The same with stdout and stderr in files of their own in dir.
Child spawn(const std::vector<std::string>& argv, const std::string& dir,
            const std::vector<std::string>& extra_env = {});

// Runs a program to its end (killed after limit) with stdout and stderr together in *output; its
// exit status, or -1 if it could not run or had to be killed.
int run_program(const std::vector<std::string>& argv, std::string* output,
                std::chrono::milliseconds limit = std::chrono::milliseconds(30000));

// Waits for a child to end; true with its exit status (or 128+signal) in *status.
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
