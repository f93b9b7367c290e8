// Jobs written by an attacker who may only send scan jobs: none of them may put a byte on the
// worker's broker connection that the worker did not mean to send, and none may cost the
// worker its connection.
#include <gtest/gtest.h>
#include <json-c/json.h>

#include <mutex>
#include <string>
#include <vector>

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

    const std::string key = env.stage("abcd");
    ASSERT_FALSE(key.empty());
    SubjectTap tap(env.peer);

    const std::string forged = "$KV.fq-av-worker-registry.forged-worker";
    struct Case {
        const char* name;
        std::string key;
        json_object* services;
        const char* member;
    };
    const std::vector<Case> cases = {
        {"publish injected through a service name", key,
         json_object_new_string("x 0\r\n\r\nPUB probe.injected 11\r\nhello-world\r\nPUB y"), "Services"},
        {"forged registry record", key,
         json_object_new_string(("x 0\r\n\r\nPUB " + forged + " 2\r\n{}\r\nPUB y").c_str()), "Services"},
        {"injection with a wrong byte count", key,
         json_object_new_string("x\r\nPUB probe.bad 99\r\nhi\r\nPUB y"), "Services"},
        {"service name of 5000 characters", key, json_object_new_string(std::string(5000, 's').c_str()),
         "Services"},
        {"service list that is no text", key, json_tokener_parse("[1,2]"), "Services"},
        {"the JetStream API as a service", key,
         json_object_new_string("$JS.API.STREAM.DELETE.KV_fq-av-scan-data"), "Services"},
        {"a bad link in a + chain", key, json_object_new_string("fq-av-engine+probe x"), "Services"},
        {"a wildcard service", key, json_object_new_string("probe.>"), "Services"},
        {"staged key of 4000 characters", std::string(4000, 'k'), json_object_new_string("fq-av-engine"), "_kv_key"},
        {"staged key with an injection", "k\r\nPUB probe.key 2\r\nhi", json_object_new_string("fq-av-engine"),
         "_kv_key"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const auto v = env.verdict(env.request("fq-av-scanproxy", env.scan_job(c.key, c.services, 4), 10000));
        EXPECT_EQ(-1000, v.rc);
        EXPECT_NE(std::string::npos, v.error.find(c.member)) << v.error;
    }

    // The same worker, on the same connection, still scans.
    const auto clean =
        env.verdict(env.request("fq-av-scanproxy", env.scan_job(key, json_object_new_string("fq-av-engine"), 4), 10000));
    EXPECT_EQ(1, clean.rc) << clean.error;
    EXPECT_EQ(engine.count(), 1);

    EXPECT_TRUE(tap.matching("probe").empty());
    EXPECT_TRUE(tap.matching("forged").empty());
    EXPECT_FALSE(env.registry_get("forged-worker").has_value());
    EXPECT_FALSE(env.trace_has("connection lost"));
    const std::string server_log = fqtest::read_file(env.server.log_path());
    EXPECT_EQ(std::string::npos, server_log.find("maximum control line exceeded"));
    EXPECT_EQ(std::string::npos, server_log.find("Unknown Protocol Operation"));

    fqtest::stop_process(child.pid);
}

}  // namespace
