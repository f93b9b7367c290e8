// Jobs written by an attacker who may only send scan jobs: none of them may put a byte on the
// worker's broker connection that the worker did not mean to send, and none may cost the
// worker its connection.
#include <gtest/gtest.h>
#include <json-c/json.h>

#include <mutex>
#include <string>
#include <vector>

#include "fq_raii.h"
#include "worker_fixture.h"

using namespace std::chrono_literals;

namespace {

// Every subject published on the server while the test runs.
class SubjectTap {
public:
    explicit SubjectTap(natsConnection* nc)
    {
        natsConnection_Subscribe(&sub_, nc, ">", on_msg, this);
        natsConnection_Flush(nc);
    }
    ~SubjectTap() { natsSubscription_Destroy(sub_); }
    std::vector<std::string> matching(const std::string& part) const
    {
        std::lock_guard<std::mutex> lock(mu_);
        std::vector<std::string> out;
        for (const auto& s : seen_)
            if (s.find(part) != std::string::npos)
                out.push_back(s);
        return out;
    }

private:
    static void on_msg(natsConnection*, natsSubscription*, natsMsg* msg, void* closure)
    {
        auto* self = static_cast<SubjectTap*>(closure);
        std::lock_guard<std::mutex> lock(self->mu_);
        self->seen_.emplace_back(natsMsg_GetSubject(msg));
        natsMsg_Destroy(msg);
    }
    natsSubscription* sub_ = nullptr;
    mutable std::mutex mu_;
    std::vector<std::string> seen_;
};

std::string s_job(const std::string& key, json_object* services)
{
    fq_json_ptr job(json_tokener_parse(
        "{\"Command\": 101, \"ObjectName\": \"o.txt\", \"ObjectLen\": 4, \"shmID\": \"0xffffffff\", "
        "\"realmID\": \"r\", \"EventID\": \"e\", \"Hostname\": \"client\", \"SID\": \"S\", \"HTMLDETECTION\": \"OFF\", "
        "\"Scan-Servers\": \"all\", \"XML_MODE\": \"XML\", \"SVG_MODE\": \"SVG\", \"EVENT_ID_DELIMITER\": \"#\", "
        "\"SCANTIMEOUT\": 5000}"));
    json_object_object_add(job.get(), "Services", services);
    json_object_object_add(job.get(), "_kv_key", json_object_new_string(key.c_str()));
    return json_object_to_json_string_ext(job.get(), JSON_C_TO_STRING_PLAIN);
}

struct Verdict {
    int rc = 0;
    std::string error;
};

Verdict s_verdict(const std::optional<std::string>& reply)
{
    Verdict v{-99999, "no reply"};
    if (!reply)
        return v;
    fq_json_ptr r(json_tokener_parse(reply->c_str()));
    json_object* m = nullptr;
    if (r && json_object_object_get_ex(r.get(), "ReturnCode", &m))
        v.rc = json_object_get_int(m);
    v.error = r && json_object_object_get_ex(r.get(), "Error", &m) ? json_object_get_string(m) : "";
    return v;
}

TEST(HostileJobs, NeverSteerTheConnectionAndTheWorkerScansOnAfterwards)
{
    fqtest::WorkerEnv env;
    ASSERT_TRUE(env.ok()) << env.error();
    fqtest::Responder engine(env.peer, "fq-av-engine", [](const std::string&) {
        return std::string("{\"ReturnCode\": 0, \"FilesScanned\": 1, \"Results\": [{\"ReturnCode\": 0, "
                           "\"File-name\": \"o.txt\", \"File-size\": 4, \"Object-type\": -1}]}");
    });
    auto child = env.spawn_worker({"--console-mode", "--worker-threads", "2"});
    ASSERT_TRUE(env.wait_ready()) << env.trace_text();

    fq_connection_config* client = env.server.make_config();
    ASSERT_EQ(0, fq_connection_init(client));
    char* raw_key = nullptr;
    ASSERT_EQ(0, fq_connection_stage_scan_data(client, "abcd", 4, 60000, &raw_key, nullptr));
    fq_cstr_ptr key(raw_key);
    SubjectTap tap(env.peer);

    const std::string forged = "$KV.fq-av-worker-registry.forged-worker";
    struct Case {
        const char* name;
        std::string key;
        json_object* services;
        const char* member;
    };
    const std::vector<Case> cases = {
        {"publish injected through a service name", key.get(),
         json_object_new_string("x 0\r\n\r\nPUB probe.injected 11\r\nhello-world\r\nPUB y"), "Services"},
        {"forged registry record", key.get(),
         json_object_new_string(("x 0\r\n\r\nPUB " + forged + " 2\r\n{}\r\nPUB y").c_str()), "Services"},
        {"injection with a wrong byte count", key.get(),
         json_object_new_string("x\r\nPUB probe.bad 99\r\nhi\r\nPUB y"), "Services"},
        {"service name of 5000 characters", key.get(), json_object_new_string(std::string(5000, 's').c_str()),
         "Services"},
        {"service list that is no text", key.get(), json_tokener_parse("[1,2]"), "Services"},
        {"the JetStream API as a service", key.get(),
         json_object_new_string("$JS.API.STREAM.DELETE.KV_fq-av-scan-data"), "Services"},
        {"a bad link in a + chain", key.get(), json_object_new_string("fq-av-engine+probe x"), "Services"},
        {"a wildcard service", key.get(), json_object_new_string("probe.>"), "Services"},
        {"staged key of 4000 characters", std::string(4000, 'k'), json_object_new_string("fq-av-engine"), "_kv_key"},
        {"staged key with an injection", "k\r\nPUB probe.key 2\r\nhi", json_object_new_string("fq-av-engine"),
         "_kv_key"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Verdict v = s_verdict(env.request("fq-av-scanproxy", s_job(c.key, c.services), 10000));
        EXPECT_EQ(-1000, v.rc);
        EXPECT_NE(std::string::npos, v.error.find(c.member)) << v.error;
    }

    // The same worker, on the same connection, still scans.
    const Verdict clean = s_verdict(env.request("fq-av-scanproxy", s_job(key.get(), json_object_new_string("fq-av-engine")), 10000));
    EXPECT_EQ(1, clean.rc) << clean.error;
    EXPECT_EQ(engine.count(), 1);

    EXPECT_TRUE(tap.matching("probe").empty());
    EXPECT_TRUE(tap.matching("forged").empty());
    EXPECT_FALSE(env.registry_get("forged-worker").has_value());
    EXPECT_FALSE(env.trace_has("connection lost"));
    const std::string server_log = env.server.log_text();
    EXPECT_EQ(std::string::npos, server_log.find("maximum control line exceeded"));
    EXPECT_EQ(std::string::npos, server_log.find("Unknown Protocol Operation"));

    fq_connection_unstage_scan_data(client, key.get());
    fq_connection_deinit(client);
    fqtest::free_config(&client);
    fqtest::stop_process(child.pid);
}

}  // namespace
