#include "bench_env.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <fstream>
#include <sstream>

#include "nats_server.h"
#include "process_util.h"

namespace fqbench {

namespace {

// PIDs of the running children, readable from a signal handler.
constexpr int s_max_children = 16;
std::atomic<pid_t> s_children[s_max_children];
std::atomic<int> s_interrupted{0};

void s_register(pid_t pid)
{
    for (auto& slot : s_children) {
        pid_t none = 0;
        if (slot.compare_exchange_strong(none, pid))
            return;
    }
}

void s_unregister(pid_t pid)
{
    for (auto& slot : s_children) {
        pid_t expected = pid;
        if (slot.compare_exchange_strong(expected, 0))
            return;
    }
}

void s_on_interrupt(int)
{
    s_interrupted = 1;
    for (auto& slot : s_children) {
        const pid_t pid = slot.load();
        if (pid > 0)
            kill(pid, SIGTERM);
    }
}

}  // namespace

pid_t spawn_child(const std::vector<std::string>& argv, const std::string& log)
{
    const pid_t pid = fqtest::spawn_to(argv, log, log);
    if (pid > 0)
        s_register(pid);
    return pid;
}

void stop_child(pid_t pid)
{
    if (pid <= 0)
        return;
    fqtest::stop_process(pid, std::chrono::milliseconds(10000));
    s_unregister(pid);
}

void install_interrupt_handlers()
{
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = s_on_interrupt;
    sigemptyset(&sa.sa_mask);
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        sigaction(sig, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

bool interrupted()
{
    return s_interrupted != 0;
}

void ChildGuard::stop()
{
    if (pid_ > 0)
        stop_child(pid_);
    pid_ = -1;
}

int ChildGuard::terminate(int limit_ms)
{
    if (pid_ <= 0)
        return -1;
    kill(pid_, SIGTERM);
    int status = -1;
    if (!fqtest::wait_exit(pid_, std::chrono::milliseconds(limit_ms), &status)) {
        kill(pid_, SIGKILL);
        fqtest::wait_exit(pid_, std::chrono::milliseconds(5000), nullptr);
        status = -1;
    }
    s_unregister(pid_);
    pid_ = -1;
    return status;
}

bool ChildGuard::alive() const
{
    return fqtest::process_alive(pid_);
}

Broker::Broker() : server_([] {
    fqtest::NatsServerOptions o;
    o.monitor = true;
    return o;
}())
{
}

bool Broker::start(std::string* error)
{
    if (!server_.start(error))
        return false;
    s_register(server_.pid());
    const bool up = fqtest::wait_until([&] { return !http_get_local(server_.monitor_port(), "/varz").empty(); },
                                       std::chrono::milliseconds(15000));
    if (!up) {
        *error = "nats-server's monitoring port did not answer: " + fqtest::read_file(server_.log_path());
        stop();
    }
    return up;
}

void Broker::stop()
{
    s_unregister(server_.pid());
    server_.stop();
}

bool Broker::counters(ServerCounters* out) const
{
    const std::string body = http_get_local(server_.monitor_port(), "/varz");
    if (body.empty())
        return false;
    out->in_msgs = json_number_member(body, "in_msgs");
    out->out_msgs = json_number_member(body, "out_msgs");
    out->in_bytes = json_number_member(body, "in_bytes");
    out->out_bytes = json_number_member(body, "out_bytes");
    return out->in_bytes >= 0 && out->out_bytes >= 0;
}

std::string Broker::version()
{
    std::string text;
    if (fqtest::run_program({"nats-server", "--version"}, &text, std::chrono::milliseconds(5000)) != 0)
        return "unknown";
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r'))
        text.pop_back();
    return text;
}

std::string http_get_local(int port, const std::string& path)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return "";
    struct timeval tv = {2, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
    struct sockaddr_in addr {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    std::string response;
    if (connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) == 0) {
        const std::string request = "GET " + path + " HTTP/1.0\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n";
        if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size())) {
            char buf[8192];
            for (;;) {
                const ssize_t n = recv(fd, buf, sizeof(buf), 0);
                if (n > 0) {
                    response.append(buf, static_cast<size_t>(n));
                    continue;
                }
                if (n < 0 && errno == EINTR)
                    continue;
                break;
            }
        }
    }
    close(fd);
    if (response.compare(0, 9, "HTTP/1.0 ") != 0 && response.compare(0, 9, "HTTP/1.1 ") != 0)
        return "";
    if (response.compare(9, 3, "200") != 0)
        return "";
    const size_t body = response.find("\r\n\r\n");
    return body == std::string::npos ? "" : response.substr(body + 4);
}

int64_t json_number_member(const std::string& json, const std::string& name)
{
    const std::string needle = "\"" + name + "\"";
    size_t pos = json.find(needle);
    if (pos == std::string::npos)
        return -1;
    pos = json.find(':', pos + needle.size());
    if (pos == std::string::npos)
        return -1;
    ++pos;
    while (pos < json.size() && (json[pos] == ' ' || json[pos] == '\t' || json[pos] == '\n' || json[pos] == '\r'))
        ++pos;
    char* end = nullptr;
    const long long v = strtoll(json.c_str() + pos, &end, 10);
    if (end == json.c_str() + pos)
        return -1;
    return v;
}

long proc_status_kib(pid_t pid, const char* field)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    const std::string prefix = std::string(field) + ":";
    while (std::getline(in, line)) {
        if (line.compare(0, prefix.size(), prefix) == 0)
            return strtol(line.c_str() + prefix.size(), nullptr, 10);
    }
    return -1;
}

double proc_cpu_ms(pid_t pid)
{
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(in, line))
        return -1;
    // The fields after the command name, which may hold blanks: state is the first, utime the 12th.
    const size_t close = line.rfind(')');
    if (close == std::string::npos)
        return -1;
    std::istringstream rest(line.substr(close + 2));
    std::string field;
    unsigned long long utime = 0;
    unsigned long long stime = 0;
    for (int i = 1; i <= 13 && rest >> field; ++i) {
        if (i == 12)
            utime = strtoull(field.c_str(), nullptr, 10);
        if (i == 13)
            stime = strtoull(field.c_str(), nullptr, 10);
    }
    const long ticks = sysconf(_SC_CLK_TCK);
    return ticks > 0 ? static_cast<double>(utime + stime) * 1000.0 / static_cast<double>(ticks) : -1;
}

}  // namespace fqbench
