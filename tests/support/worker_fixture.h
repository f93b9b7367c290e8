// The real worker binary beside a real broker, for process tests.
#pragma once

#include <nats/nats.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "nats_server.h"
#include "process_util.h"

namespace fqtest {

class WorkerEnv {
public:
    // with_control: an in-test fq-av-worker-control answers pings from the start.
    explicit WorkerEnv(bool with_control = true);
    ~WorkerEnv();
    WorkerEnv(const WorkerEnv&) = delete;
    WorkerEnv& operator=(const WorkerEnv&) = delete;

    bool ok() const { return ok_; }
    const std::string& error() const { return error_; }

    // Starts answering as fq-av-worker-control.
    void start_control();

    // Worker command line: binary, --basedir, --broker, --tracefile, --tracelevel 6, then extra.
    std::vector<std::string> args(const std::vector<std::string>& extra) const;
    Child spawn_worker(const std::vector<std::string>& extra, const std::vector<std::string>& env = {});

    bool trace_has(const std::string& text) const;
    std::string trace_text() const { return read_file(trace); }
    // The worker has finished its start-up: its "ready with" status line is in the trace, and the
    // control handler after it has subscribed.
    bool wait_ready(std::chrono::milliseconds limit = std::chrono::milliseconds(30000)) const;

    // A request on the broker; the reply text, or nullopt on time-out or no responders.
    std::optional<std::string> request(const std::string& subject, const std::string& body,
                                       int timeout_ms = 2000) const;
    // The value under key in the registry bucket, or nullopt; *revision gets the entry's revision.
    std::optional<std::string> registry_get(const std::string& key, uint64_t* revision = nullptr) const;

    // fq-av-scanproxy.<host>_<pid>
    static std::string control_subject(pid_t pid);

    TempDir dir;
    NatsServer server;
    std::string basedir;
    std::string trace;
    natsConnection* peer = nullptr;

private:
    std::unique_ptr<Responder> control_;
    bool ok_ = false;
    std::string error_;
};

}  // namespace fqtest
