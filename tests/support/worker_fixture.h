// The real worker binary beside a real broker, for process tests.
#pragma once

#include <json-c/json.h>
#include <nats/nats.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "nats_server.h"
#include "process_util.h"

namespace fqtest {

// A client's scan job for the worker with every member it insists on; extra members (", \"K\": v")
// go at the end.
std::string worker_job(const std::string& name, size_t len, const std::string& services,
                       const std::string& extra = "");

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
    // A client's scan through the worker: the object staged, the job sent to fq-av-scanproxy with
    // its key, the staging removed again. The reply text, or nullopt.
    std::optional<std::string> scan(const std::string& job, const std::string& bytes, int timeout_ms = 15000) const;
    // The value under key in the registry bucket, or nullopt; *revision gets the entry's revision.
    std::optional<std::string> registry_get(const std::string& key, uint64_t* revision = nullptr) const;

    // fq-av-scanproxy.<host>_<pid>
    static std::string control_subject(pid_t pid);

    // Stages bytes in fq-av-scan-data as a client would; the key, or "" on failure.
    std::string stage(const std::string& bytes) const;
    // A complete scan job for a staged object of len bytes, with the given Services member
    // (taken over) and the staged key; SCANTIMEOUT in ms.
    static std::string scan_job(const std::string& key, json_object* services, size_t len, int scan_timeout_ms = 5000);
    // ReturnCode and Error of a reply; -99999 and "no reply" without one.
    struct Verdict {
        int rc = -99999;
        std::string error = "no reply";
    };
    static Verdict verdict(const std::optional<std::string>& reply);
    // Whether the trace file's named semaphore is still in /dev/shm.
    bool trace_semaphore_left() const;

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
