// What the benchmark starts around itself: child processes that die with it, a broker with its
// monitoring port, and the figures read from the broker and from /proc.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "nats_server.h"

namespace fqbench {

// Starts argv (looked up in PATH) with stdout and stderr appended to log. The child gets SIGTERM
// should the benchmark die first, and on SIGINT or SIGTERM (see install_interrupt_handlers).
pid_t spawn_child(const std::vector<std::string>& argv, const std::string& log);

// Ends a child this process started, by its PID: SIGTERM, a bounded wait, then SIGKILL.
void stop_child(pid_t pid);

// SIGINT, SIGTERM and SIGHUP: every child gets SIGTERM at once and interrupted() turns true, so the
// load loops end and the normal clean-up runs.
void install_interrupt_handlers();
bool interrupted();

// Stops a child when it goes out of scope, on every path.
class ChildGuard {
public:
    ChildGuard() = default;
    explicit ChildGuard(pid_t pid) : pid_(pid) {}
    ~ChildGuard() { stop(); }
    ChildGuard(const ChildGuard&) = delete;
    ChildGuard& operator=(const ChildGuard&) = delete;
    void reset(pid_t pid)
    {
        stop();
        pid_ = pid;
    }
    void stop();
    // SIGTERM and a wait of up to limit_ms: the exit status (128 + signal for a signal), or -1
    // when the child had to be killed. The guard is empty afterwards.
    int terminate(int limit_ms);
    pid_t pid() const { return pid_; }
    bool alive() const;

private:
    pid_t pid_ = -1;
};

// Message and byte counters of the whole server, as /varz reports them.
struct ServerCounters {
    int64_t in_msgs = 0;
    int64_t out_msgs = 0;
    int64_t in_bytes = 0;
    int64_t out_bytes = 0;
};

// The test harness's nats-server -js on free loopback ports, with its monitoring port, stopped
// like the other children on an interrupt.
class Broker {
public:
    Broker();
    ~Broker() { stop(); }
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;

    bool start(std::string* error);
    void stop();
    std::string url() const { return server_.url(); }
    pid_t pid() const { return server_.pid(); }
    const fqtest::NatsServer& server() const { return server_; }
    // Reads /varz; false when the server did not answer.
    bool counters(ServerCounters* out) const;
    // "nats-server: v2.9.10" as the binary reports itself.
    static std::string version();

private:
    fqtest::NatsServer server_;
};

// A plain HTTP/1.0 GET to 127.0.0.1:port; the body, or empty on failure.
std::string http_get_local(int port, const std::string& path);
// A number member of a JSON text without parsing the rest ("in_bytes": 123); -1 when absent.
int64_t json_number_member(const std::string& json, const std::string& name);

// VmHWM / VmRSS of a process in KiB, -1 when it can't be read.
long proc_status_kib(pid_t pid, const char* field);
// User plus system CPU time of a process so far in milliseconds, -1 when it can't be read.
double proc_cpu_ms(pid_t pid);

}  // namespace fqbench
