// The serving side: one request through a handler, and real queue subscriptions with their
// threads, the fail-closed answer for a missing payload and the slow-consumer limit.
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "fq_connection_client.h"
#include "fq_nats_client.h"
#include "fqhlp_replies.h"
#include "nats_server.h"

namespace {

std::string unavailable_reply()
{
    char host[256] = "";
    gethostname(host, sizeof(host));
    return std::string("{\"ReturnCode\": -1000, \"Error\": \"Scan data unavailable: staged payload could not be "
                       "retrieved from the KV store\", \"WorkerHostname\": \"") +
           host + "\"}";
}

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

std::vector<unsigned char> pattern(size_t n)
{
    std::vector<unsigned char> v(n);
    for (size_t i = 0; i < n; ++i)
        v[i] = (unsigned char)((i * 7 + (i >> 8)) & 0xff);
    return v;
}

class NatsHandlerTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        suite_.start();
        server_ = suite_.server;
        cfg_ = suite_.cfg;
        peer_ = suite_.peer;
        setup_error_ = suite_.error;
    }

    // Every test stops its serving threads, and closing the connection would end any left.
    static void TearDownTestSuite()
    {
        suite_.stop();
        server_ = nullptr;
        cfg_ = nullptr;
        peer_ = nullptr;
    }

    void SetUp() override { ASSERT_TRUE(setup_error_.empty()) << setup_error_; }

    static std::string request(const std::string& subject, const std::string& body, int timeout_ms,
                               natsStatus* status = nullptr)
    {
        natsMsg* reply = nullptr;
        const natsStatus s =
            natsConnection_Request(&reply, peer_, subject.c_str(), body.data(), (int)body.size(), timeout_ms);
        if (status)
            *status = s;
        std::string out;
        if (s == NATS_OK && reply)
            out.assign(natsMsg_GetData(reply), (size_t)natsMsg_GetDataLength(reply));
        natsMsg_Destroy(reply);
        return out;
    }

    static fqtest::BrokerSuite suite_;
    static fqtest::NatsServer* server_;
    static fq_connection_config* cfg_;
    static natsConnection* peer_;
    static std::string setup_error_;
};

fqtest::BrokerSuite NatsHandlerTest::suite_;
fqtest::NatsServer* NatsHandlerTest::server_ = nullptr;
fq_connection_config* NatsHandlerTest::cfg_ = nullptr;
natsConnection* NatsHandlerTest::peer_ = nullptr;
std::string NatsHandlerTest::setup_error_;

TEST_F(NatsHandlerTest, ScanExecuteGivesHandlerPayloadAndKeyButNotTheTransportMember)
{
    const auto data = pattern(FQ_KV_CHUNK_SIZE + 4000);
    char* key = nullptr;
    ASSERT_EQ(fq_connection_stage_scan_data(cfg_, data.data(), data.size(), 10000, &key, nullptr), 0);
    const std::string body = std::string("{\"Command\": 101, \"_kv_key\": \"") + key + "\", \"Name\": \"a\\\"b\"}";

    Seen seen;
    char* reply = nullptr;
    fq_worker_scan_execute(cfg_, recording_handler, &seen, body.data(), body.size(), &reply);
    ASSERT_NE(reply, nullptr);
    EXPECT_EQ(std::string(reply), "{\"ReturnCode\": 0, \"Bytes\": " + std::to_string(data.size()) + "}");
    free(reply);
    EXPECT_EQ(seen.calls.load(), 1);
    EXPECT_EQ(seen.data, data);
    EXPECT_EQ(seen.key, key);
    json_object* req = json_tokener_parse(seen.json.c_str());
    ASSERT_NE(req, nullptr) << seen.json;
    EXPECT_FALSE(json_object_object_get_ex(req, "_kv_key", nullptr));
    json_object* name = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(req, "Name", &name));
    EXPECT_STREQ(json_object_get_string(name), "a\"b");
    json_object_put(req);

    // The receiver reads, it never deletes.
    char* meta = nullptr;
    EXPECT_EQ(fq_nats_kv_get(cfg_, FQ_KV_SCAN_DATA_BUCKET, key, &meta, nullptr), 0);
    free(meta);
    fq_connection_unstage_scan_data(cfg_, key);
    free(key);
}

TEST_F(NatsHandlerTest, ScanExecuteWithoutKeyPassesTextAsItCame)
{
    Seen seen;
    char* reply = nullptr;
    const std::string raw = "this is { not json";
    fq_worker_scan_execute(cfg_, recording_handler, &seen, raw.data(), raw.size(), &reply);
    ASSERT_NE(reply, nullptr);
    free(reply);
    EXPECT_EQ(seen.json, raw);
    EXPECT_TRUE(seen.data_null);
    EXPECT_TRUE(seen.key_null);

    const std::string cmd = "{\"Command\": 3}";
    fq_worker_scan_execute(cfg_, recording_handler, &seen, cmd.data(), cmd.size(), &reply);
    free(reply);
    EXPECT_EQ(seen.json, cmd);
    EXPECT_TRUE(seen.data_null);
    EXPECT_EQ(seen.calls.load(), 2);
}

TEST_F(NatsHandlerTest, ForgedKeysFailClosedWithoutRunningTheHandler)
{
    Seen seen;
    for (const std::string body : {"{\"Command\": 101, \"_kv_key\": \"scan-forged-1\"}",
                                   "{\"Command\": 101, \"_kv_key\": 12345}",
                                   "{\"Command\": 101, \"_kv_key\": \"bad key with blanks\"}"}) {
        SCOPED_TRACE(body);
        char* reply = nullptr;
        fq_worker_scan_execute(cfg_, recording_handler, &seen, body.data(), body.size(), &reply);
        ASSERT_NE(reply, nullptr);
        // A key the broker could misread is not even looked up; the others are simply not there.
        if (body.find("blanks") != std::string::npos)
            EXPECT_NE(std::string(reply).find("\"Error\": \"Scan request refused: _kv_key 'bad key with blanks' "
                                              "contains whitespace or a control character\""),
                      std::string::npos)
                << reply;
        else
            EXPECT_EQ(std::string(reply), unavailable_reply());
        free(reply);
    }
    EXPECT_EQ(seen.calls.load(), 0);
}

TEST_F(NatsHandlerTest, ServingThreadAnswersFailsClosedAndStops)
{
    fqtest::StderrCapture cap;
    Seen seen;
    fq_stop_flag_t stop{0};
    ASSERT_EQ(fq_connection_start_service_handler_threads(cfg_, "fqt.svc", recording_handler, &seen, &stop, 1), 0);
    natsConnection_Flush(static_cast<natsConnection*>(cfg_->_conn));

    const auto data = pattern(5000);
    char* key = nullptr;
    ASSERT_EQ(fq_connection_stage_scan_data(cfg_, data.data(), data.size(), 10000, &key, nullptr), 0);
    EXPECT_EQ(request("fqt.svc", std::string("{\"_kv_key\": \"") + key + "\"}", 3000),
              "{\"ReturnCode\": 0, \"Bytes\": 5000}");
    EXPECT_EQ(seen.calls.load(), 1);
    fq_connection_unstage_scan_data(cfg_, key);
    free(key);

    EXPECT_EQ(request("fqt.svc", "{\"_kv_key\": \"scan-expired-or-forged\"}", 3000), unavailable_reply());
    EXPECT_EQ(seen.calls.load(), 1);

    // An empty body is nobody's request: no handler, no reply.
    natsStatus s = NATS_OK;
    EXPECT_EQ(request("fqt.svc", "", 300, &s), "");
    EXPECT_EQ(s, NATS_TIMEOUT);
    EXPECT_EQ(seen.calls.load(), 1);
    EXPECT_TRUE(cap.contains("NATS: starting 1 queue handler thread(s) for 'fqt.svc'"));

    stop = 1;
    EXPECT_TRUE(fqtest::wait_for([&] { return cap.contains("NATS: handler thread exiting"); },
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
    auto* conn = static_cast<natsConnection*>(cfg_->_conn);
    ASSERT_EQ(fq_connection_start_service_handler_threads(cfg_, "fqt.slow", recording_handler, &seen, &stop, 1), 0);
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
    ASSERT_EQ(natsConnection_Publish(peer_, "fqt.slow", body.data(), (int)body.size()), NATS_OK);
    ASSERT_TRUE(fqtest::wait_for([&] { return seen.calls.load() == 1; }, std::chrono::milliseconds(3000)));

    const uint64_t before = in_msgs();
    for (int i = 0; i < FQ_NATS_SUB_PENDING_MSGS + 1; ++i)
        ASSERT_EQ(natsConnection_Publish(peer_, "fqt.slow", body.data(), (int)body.size()), NATS_OK);
    natsConnection_Flush(peer_);
    ASSERT_TRUE(fqtest::wait_for([&] { return in_msgs() >= before + FQ_NATS_SUB_PENDING_MSGS + 1; },
                                 std::chrono::milliseconds(5000)));
    natsStatistics_Destroy(stats);

    seen.release = true;
    EXPECT_TRUE(fqtest::wait_for(
        [&] { return cap.contains("NATS: SLOW CONSUMER on 'fqt.slow' — 1 dropped total (+1 since last notice)"); },
        std::chrono::milliseconds(3000)))
        << cap.text();
    EXPECT_TRUE(fqtest::wait_for([&] { return seen.calls.load() == 1 + FQ_NATS_SUB_PENDING_MSGS; },
                                 std::chrono::milliseconds(3000)));
    EXPECT_EQ(seen.calls.load(), 1 + FQ_NATS_SUB_PENDING_MSGS);
    EXPECT_EQ(cap.count("SLOW CONSUMER"), 1);
    stop = 1;
    EXPECT_TRUE(fqtest::wait_for([&] { return cap.contains("NATS: handler thread exiting"); },
                                 std::chrono::milliseconds(2000)));
}

TEST_F(NatsHandlerTest, StartRefusesWhatCannotServe)
{
    fq_stop_flag_t stop{0};
    fqtest::StderrCapture cap;
    fq_connection_config blank{};
    EXPECT_EQ(fq_connection_start_service_handler_threads(&blank, "fqt.x", recording_handler, nullptr, &stop, 1), -1);
    EXPECT_EQ(fq_connection_start_service_handler_threads(cfg_, "fqt.x", nullptr, nullptr, &stop, 1), -1);
    EXPECT_EQ(fq_connection_start_service_handler_threads(cfg_, "fqt.x", recording_handler, nullptr, &stop, 0), -1);
    EXPECT_EQ(cap.count("NATS: invalid parameters for start_handler_threads"), 3);
    EXPECT_EQ(fq_connection_start_service_handler_threads(cfg_, "bad subject", recording_handler, nullptr, &stop, 1),
              -1);
    EXPECT_TRUE(cap.contains("NATS: failed to subscribe to 'bad subject'"));

    // The durable ingress is not part of this build.
    EXPECT_EQ(fq_connection_start_js_work_consumer(cfg_, "fqt.x", recording_handler, nullptr, &stop, 1, nullptr), -1);
    EXPECT_TRUE(cap.contains("NATS: JetStream work-queue ingress is not available in this build"));
}

}  // namespace
