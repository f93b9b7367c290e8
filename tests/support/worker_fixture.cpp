#include "worker_fixture.h"

#include <semaphore.h>
#include <sys/stat.h>
#include <unistd.h>

namespace fqtest {

WorkerEnv::WorkerEnv(bool with_control)
{
    basedir = dir / "base";
    trace = dir / "trace.log";
    mkdir(basedir.c_str(), 0755);
    mkdir((basedir + "/fq-av-scanproxy").c_str(), 0755);
    mkdir((basedir + "/run").c_str(), 0755);
    if (!server.start(&error_) || !server.provision(nullptr, nullptr, &error_))
        return;
    peer = server.connect_peer(&error_);
    if (!peer)
        return;
    if (with_control)
        start_control();
    ok_ = true;
}

WorkerEnv::~WorkerEnv()
{
    control_.reset();
    if (peer)
        natsConnection_Destroy(peer);
    server.stop();
    // The trace file's lock is a named semaphore that outlives the worker.
    std::string name = "fq_log_" + trace;
    for (char& ch : name)
        if (ch == '/')
            ch = '_';
    sem_unlink(name.c_str());
}

void WorkerEnv::start_control()
{
    control_ = std::make_unique<Responder>(peer, "fq-av-worker-control",
                                           [](const std::string&) { return std::string("{\"ReturnCode\": 0}"); });
}

std::vector<std::string> WorkerEnv::args(const std::vector<std::string>& extra) const
{
    std::vector<std::string> a = {FQ_WORKER_BINARY, "--basedir", basedir, "--broker", server.url(), "--tracefile",
                                  trace, "--tracelevel", "6"};
    a.insert(a.end(), extra.begin(), extra.end());
    return a;
}

Child WorkerEnv::spawn_worker(const std::vector<std::string>& extra, const std::vector<std::string>& env)
{
    return spawn(args(extra), dir.path(), env);
}

bool WorkerEnv::trace_has(const std::string& text) const
{
    return read_file(trace).find(text) != std::string::npos;
}

bool WorkerEnv::wait_ready(std::chrono::milliseconds limit) const
{
    // The status line comes just before the control handler subscribes: wait for both.
    return wait_until(
        [&] {
            const std::string text = trace_text();
            const size_t at = text.find("ready with");
            return at != std::string::npos &&
                   text.find("handler thread(s) for 'fq-av-scanproxy.", at) != std::string::npos;
        },
        limit);
}

std::optional<std::string> WorkerEnv::request(const std::string& subject, const std::string& body,
                                              int timeout_ms) const
{
    natsMsg* reply = nullptr;
    if (natsConnection_RequestString(&reply, peer, subject.c_str(), body.c_str(), timeout_ms) != NATS_OK)
        return std::nullopt;
    std::string text(natsMsg_GetData(reply), static_cast<size_t>(natsMsg_GetDataLength(reply)));
    natsMsg_Destroy(reply);
    return text;
}

std::optional<std::string> WorkerEnv::registry_get(const std::string& key, uint64_t* revision) const
{
    jsCtx* js = nullptr;
    kvStore* kv = nullptr;
    kvEntry* entry = nullptr;
    std::optional<std::string> value;
    if (natsConnection_JetStream(&js, peer, nullptr) == NATS_OK &&
        js_KeyValue(&kv, js, "fq-av-worker-registry") == NATS_OK &&
        kvStore_Get(&entry, kv, key.c_str()) == NATS_OK && entry) {
        value = std::string(kvEntry_ValueString(entry) ? kvEntry_ValueString(entry) : "");
        if (revision)
            *revision = kvEntry_Revision(entry);
    }
    kvEntry_Destroy(entry);
    kvStore_Destroy(kv);
    jsCtx_Destroy(js);
    return value;
}

std::string WorkerEnv::control_subject(pid_t pid)
{
    char host[256] = "";
    gethostname(host, sizeof(host) - 1);
    return std::string("fq-av-scanproxy.") + host + "_" + std::to_string(pid);
}

}  // namespace fqtest
