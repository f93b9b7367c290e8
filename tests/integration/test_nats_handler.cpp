// The serving side: one request through a handler, and real queue subscriptions with their
// threads, the fail-closed answer for a missing payload and the slow-consumer limit.
#include <signal.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "broker_test.h"
#include "fq_nats_client.h"
#include "fq_raii.h"
#include "samples.h"

namespace {

const char kUnavailable[] = "Scan data unavailable: staged payload could not be retrieved from the KV store";

// What the handler saw of its last request, and how often it ran.
struct Seen {
    std::atomic<int> calls{0};
    std::mutex mu;
    std::string json;
    std::vector<unsigned char> data;
    bool data_null = true;
    std::string key;
    bool key_null = true;
    // When set, the first call waits until release is set.
    std::atomic<bool> block_first{false};
    std::atomic<bool> release{false};
};

int recording_handler(void* handler_config, fq_const_request_reply_t* rr)
{
    auto* seen = static_cast<Seen*>(handler_config);
    const int n = seen->calls.fetch_add(1) + 1;
    if (n == 1 && seen->block_first.load())
        while (!seen->release.load())
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
    {
        std::lock_guard<std::mutex> lock(seen->mu);
        seen->json = rr->request->json_txt ? rr->request->json_txt : "";
        seen->data_null = rr->request->data == nullptr;
        seen->data.assign(rr->request->data, rr->request->data + rr->request->data_len);
        seen->key_null = rr->request->staged_data_key == nullptr;
        seen->key = rr->request->staged_data_key ? rr->request->staged_data_key : "";
    }
    const std::string reply = "{\"ReturnCode\": 0, \"Bytes\": " + std::to_string(rr->request->data_len) + "}";
    rr->reply->json_txt = strdup(reply.c_str());
    return 0;
}

using NatsHandlerTest = fqtest::BrokerTest;

// The reply that fails a request closed because its staged payload cannot be read.
void expect_unavailable(const std::string& reply)
{
    const fqtest::Json r(reply);
    EXPECT_EQ(r.rc(), -1000) << reply;
    EXPECT_EQ(r.str("Error"), kUnavailable);
    EXPECT_FALSE(r.str("WorkerHostname").empty());
}

std::string execute(Seen& seen, const std::string& body)
{
    char* reply = nullptr;
    fq_worker_scan_execute(fqtest::BrokerTest::suite.cfg, recording_handler, &seen, body.data(), body.size(), &reply);
    std::string text = reply ? reply : "(no reply)";
    free(reply);
    return text;
}

TEST_F(NatsHandlerTest, ScanExecuteGivesHandlerPayloadAndKeyButNotTheTransportMember)
{
    const auto data = fqtest::pattern(FQ_KV_CHUNK_SIZE + 4000);
    char* key = nullptr;
    ASSERT_EQ(fq_connection_stage_scan_data(suite.cfg, data.data(), data.size(), 10000, &key, nullptr), 0);
    fq_cstr_ptr key_guard(key);
    Seen seen;
    EXPECT_EQ(execute(seen, std::string("{\"Command\": 101, \"_kv_key\": \"") + key + "\", \"Name\": \"a\\\"b\"}"),
              "{\"ReturnCode\": 0, \"Bytes\": " + std::to_string(data.size()) + "}");
    EXPECT_EQ(seen.calls.load(), 1);
    EXPECT_EQ(seen.data, data);
    EXPECT_EQ(seen.key, key);
    const fqtest::Json req(seen.json);
    EXPECT_FALSE(req.has("_kv_key")) << seen.json;
    EXPECT_EQ(req.str("Name"), "a\"b");

    // The receiver reads, it never deletes.
    char* meta = nullptr;
    EXPECT_EQ(fq_nats_kv_get(suite.cfg, FQ_KV_SCAN_DATA_BUCKET, key, &meta, nullptr), 0);
    free(meta);
    fq_connection_unstage_scan_data(suite.cfg, key);
}

TEST_F(NatsHandlerTest, ScanExecuteWithoutKeyPassesTheTextAndAForgedKeyFailsClosed)
{
    Seen seen;
    for (const std::string raw : {"this is { not json", "{\"Command\": 3}"}) {
        execute(seen, raw);
        EXPECT_EQ(seen.json, raw);
        EXPECT_TRUE(seen.data_null && seen.key_null) << raw;
    }
    for (const std::string body : {"{\"Command\": 101, \"_kv_key\": \"scan-forged-1\"}",
                                   "{\"Command\": 101, \"_kv_key\": 12345}",
                                   "{\"Command\": 101, \"_kv_key\": \"bad key with blanks\"}"}) {
        const std::string reply = execute(seen, body);
        // A key the broker could misread is not even looked up; the others are simply not there.
        if (body.find("blanks") == std::string::npos) {
            expect_unavailable(reply);
            continue;
        }
        const fqtest::Json r(reply);
        EXPECT_EQ(r.rc(), -1000) << reply;
        EXPECT_EQ(r.str("Error"), "Scan request refused: _kv_key 'bad key with blanks' contains whitespace or a control "
                                  "character");
    }
    EXPECT_EQ(seen.calls.load(), 2) << "the handler never runs for a payload that cannot be read";
}

TEST_F(NatsHandlerTest, ServingThreadAnswersFailsClosedAndStops)
{
    fqtest::StderrCapture cap;
    Seen seen;
    fq_stop_flag_t stop{0};
    ASSERT_EQ(fq_connection_start_service_handler_threads(suite.cfg, "fqt.svc", recording_handler, &seen, &stop, 1), 0);
    natsConnection_Flush(static_cast<natsConnection*>(suite.cfg->_conn));

    const auto data = fqtest::pattern(5000);
    char* key = nullptr;
    ASSERT_EQ(fq_connection_stage_scan_data(suite.cfg, data.data(), data.size(), 10000, &key, nullptr), 0);
    EXPECT_EQ(fqtest::request(suite.peer, "fqt.svc", std::string("{\"_kv_key\": \"") + key + "\"}", 3000),
              "{\"ReturnCode\": 0, \"Bytes\": 5000}");
    EXPECT_EQ(seen.calls.load(), 1);
    fq_connection_unstage_scan_data(suite.cfg, key);
    free(key);

    expect_unavailable(fqtest::request(suite.peer, "fqt.svc", "{\"_kv_key\": \"scan-expired-or-forged\"}", 3000)
                           .value_or("(no reply)"));
    EXPECT_EQ(seen.calls.load(), 1);

    // An empty body is nobody's request: no handler, no reply.
    natsStatus s = NATS_OK;
    EXPECT_FALSE(fqtest::request(suite.peer, "fqt.svc", "", 300, &s).has_value());
    EXPECT_EQ(s, NATS_TIMEOUT);
    EXPECT_EQ(seen.calls.load(), 1);
    EXPECT_TRUE(cap.contains("NATS: starting 1 queue handler thread(s) for 'fqt.svc'"));

    stop = 1;
    EXPECT_TRUE(fqtest::wait_until([&] { return cap.contains("NATS: handler thread exiting"); },
                                 std::chrono::milliseconds(2000)));
}

// One message in the handler and 50 waiting fill the subscription; the next is dropped,
// and the thread says so as soon as it looks again.
TEST_F(NatsHandlerTest, FiftyFirstWaitingMessageIsDroppedAndReported)
{
    fqtest::StderrCapture cap;
    Seen seen;
    seen.block_first = true;
    fq_stop_flag_t stop{0};
    auto* conn = static_cast<natsConnection*>(suite.cfg->_conn);
    ASSERT_EQ(fq_connection_start_service_handler_threads(suite.cfg, "fqt.slow", recording_handler, &seen, &stop, 1), 0);
    natsConnection_Flush(conn);

    natsStatistics* stats = nullptr;
    ASSERT_EQ(natsStatistics_Create(&stats), NATS_OK);
    auto in_msgs = [&]() -> uint64_t {
        uint64_t n = 0;
        natsConnection_GetStats(conn, stats);
        natsStatistics_GetCounts(stats, &n, nullptr, nullptr, nullptr, nullptr);
        return n;
    };

    const std::string body = "{\"Command\": 3}";
    ASSERT_EQ(natsConnection_Publish(suite.peer, "fqt.slow", body.data(), (int)body.size()), NATS_OK);
    ASSERT_TRUE(fqtest::wait_until([&] { return seen.calls.load() == 1; }, std::chrono::milliseconds(3000)));

    const uint64_t before = in_msgs();
    for (int i = 0; i < FQ_NATS_SUB_PENDING_MSGS + 1; ++i)
        ASSERT_EQ(natsConnection_Publish(suite.peer, "fqt.slow", body.data(), (int)body.size()), NATS_OK);
    natsConnection_Flush(suite.peer);
    ASSERT_TRUE(fqtest::wait_until([&] { return in_msgs() >= before + FQ_NATS_SUB_PENDING_MSGS + 1; },
                                 std::chrono::milliseconds(5000)));
    natsStatistics_Destroy(stats);

    seen.release = true;
    EXPECT_TRUE(fqtest::wait_until(
        [&] { return cap.contains("NATS: SLOW CONSUMER on 'fqt.slow' — 1 dropped total (+1 since last notice)"); },
        std::chrono::milliseconds(3000)))
        << cap.text();
    EXPECT_TRUE(fqtest::wait_until([&] { return seen.calls.load() == 1 + FQ_NATS_SUB_PENDING_MSGS; },
                                 std::chrono::milliseconds(3000)));
    EXPECT_EQ(seen.calls.load(), 1 + FQ_NATS_SUB_PENDING_MSGS);
    EXPECT_EQ(cap.count("SLOW CONSUMER"), 1);
    stop = 1;
    EXPECT_TRUE(fqtest::wait_until([&] { return cap.contains("NATS: handler thread exiting"); },
                                 std::chrono::milliseconds(2000)));
}

TEST_F(NatsHandlerTest, StartRefusesWhatCannotServe)
{
    fq_stop_flag_t stop{0};
    fqtest::StderrCapture cap;
    fq_connection_config blank{};
    EXPECT_EQ(fq_connection_start_service_handler_threads(&blank, "fqt.x", recording_handler, nullptr, &stop, 1), -1);
    EXPECT_EQ(fq_connection_start_service_handler_threads(suite.cfg, "fqt.x", nullptr, nullptr, &stop, 1), -1);
    EXPECT_EQ(fq_connection_start_service_handler_threads(suite.cfg, "fqt.x", recording_handler, nullptr, &stop, 0), -1);
    EXPECT_EQ(cap.count("NATS: invalid parameters for start_handler_threads"), 3);
    EXPECT_EQ(fq_connection_start_service_handler_threads(suite.cfg, "bad subject", recording_handler, nullptr, &stop, 1),
              -1);
    EXPECT_TRUE(cap.contains("NATS: failed to subscribe to 'bad subject'"));

    // The durable ingress is not part of this build.
    EXPECT_EQ(fq_connection_start_js_work_consumer(suite.cfg, "fqt.x", recording_handler, nullptr, &stop, 1, nullptr), -1);
    EXPECT_TRUE(cap.contains("NATS: JetStream work-queue ingress is not available in this build"));
}

}  // namespace
