// The scan road on a real broker: the worker's serving threads, in-test scan services, and a
// client that stages its object and sends the job with the key.
#include <signal.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "broker_test.h"
#include "fq_nats_client.h"
#include "fq_worker.h"
#include "worker_fixture.h"

using namespace std::chrono_literals;
using fqtest::Json;
using fqtest::service_entry;
using fqtest::service_reply;

namespace {

fq_stop_flag_t s_stop{0};
const std::string kText = "hello world";

class ScanPipeline : public fqtest::BrokerTest {
protected:
    static inline fq_worker_config_t config{};
    static inline fq_service_description_t desc{};
    static inline fq_thread_global_params_t global{};
    static inline fq_worker_thread_t thread{};

    static void SetUpTestSuite()
    {
        BrokerTest::SetUpTestSuite();
        config.connection_config = suite.cfg;
        desc.service_name = const_cast<char*>("Scan proxy");
        global.config = &config;
        global.serviceDescription = &desc;
        thread.global_parameters = &global;
        // Two serving threads, each with its own subscription, as the worker runs them.
        for (int i = 0; i < 2 && suite.cfg; ++i)
            if (fq_connection_start_service_handler_threads(suite.cfg, "fq-av-scanproxy",
                                                            fq_worker_client_request_handler, &thread, &s_stop, 1))
                suite.error = "cannot start the serving threads";
    }

    static void TearDownTestSuite()
    {
        // Each serving thread says so as it leaves; the connection goes only after both have.
        fqtest::StderrCapture cap;
        s_stop = 1;
        fqtest::wait_until([&] { return cap.count("NATS: handler thread exiting") >= 2; }, 5s);
        cap.stop();
        BrokerTest::TearDownTestSuite();
    }

    static std::string job(const std::string& services, const std::string& extra = "")
    {
        return fqtest::worker_job("report.txt", kText.size(), services, extra);
    }

    // A client's scan: stage, send the job with the key, remove the staging.
    static Json scan(const std::string& job_text, int timeout_ms = 8000)
    {
        fq_staged_key staged(suite.cfg);
        if (fq_connection_stage_scan_data(suite.cfg, kText.data(), kText.size(), 60000, &staged.key, nullptr) != 0)
            return Json();
        std::string with_key = job_text;
        with_key.insert(with_key.size() - 1, std::string(", \"_kv_key\": \"") + staged.key + "\"");
        return Json(fqtest::request(suite.peer, "fq-av-scanproxy", with_key, timeout_ms).value_or(""));
    }

    // A request that brings its bytes itself (no key), straight to the dispatcher.
    static Json handle(const std::string& job_text)
    {
        fq_const_message_t request{job_text.c_str(), reinterpret_cast<const unsigned char*>(kText.data()),
                                   kText.size(), nullptr};
        fq_message_t out{};
        fq_const_request_reply_t rr{&request, &out};
        fq_worker_client_request_handler(&thread, &rr);
        fq_cstr_ptr text(out.json_txt);
        return Json(text ? text.get() : "");
    }

    static std::unique_ptr<fqtest::Responder> service(const std::string& name, fqtest::Responder::Fn fn)
    {
        return std::make_unique<fqtest::Responder>(suite.peer, name, std::move(fn));
    }
    static std::unique_ptr<fqtest::Responder> clean_service(const std::string& name)
    {
        return service(name, [](const std::string&) { return service_reply(0, {service_entry("report.txt", 0)}); });
    }

    // Writes to the staging bucket so far.
    static uint64_t bucket_last_seq()
    {
        jsStreamInfo* si = nullptr;
        uint64_t seq = 0;
        if (js_GetStreamInfo(&si, static_cast<jsCtx*>(suite.cfg->_js), "KV_fq-av-scan-data", nullptr, nullptr) ==
            NATS_OK)
            seq = si->State.LastSeq;
        jsStreamInfo_Destroy(si);
        return seq;
    }
    // Writes of one staging of kText and its removal, measured on their own.
    static uint64_t one_staging_writes()
    {
        const uint64_t before = bucket_last_seq();
        {
            fq_staged_key staged(suite.cfg);
            if (fq_connection_stage_scan_data(suite.cfg, kText.data(), kText.size(), 60000, &staged.key, nullptr))
                return 0;
        }
        return bucket_last_seq() - before;
    }
};

TEST_F(ScanPipeline, CleanObjectThroughThreeServicesCrossesTheBrokerOnceWithMimeMembersPassedOn)
{
    auto mime = service("fq-av-mimescan", [](const std::string&) {
        return service_reply(0, {service_entry("report.txt", 0, "", "text/plain")});
    });
    auto engine = clean_service("fq-av-engine");
    auto third = clean_service("fq-av-third");
    const uint64_t staging = one_staging_writes();
    ASSERT_GT(staging, 0u);
    const uint64_t before = bucket_last_seq();
    const Json r = scan(job("fq-av-mimescan;fq-av-engine;fq-av-third"));
    EXPECT_EQ(r.rc(), 1) << r.text();
    EXPECT_EQ(r.num("FilesScanned"), 1) << r.text();
    // The client's own staging and removal, nothing by the worker.
    EXPECT_EQ(staging, bucket_last_seq() - before) << "the worker wrote to the bucket";

    ASSERT_EQ(1u, mime->bodies().size());
    ASSERT_EQ(1u, engine->bodies().size());
    EXPECT_FALSE(Json(mime->bodies()[0]).has("MIME-type"));
    const Json to_engine(engine->bodies()[0]);
    EXPECT_EQ("text/plain", to_engine.str("MIME-type"));
    EXPECT_EQ("ASCII text", to_engine.str("File-type"));
    EXPECT_EQ("client.example", to_engine.str("Hostname"));
}

TEST_F(ScanPipeline, VerdictsOfTheServicesReachTheClientAndAFindingEndsTheWalk)
{
    for (int code : {-210, -200, -202, -101, -100}) {
        auto first = clean_service("fq-av-first");
        auto engine = service("fq-av-verdict", [&](const std::string&) {
            return service_reply(code, {service_entry("report.txt", 0), service_entry("report.txt/inner.exe", code, "Eicar")},
                                 ", \"Blocking-reason\": \"Eicar\"");
        });
        auto last = clean_service("fq-av-last");
        const Json r = scan(job("fq-av-first;fq-av-verdict;fq-av-last"));
        EXPECT_EQ(code, r.rc()) << r.text();
        EXPECT_EQ(0, last->count()) << code;
        EXPECT_EQ(2, r.num("FilesScanned")) << r.text();
        if (code != -101) {
            EXPECT_NE(std::string::npos, r.str("Blocking-reason").find("Eicar")) << r.text();
        }
    }
}

TEST_F(ScanPipeline, SizeLimitsAndDepthDecideWithoutAnyService)
{
    auto svc = clean_service("fq-av-sized");
    const Json large = scan(job("fq-av-sized", ", \"SCAN_MAX_SIZE\": 10"));
    EXPECT_EQ(-200, large.rc()) << large.text();
    EXPECT_EQ("File too large", large.str("Blocking-reason"));
    const Json small = scan(job("fq-av-sized", ", \"SCAN_MIN_SIZE\": 100"));
    EXPECT_EQ(1, small.rc()) << small.text();
    EXPECT_EQ("application/vnd.fernquill.smallfile", small.entry("report.txt").str("MIME-type")) << small.text();
    EXPECT_EQ(-200, scan(job("fq-av-sized", ", \"Recursion\": 21")).rc());
    EXPECT_EQ(0, svc->count());
}

TEST_F(ScanPipeline, MissingStagedPayloadIsAnsweredWithoutScanning)
{
    auto svc = clean_service("fq-av-never");
    std::string forged = job("fq-av-never");
    forged.insert(forged.size() - 1, ", \"_kv_key\": \"no-such-key-0123456789\"");
    const Json r(fqtest::request(suite.peer, "fq-av-scanproxy", forged, 5000).value_or(""));
    EXPECT_EQ(-1000, r.rc());
    EXPECT_EQ("Scan data unavailable: staged payload could not be retrieved from the KV store", r.str("Error"));
    EXPECT_EQ(0, svc->count());
}

TEST_F(ScanPipeline, WorkerStagesOnceForAllServicesAndRemovesItsStagingOnEveryPath)
{
    std::vector<std::string> keys;
    std::mutex mu;
    auto recording = [&](std::optional<std::string> answer) {
        return [&, answer](const std::string& body) {
            std::lock_guard<std::mutex> lock(mu);
            keys.push_back(Json(body).str("_kv_key"));
            return answer;
        };
    };
    const std::string ok = service_reply(0, {service_entry("report.txt", 0)});
    auto a = service("fq-av-a", recording(ok));
    auto b = service("fq-av-b", recording(ok));
    auto c = service("fq-av-c", recording(ok));
    auto failing = service("fq-av-fails", recording("{\"ReturnCode\": -1000, \"Error\": \"engine crashed\"}"));
    const uint64_t staging = one_staging_writes();

    // All services read one staging, and it is gone afterwards, also when a service fails half-way.
    for (const char* services : {"fq-av-a;fq-av-b;fq-av-c", "fq-av-a;fq-av-fails;fq-av-c"}) {
        keys.clear();
        const uint64_t before = bucket_last_seq();
        const Json r = handle(job(services));
        const bool fails = std::string(services).find("fails") != std::string::npos;
        EXPECT_EQ(fails ? -1000 : 1, r.rc()) << r.text();
        if (fails) {
            EXPECT_NE(std::string::npos, r.str("Error").find("engine crashed")) << r.text();
        }
        ASSERT_EQ(fails ? 2u : 3u, keys.size());
        EXPECT_FALSE(keys[0].empty());
        for (const std::string& k : keys)
            EXPECT_EQ(keys[0], k);
        EXPECT_EQ(staging, bucket_last_seq() - before) << services;
        unsigned char* data = nullptr;
        size_t len = 0;
        EXPECT_NE(0, kvstore_get_chunked(suite.cfg, keys[0].c_str(), &data, &len)) << "staging left behind";
        free(data);
    }
}

// Every kind of service failure the tests can produce, on every position of a chain of three:
// the client is never told the object is clean.
TEST_F(ScanPipeline, NoServiceFailureAnywhereInTheChainGivesClean)
{
    using Fn = fqtest::Responder::Fn;
    auto answer = [](const std::string& text) -> Fn {
        return [text](const std::string&) { return std::optional<std::string>(text); };
    };
    const std::vector<std::pair<std::string, Fn>> failures = {
        {"no reply (nobody serves it)", nullptr},
        {"time-out", [](const std::string&) -> std::optional<std::string> { return std::nullopt; }},
        {"not JSON", answer("<html>oops</html>")},
        {"-1000 without Error", answer("{\"ReturnCode\": -1000}")},
        {"ReturnCode 1", answer(service_reply(1, {service_entry("report.txt", 0)}))},
        {"no ReturnCode", answer("{\"FilesScanned\": 0, \"Results\": []}")},
        {"FilesScanned beyond Results", answer("{\"ReturnCode\": 0, \"FilesScanned\": 99999999, \"Results\": [5]}")},
        {"unknown code", answer(service_reply(-3, {service_entry("report.txt", -3)}))},
        {"empty body", answer("")},
    };
    for (const auto& [what, fn] : failures) {
        for (int position = 0; position < 3; ++position) {
            std::vector<std::unique_ptr<fqtest::Responder>> chain;
            std::string services;
            for (int i = 0; i < 3; ++i) {
                const std::string name = "fq-av-chain" + std::to_string(i);
                services += (i ? ";" : "") + name;
                if (i != position)
                    chain.push_back(clean_service(name));
                else if (fn)
                    chain.push_back(service(name, fn));
            }
            const Json r = scan(job(services, ", \"SCANTIMEOUT\": 600"));
            EXPECT_EQ(-1000, r.rc()) << what << " at " << position << ": " << r.text();
            EXPECT_FALSE(r.str("Error").empty()) << what << " at " << position << ": " << r.text();
        }
    }
}

TEST_F(ScanPipeline, ServiceUsingUpTheTimeBudgetEndsTheWalk)
{
    auto slow = service("fq-av-slow", [](const std::string&) {
        std::this_thread::sleep_for(400ms);
        return std::optional<std::string>(service_reply(0, {service_entry("report.txt", 0, "", "text/plain")}));
    });
    auto next = clean_service("fq-av-next");
    const Json r = scan(job("fq-av-slow;fq-av-next", ", \"SCANTIMEOUT\": 300"));
    EXPECT_EQ(-1000, r.rc()) << r.text();
    EXPECT_FALSE(r.str("Error").empty()) << r.text();
    EXPECT_EQ(0, next->count());
}

}  // namespace
