#include "process_util.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace fqtest {

TempDir::TempDir()
{
    char tmpl[] = "/tmp/fqtest.XXXXXX";
    if (!mkdtemp(tmpl))
        throw std::runtime_error("mkdtemp failed");
    path_ = tmpl;
}

TempDir::~TempDir()
{
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

pid_t spawn_to(const std::vector<std::string>& argv, const std::string& out, const std::string& err,
               const std::vector<std::string>& extra_env)
{
    // Everything the child needs is made before the fork: the test process has other threads.
    std::vector<char*> args;
    for (const auto& a : argv)
        args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e)
        env.emplace_back(*e);
    env.insert(env.end(), extra_env.begin(), extra_env.end());
    std::vector<char*> envp;
    for (auto& e : env)
        envp.push_back(e.data());
    envp.push_back(nullptr);
    const int flags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC;
    const int out_fd = open(out.c_str(), flags, 0644);
    const int err_fd = err == out ? out_fd : open(err.c_str(), flags, 0644);
    const int in_fd = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != parent || out_fd < 0 || err_fd < 0 || in_fd < 0)
            _exit(127);
        dup2(in_fd, 0);
        dup2(out_fd, 1);
        dup2(err_fd, 2);
        execvpe(args[0], args.data(), envp.data());
        _exit(127);
    }
    for (int fd : {out_fd, err == out ? -1 : err_fd, in_fd})
        if (fd >= 0)
            close(fd);
    return pid;
}

Child spawn(const std::vector<std::string>& argv, const std::string& dir, const std::vector<std::string>& extra_env)
{
    static int counter = 0;
    ++counter;
    Child c;
    c.stdout_path = dir + "/stdout." + std::to_string(counter);
    c.stderr_path = dir + "/stderr." + std::to_string(counter);
    c.pid = spawn_to(argv, c.stdout_path, c.stderr_path, extra_env);
    if (c.pid < 0)
        throw std::runtime_error("fork failed");
    return c;
}

int run_program(const std::vector<std::string>& argv, std::string* output, std::chrono::milliseconds limit)
{
    TempDir dir;
    const std::string log = dir / "output";
    const pid_t pid = spawn_to(argv, log, log);
    int st = 0;
    const bool done = pid > 0 && wait_until([&] { return waitpid(pid, &st, WNOHANG) == pid; }, limit);
    if (pid > 0 && !done) {
        kill(pid, SIGKILL);
        waitpid(pid, &st, 0);
    }
    if (output)
        *output = read_file(log);
    return done && WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

bool wait_exit(pid_t pid, std::chrono::milliseconds limit, int* status)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        int st = 0;
        pid_t r = waitpid(pid, &st, WNOHANG);
        if (r == pid) {
            if (status)
                *status = WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
            return true;
        }
        if (r < 0 && errno != EINTR)
            return false;
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

bool process_alive(pid_t pid)
{
    if (pid <= 0)
        return false;
    // A zombie child counts as ended.
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(stat, line))
        return false;
    const size_t close_paren = line.rfind(')');
    return close_paren != std::string::npos && close_paren + 2 < line.size() && line[close_paren + 2] != 'Z';
}

void stop_process(pid_t pid, std::chrono::milliseconds limit)
{
    if (pid <= 0)
        return;
    kill(pid, SIGTERM);
    if (wait_exit(pid, limit, nullptr))
        return;
    // Not our child (e.g. the daemon's forked worker): poll /proc instead.
    if (wait_until([&] { return !process_alive(pid); }, limit))
        return;
    kill(pid, SIGKILL);
    wait_exit(pid, std::chrono::milliseconds(2000), nullptr);
}

std::string read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void write_file(const std::string& path, const std::string& content)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

std::vector<std::string> list_dir(const std::string& dir)
{
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto& e : std::filesystem::directory_iterator(dir, ec))
        names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
}

bool wait_until(const std::function<bool()>& cond, std::chrono::milliseconds limit)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        if (cond())
            return true;
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
}

}  // namespace fqtest
