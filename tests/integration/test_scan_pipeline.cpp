// The scan road on a real broker: the worker's serving thread, in-test scan services,
// a client that stages its object and sends the job with the key.
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <nats/nats.h>

#include <signal.h>

#include <atomic>
#include <chrono>
#include <map>
#include <mutex>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "fq_connection_client.h"
#include "fq_nats_client.h"
#include "fq_worker.h"
#include "nats_server.h"

using namespace std::chrono_literals;

namespace {

fq_stop_flag_t s_stop{0};

std::string s_entry(const std::string& name, int rc, const std::string& virus = "", const std::string& mime = "")
{
    std::string e = "{\"ReturnCode\": " + std::to_string(rc) + ", \"File-name\": \"" + name +
                    "\", \"File-size\": 11, \"Object-type\": -1";
    if (!virus.empty())
        e += ", \"Virusname\": \"" + virus + "\"";
    if (!mime.empty())
        e += ", \"MIME-type\": \"" + mime + "\", \"MIME-encoding\": \"us-ascii\", \"File-type\": \"ASCII text\", "
             "\"Extension\": \"txt\"";
    return e + "}";
}

std::string s_reply(int rc, const std::vector<std::string>& entries, const std::string& extra = "")
{
    std::string r = "{\"ReturnCode\": " + std::to_string(rc) + ", \"FilesScanned\": " + std::to_string(entries.size()) +
                    ", \"Results\": [";
    for (size_t i = 0; i < entries.size(); ++i)
        r += (i ? ", " : "") + entries[i];
    return r + "]" + extra + "}";
}

struct Parsed {
    json_object* obj = nullptr;
    explicit Parsed(const std::string& text) : obj(json_tokener_parse(text.c_str())) {}
    ~Parsed() { json_object_put(obj); }
    json_object* get(const char* key) const
    {
        json_object* v = nullptr;
        return obj && json_object_object_get_ex(obj, key, &v) ? v : nullptr;
    }
    int rc() const
    {
        json_object* v = get("ReturnCode");
        return v ? json_object_get_int(v) : 12345;
    }
    std::string text(const char* key) const
    {
        json_object* v = get(key);
        return v ? json_object_get_string(v) : "";
    }
};

class ScanPipeline : public ::testing::Test {
protected:
    static inline fqtest::NatsServer* server = nullptr;
    static inline fq_connection_config* worker_cfg = nullptr;
    static inline fq_connection_config* client_cfg = nullptr;
    static inline fq_worker_config_t config{};
    static inline fq_service_description_t desc{};
    static inline fq_thread_global_params_t global{};
    static inline fq_worker_thread_t thread{};
    static inline natsConnection* peer = nullptr;

    static void SetUpTestSuite()
    {
        server = new fqtest::NatsServer();
        std::string err;
        ASSERT_TRUE(server->start(&err)) << err;
        ASSERT_TRUE(server->provision(nullptr, nullptr, &err)) << err;
        worker_cfg = server->make_config();
        client_cfg = server->make_config();
        ASSERT_EQ(0, fq_connection_init(worker_cfg));
        ASSERT_EQ(0, fq_connection_init(client_cfg));
        config.connection_config = worker_cfg;
        desc.service_name = const_cast<char*>("Scan proxy");
        global.config = &config;
        global.serviceDescription = &desc;
        thread.global_parameters = &global;
        thread.currentstatus = STARTING;
        // Two serving threads, each with its own subscription, as the worker runs them.
        for (int i = 0; i < 2; ++i)
            ASSERT_EQ(0, fq_connection_start_service_handler_threads(worker_cfg, "fq-av-scanproxy",
                                                                     fq_worker_client_request_handler, &thread,
                                                                     &s_stop, 1));
        peer = server->connect_peer(&err);
        ASSERT_NE(nullptr, peer) << err;
    }

    static void TearDownTestSuite()
    {
        s_stop = 1;
        std::this_thread::sleep_for(700ms);  // serving threads look at the flag every 500 ms
        if (peer)
            natsConnection_Destroy(peer);
        fq_connection_deinit(worker_cfg);
        fq_connection_deinit(client_cfg);
        fqtest::free_config(&worker_cfg);
        fqtest::free_config(&client_cfg);
        delete server;
    }

    static std::string job(const std::string& services, size_t len, const std::string& extra = "")
    {
        return "{\"Command\": 101, \"ObjectName\": \"report.txt\", \"ObjectLen\": " + std::to_string(len) +
               ", \"Services\": \"" + services +
               "\", \"shmID\": \"0xffffffff\", \"realmID\": \"realm\", \"EventID\": \"ev-1\", \"Hostname\": "
               "\"client.example\", \"SID\": \"SID\", \"HTMLDETECTION\": \"SAFE\", \"Scan-Servers\": \"all\", "
               "\"XML_MODE\": \"XML\", \"SVG_MODE\": \"SVG\", \"EVENT_ID_DELIMITER\": \"#\", \"SCANTIMEOUT\": 3000" +
               extra + "}";
    }

    // A client's scan: stage, send the job with the key, remove the staging.
    static std::optional<std::string> scan(const std::string& job_text, const std::string& bytes,
                                           int timeout_ms = 8000)
    {
        char* key = nullptr;
        char err[1024] = "";
        if (fq_connection_stage_scan_data(client_cfg, bytes.data(), bytes.size(), 60000, &key, err) != 0 || !key)
            return std::nullopt;
        std::string with_key = job_text;
        with_key.insert(with_key.size() - 1, std::string(", \"_kv_key\": \"") + key + "\"");
        natsMsg* reply = nullptr;
        std::optional<std::string> text;
        if (natsConnection_RequestString(&reply, peer, "fq-av-scanproxy", with_key.c_str(), timeout_ms) == NATS_OK)
            text = std::string(natsMsg_GetData(reply), static_cast<size_t>(natsMsg_GetDataLength(reply)));
        natsMsg_Destroy(reply);
        fq_connection_unstage_scan_data(client_cfg, key);
        free(key);
        return text;
    }

    static std::unique_ptr<fqtest::Responder> service(const std::string& name, fqtest::Responder::Fn fn)
    {
        return std::make_unique<fqtest::Responder>(peer, name, std::move(fn));
    }

    // Writes to the bucket of one staging of kText and its removal, measured on its own.
    static uint64_t one_staging_writes(const std::string& bytes)
    {
        const uint64_t before = bucket_last_seq();
        char* key = nullptr;
        char err[1024] = "";
        if (fq_connection_stage_scan_data(client_cfg, bytes.data(), bytes.size(), 60000, &key, err) != 0 || !key)
            return 0;
        fq_connection_unstage_scan_data(client_cfg, key);
        free(key);
        return bucket_last_seq() - before;
    }

    static uint64_t bucket_last_seq()
    {
        jsCtx* js = nullptr;
        jsStreamInfo* si = nullptr;
        uint64_t seq = 0;
        if (natsConnection_JetStream(&js, peer, nullptr) == NATS_OK &&
            js_GetStreamInfo(&si, js, "KV_fq-av-scan-data", nullptr, nullptr) == NATS_OK)
            seq = si->State.LastSeq;
        jsStreamInfo_Destroy(si);
        jsCtx_Destroy(js);
        return seq;
    }
};

const std::string kText = "hello world";

TEST_F(ScanPipeline, CleanObjectThroughThreeServicesWithMimeMembersPassedOn)
{
    auto mime = service("fq-av-mimescan", [](const std::string&) {
        return s_reply(0, {s_entry("report.txt", 0, "", "text/plain")});
    });
    auto engine = service("fq-av-engine", [](const std::string&) { return s_reply(0, {s_entry("report.txt", 0)}); });
    auto third = service("fq-av-third", [](const std::string&) { return s_reply(0, {s_entry("report.txt", 0)}); });
    ASSERT_TRUE(mime->ok() && engine->ok() && third->ok());

    const uint64_t staging = one_staging_writes(kText);
    ASSERT_GT(staging, 0u);
    const uint64_t before = bucket_last_seq();
    auto reply = scan(job("fq-av-mimescan;fq-av-engine;fq-av-third", kText.size()), kText);
    ASSERT_TRUE(reply.has_value());
    Parsed r(*reply);
    EXPECT_EQ(1, r.rc()) << *reply;
    EXPECT_EQ(1, json_object_get_int(r.get("FilesScanned"))) << *reply;

    // The object crossed the broker once: the client's own staging and removal, nothing by the worker.
    EXPECT_EQ(staging, bucket_last_seq() - before) << "the worker wrote to the bucket";

    ASSERT_EQ(1u, mime->bodies().size());
    ASSERT_EQ(1u, engine->bodies().size());
    Parsed to_mime(mime->bodies()[0]);
    Parsed to_engine(engine->bodies()[0]);
    EXPECT_EQ(nullptr, to_mime.get("MIME-type"));
    EXPECT_EQ("text/plain", to_engine.text("MIME-type"));
    EXPECT_EQ("ASCII text", to_engine.text("File-type"));
    EXPECT_EQ("client.example", to_engine.text("Hostname"));
}

TEST_F(ScanPipeline, FindingEndsTheWalkAndKeepsWhatWasMerged)
{
    auto first = service("fq-av-first", [](const std::string&) { return s_reply(0, {s_entry("report.txt", 0)}); });
    auto engine = service("fq-av-engine", [](const std::string&) {
        return s_reply(-210, {s_entry("report.txt", 0), s_entry("report.txt/inner.exe", -210, "Eicar-Test")},
                       ", \"Blocking-reason\": \"Virus found\"");
    });
    auto last = service("fq-av-last", [](const std::string&) { return s_reply(0, {s_entry("report.txt", 0)}); });
    auto reply = scan(job("fq-av-first;fq-av-engine;fq-av-last", kText.size()), kText);
    ASSERT_TRUE(reply.has_value());
    Parsed r(*reply);
    EXPECT_EQ(-210, r.rc()) << *reply;
    EXPECT_EQ(0, last->count());
    EXPECT_EQ(2, json_object_get_int(r.get("FilesScanned"))) << *reply;
    EXPECT_NE(std::string::npos, r.text("Blocking-reason").find("Eicar-Test")) << *reply;
}

TEST_F(ScanPipeline, VerdictsOfTheServicesReachTheClient)
{
    struct Case {
        int service_rc;
        int expected;
    };
    for (Case c : {Case{-200, -200}, Case{-202, -202}, Case{-101, -101}, Case{-100, -100}}) {
        auto svc = service("fq-av-verdict", [&](const std::string&) {
            return s_reply(c.service_rc, {s_entry("report.txt", c.service_rc, "reason")},
                           ", \"Blocking-reason\": \"reason\"");
        });
        auto reply = scan(job("fq-av-verdict", kText.size()), kText);
        ASSERT_TRUE(reply.has_value());
        EXPECT_EQ(c.expected, Parsed(*reply).rc()) << c.service_rc << " " << *reply;
    }
}

TEST_F(ScanPipeline, SizeLimitsDecideWithoutAnyService)
{
    auto svc = service("fq-av-sized", [](const std::string&) { return s_reply(0, {s_entry("report.txt", 0)}); });
    auto large = scan(job("fq-av-sized", kText.size(), ", \"SCAN_MAX_SIZE\": 10"), kText);
    ASSERT_TRUE(large.has_value());
    Parsed l(*large);
    EXPECT_EQ(-200, l.rc()) << *large;
    EXPECT_EQ("File too large", l.text("Blocking-reason"));
    auto small = scan(job("fq-av-sized", kText.size(), ", \"SCAN_MIN_SIZE\": 100"), kText);
    ASSERT_TRUE(small.has_value());
    EXPECT_EQ(1, Parsed(*small).rc()) << *small;
    EXPECT_NE(std::string::npos, small->find("application/vnd.fernquill.smallfile"));
    EXPECT_EQ(0, svc->count());
    auto deep = scan(job("fq-av-sized", kText.size(), ", \"Recursion\": 21"), kText);
    ASSERT_TRUE(deep.has_value());
    EXPECT_EQ(-200, Parsed(*deep).rc()) << *deep;
    EXPECT_EQ(0, svc->count());
}

TEST_F(ScanPipeline, MissingStagedPayloadIsAnsweredWithoutScanning)
{
    auto svc = service("fq-av-never", [](const std::string&) { return s_reply(0, {s_entry("report.txt", 0)}); });
    std::string forged = job("fq-av-never", kText.size());
    forged.insert(forged.size() - 1, ", \"_kv_key\": \"no-such-key-0123456789\"");
    natsMsg* reply = nullptr;
    ASSERT_EQ(NATS_OK, natsConnection_RequestString(&reply, peer, "fq-av-scanproxy", forged.c_str(), 5000));
    Parsed r(std::string(natsMsg_GetData(reply), static_cast<size_t>(natsMsg_GetDataLength(reply))));
    natsMsg_Destroy(reply);
    EXPECT_EQ(-1000, r.rc());
    EXPECT_EQ("Scan data unavailable: staged payload could not be retrieved from the KV store", r.text("Error"));
    EXPECT_EQ(0, svc->count());
}

TEST_F(ScanPipeline, WorkerStagesOnceForAllServicesAndRemovesItsStaging)
{
    std::vector<std::string> keys;
    std::mutex mu;
    auto record_key = [&](const std::string& body) {
        Parsed b(body);
        std::lock_guard<std::mutex> lock(mu);
        keys.push_back(b.text("_kv_key"));
        return std::optional<std::string>(s_reply(0, {s_entry("report.txt", 0)}));
    };
    auto a = service("fq-av-a", record_key);
    auto b = service("fq-av-b", record_key);
    auto c = service("fq-av-c", record_key);
    // A request that brings its bytes itself (no key): the driver stages them once.
    const std::string text = job("fq-av-a;fq-av-b;fq-av-c", kText.size());
    fq_const_message_t request{text.c_str(), reinterpret_cast<const unsigned char*>(kText.data()), kText.size(),
                               nullptr};
    fq_message_t out{};
    fq_const_request_reply_t rr{&request, &out};
    const uint64_t staging = one_staging_writes(kText);
    const uint64_t before = bucket_last_seq();
    fq_worker_client_request_handler(&thread, &rr);
    const uint64_t after = bucket_last_seq();
    ASSERT_NE(nullptr, out.json_txt);
    EXPECT_EQ(1, Parsed(out.json_txt).rc()) << out.json_txt;
    free(out.json_txt);
    ASSERT_EQ(3u, keys.size());
    EXPECT_FALSE(keys[0].empty());
    EXPECT_EQ(keys[0], keys[1]);
    EXPECT_EQ(keys[0], keys[2]);
    // One staging and its removal, however many services read it.
    EXPECT_EQ(staging, after - before);
    unsigned char* data = nullptr;
    size_t len = 0;
    EXPECT_NE(0, kvstore_get_chunked(worker_cfg, keys[0].c_str(), &data, &len)) << "staging left behind";
    free(data);

    // The same when a service fails half-way: the staging goes all the same.
    keys.clear();
    auto failing = service("fq-av-fails", [&](const std::string& body) {
        Parsed p(body);
        std::lock_guard<std::mutex> lock(mu);
        keys.push_back(p.text("_kv_key"));
        return std::optional<std::string>("{\"ReturnCode\": -1000, \"Error\": \"engine crashed\"}");
    });
    const std::string failing_job = job("fq-av-a;fq-av-fails;fq-av-c", kText.size());
    request.json_txt = failing_job.c_str();
    fq_message_t out2{};
    fq_const_request_reply_t rr2{&request, &out2};
    fq_worker_client_request_handler(&thread, &rr2);
    ASSERT_NE(nullptr, out2.json_txt);
    Parsed failed(out2.json_txt);
    EXPECT_EQ(-1000, failed.rc());
    EXPECT_NE(std::string::npos, failed.text("Error").find("engine crashed")) << out2.json_txt;
    free(out2.json_txt);
    ASSERT_EQ(2u, keys.size());
    EXPECT_NE(0, kvstore_get_chunked(worker_cfg, keys[1].c_str(), &data, &len)) << "staging left behind";
    free(data);
}

// Every kind of service failure the tests can produce, on every position of a chain of three:
// the client is never told the object is clean.
TEST_F(ScanPipeline, NoServiceFailureAnywhereInTheChainGivesClean)
{
    using Fn = fqtest::Responder::Fn;
    const std::vector<std::pair<std::string, Fn>> failures = {
        {"no reply (nobody serves it)", nullptr},
        {"time-out", [](const std::string&) -> std::optional<std::string> { return std::nullopt; }},
        {"not JSON", [](const std::string&) { return std::optional<std::string>("<html>oops</html>"); }},
        {"-1000 without Error", [](const std::string&) { return std::optional<std::string>("{\"ReturnCode\": -1000}"); }},
        {"ReturnCode 1", [](const std::string&) { return std::optional<std::string>(s_reply(1, {s_entry("report.txt", 0)})); }},
        {"no ReturnCode", [](const std::string&) { return std::optional<std::string>("{\"FilesScanned\": 0, \"Results\": []}"); }},
        {"FilesScanned beyond Results",
         [](const std::string&) { return std::optional<std::string>("{\"ReturnCode\": 0, \"FilesScanned\": 99999999, \"Results\": [5]}"); }},
        {"unknown code", [](const std::string&) { return std::optional<std::string>(s_reply(-3, {s_entry("report.txt", -3)})); }},
        {"empty body", [](const std::string&) { return std::optional<std::string>(""); }},
    };
    auto ok = [](const std::string&) { return std::optional<std::string>(s_reply(0, {s_entry("report.txt", 0)})); };
    for (const auto& [what, fn] : failures) {
        for (int position = 0; position < 3; ++position) {
            std::vector<std::unique_ptr<fqtest::Responder>> chain;
            std::string services;
            for (int i = 0; i < 3; ++i) {
                const std::string name = "fq-av-chain" + std::to_string(i);
                services += (i ? ";" : "") + name;
                if (i != position)
                    chain.push_back(service(name, ok));
                else if (fn)
                    chain.push_back(service(name, fn));
            }
            auto reply = scan(job(services, kText.size(), ", \"SCANTIMEOUT\": 600"), kText);
            ASSERT_TRUE(reply.has_value()) << what << " at " << position;
            Parsed r(*reply);
            EXPECT_NE(1, r.rc()) << what << " at " << position << ": " << *reply;
            EXPECT_EQ(-1000, r.rc()) << what << " at " << position << ": " << *reply;
            EXPECT_FALSE(r.text("Error").empty()) << what << " at " << position << ": " << *reply;
        }
    }
}

TEST_F(ScanPipeline, ServiceUsingUpTheTimeBudgetEndsTheWalk)
{
    auto slow = service("fq-av-slow", [](const std::string&) {
        std::this_thread::sleep_for(400ms);
        return std::optional<std::string>(s_reply(0, {s_entry("report.txt", 0, "", "text/plain")}));
    });
    auto next = service("fq-av-next", [](const std::string&) { return s_reply(0, {s_entry("report.txt", 0)}); });
    auto reply = scan(job("fq-av-slow;fq-av-next", kText.size(), ", \"SCANTIMEOUT\": 300"), kText);
    ASSERT_TRUE(reply.has_value());
    Parsed r(*reply);
    EXPECT_EQ(-1000, r.rc()) << *reply;
    EXPECT_FALSE(r.text("Error").empty()) << *reply;
    EXPECT_EQ(0, next->count());
}

}  // namespace
