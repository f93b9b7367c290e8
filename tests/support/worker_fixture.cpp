#include "worker_fixture.h"

#include <semaphore.h>
#include <sys/stat.h>
#include <stdlib.h>
#include <unistd.h>

namespace fqtest {

namespace {

std::string s_trace_semaphore(const std::string& trace)
{
    std::string name = "fq_log_" + trace;
    for (char& ch : name)
        if (ch == '/')
            ch = '_';
    return name;
}

}  // namespace

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
    // A worker killed in a test cannot remove its trace file's semaphore itself.
    sem_unlink(s_trace_semaphore(trace).c_str());
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

std::string WorkerEnv::stage(const std::string& bytes) const
{
    fq_connection_config* client = server.make_config();
    std::string key;
    char* raw = nullptr;
    if (fq_connection_init(client) == 0 &&
        fq_connection_stage_scan_data(client, bytes.data(), bytes.size(), 120000, &raw, nullptr) == 0 && raw)
        key = raw;
    free(raw);
    fq_connection_deinit(client);
    free_config(&client);
    return key;
}

std::string WorkerEnv::scan_job(const std::string& key, json_object* services, size_t len, int scan_timeout_ms)
{
    json_object* job = json_tokener_parse(
        "{\"Command\": 101, \"ObjectName\": \"o.txt\", \"shmID\": \"0xffffffff\", \"realmID\": \"r\", "
        "\"EventID\": \"e\", \"Hostname\": \"client\", \"SID\": \"S\", \"HTMLDETECTION\": \"OFF\", "
        "\"Scan-Servers\": \"all\", \"XML_MODE\": \"XML\", \"SVG_MODE\": \"SVG\", \"EVENT_ID_DELIMITER\": \"#\"}");
    json_object_object_add(job, "ObjectLen", json_object_new_int64((int64_t)len));
    json_object_object_add(job, "SCANTIMEOUT", json_object_new_int(scan_timeout_ms));
    json_object_object_add(job, "Services", services);
    json_object_object_add(job, "_kv_key", json_object_new_string(key.c_str()));
    std::string text = json_object_to_json_string_ext(job, JSON_C_TO_STRING_PLAIN);
    json_object_put(job);
    return text;
}

WorkerEnv::Verdict WorkerEnv::verdict(const std::optional<std::string>& reply)
{
    Verdict v;
    if (!reply)
        return v;
    json_object* r = json_tokener_parse(reply->c_str());
    json_object* m = nullptr;
    v.rc = r && json_object_object_get_ex(r, "ReturnCode", &m) ? json_object_get_int(m) : -99998;
    v.error = r && json_object_object_get_ex(r, "Error", &m) ? json_object_get_string(m) : "";
    json_object_put(r);
    return v;
}

bool WorkerEnv::trace_semaphore_left() const
{
    struct stat st;
    return stat(("/dev/shm/sem." + s_trace_semaphore(trace)).c_str(), &st) == 0;
}

}  // namespace fqtest
