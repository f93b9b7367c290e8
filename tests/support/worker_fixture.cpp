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
    return wait_until([&] { return trace_has("ready with"); }, limit);
}

std::optional<std::string> WorkerEnv::request(const std::string& subject, const std::string& body,
                                              int timeout_ms) const
{
    return fqtest::request(peer, subject, body, timeout_ms);
}

std::string worker_job(const std::string& name, size_t len, const std::string& services, const std::string& extra)
{
    return "{\"Command\": 101, \"ObjectName\": \"" + name + "\", \"ObjectLen\": " + std::to_string(len) +
           ", \"Services\": \"" + services +
           "\", \"shmID\": \"0xffffffff\", \"realmID\": \"realm\", \"EventID\": \"ev-1\", \"Hostname\": "
           "\"client.example\", \"SID\": \"SID\", \"HTMLDETECTION\": \"SAFE\", \"Scan-Servers\": \"all\", "
           "\"XML_MODE\": \"XML\", \"SVG_MODE\": \"SVG\", \"EVENT_ID_DELIMITER\": \"#\", \"SCANTIMEOUT\": 5000" +
           extra + "}";
}

std::optional<std::string> WorkerEnv::scan(const std::string& job, const std::string& bytes, int timeout_ms) const
{
    fq_connection_config* client = server.make_config();
    std::optional<std::string> reply;
    char* key = nullptr;
    if (fq_connection_init(client) == 0 &&
        fq_connection_stage_scan_data(client, bytes.data(), bytes.size(), 60000, &key, nullptr) == 0) {
        std::string with_key = job;
        with_key.insert(with_key.size() - 1, std::string(", \"_kv_key\": \"") + key + "\"");
        reply = request("fq-av-scanproxy", with_key, timeout_ms);
        fq_connection_unstage_scan_data(client, key);
        free(key);
    }
    fq_connection_deinit(client);
    free_config(&client);
    return reply;
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
