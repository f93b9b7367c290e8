#include "process_util.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
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

Child spawn(const std::vector<std::string>& argv, const std::string& dir, const std::vector<std::string>& extra_env)
{
    static int counter = 0;
    ++counter;
    Child c;
    c.stdout_path = dir + "/stdout." + std::to_string(counter);
    c.stderr_path = dir + "/stderr." + std::to_string(counter);

    std::vector<std::string> env;
    for (char** e = environ; *e; ++e)
        env.emplace_back(*e);
    for (const auto& e : extra_env)
        env.push_back(e);

    pid_t pid = fork();
    if (pid < 0)
        throw std::runtime_error("fork failed");
    if (pid == 0) {
        int out = open(c.stdout_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int err = open(c.stderr_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int in = open("/dev/null", O_RDONLY);
        if (out < 0 || err < 0 || in < 0)
            _exit(127);
        dup2(in, 0);
        dup2(out, 1);
        dup2(err, 2);
        std::vector<char*> args;
        for (const auto& a : argv)
            args.push_back(const_cast<char*>(a.c_str()));
        args.push_back(nullptr);
        std::vector<char*> envp;
        for (const auto& e : env)
            envp.push_back(const_cast<char*>(e.c_str()));
        envp.push_back(nullptr);
        execve(args[0], args.data(), envp.data());
        _exit(127);
    }
    c.pid = pid;
    return c;
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
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

}  // namespace fqtest
