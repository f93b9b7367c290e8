// Core request/reply against a real broker: replies, time-outs, the no-responders back-off,
// and data requests whose payload travels through the KV store.
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <stdlib.h>
#include <string.h>

#include <chrono>
#include <string>
#include <vector>

#include "fq_connection_client.h"
#include "fq_nats_client.h"
#include "fq_nats_nr_backoff.h"
#include "nats_server.h"

namespace {

using Clock = std::chrono::steady_clock;

int64_t ms_since(Clock::time_point t0)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count();
}

std::string member_string(json_object* obj, const char* name)
{
    json_object* v = nullptr;
    if (!obj || !json_object_object_get_ex(obj, name, &v))
        return "";
    const char* s = json_object_get_string(v);
    return s ? s : "";
}

int64_t member_int(json_object* obj, const char* name)
{
    json_object* v = nullptr;
    if (!obj || !json_object_object_get_ex(obj, name, &v))
        return -99999;
    return json_object_get_int64(v);
}

std::vector<unsigned char> pattern(size_t n, unsigned seed)
{
    std::vector<unsigned char> v(n);
    for (size_t i = 0; i < n; ++i)
        v[i] = (unsigned char)((i * 131 + seed * 7 + (i >> 9)) & 0xff);
    return v;
}

class NatsRequestTest : public ::testing::Test {
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

    static fqtest::BrokerSuite suite_;
    static fqtest::NatsServer* server_;
    static fq_connection_config* cfg_;
    static natsConnection* peer_;
    static std::string setup_error_;
};

fqtest::BrokerSuite NatsRequestTest::suite_;
fqtest::NatsServer* NatsRequestTest::server_ = nullptr;
fq_connection_config* NatsRequestTest::cfg_ = nullptr;
natsConnection* NatsRequestTest::peer_ = nullptr;
std::string NatsRequestTest::setup_error_;

TEST_F(NatsRequestTest, ReplyComesBackAsObjectAndErrorTextIsLeftAlone)
{
    fqtest::Responder svc(peer_, "fqt.echo", [](const std::string& body) {
        return std::optional<std::string>("{\"ReturnCode\": 0, \"Echo\": " + body + "}");
    });
    ASSERT_TRUE(svc.ok());
    char err[1024] = "untouched";
    json_object* reply = fq_connection_send_recv_json(cfg_, "fqt.echo", "{\"Command\": 3}", 2000, 0, err);
    ASSERT_NE(reply, nullptr);
    json_object* echo = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(reply, "Echo", &echo));
    EXPECT_EQ(member_int(echo, "Command"), 3);
    json_object_put(reply);
    EXPECT_EQ(svc.count(), 1);
    EXPECT_STREQ(err, "untouched");
}

TEST_F(NatsRequestTest, SimpleRequestGivesReturnCodeOrMinusOne)
{
    fqtest::Responder virus(peer_, "fqt.virus",
                            [](const std::string&) { return std::optional<std::string>("{\"ReturnCode\": -210}"); });
    fqtest::Responder bare(peer_, "fqt.bare", [](const std::string&) { return std::optional<std::string>("{}"); });
    ASSERT_TRUE(virus.ok() && bare.ok());
    EXPECT_EQ(fq_connection_simple_request(cfg_, "fqt.virus", "{}", 2000, 0, nullptr), -210);
    EXPECT_EQ(fq_connection_simple_request(cfg_, "fqt.bare", "{}", 2000, 0, nullptr), -1);
    EXPECT_EQ(fq_connection_simple_request(cfg_, "fqt.nobody.simple", "{}", 20, 0, nullptr), -1);
    // A negative count is one attempt, not an endless series.
    fqtest::Responder silent(peer_, "fqt.silent.simple", [](const std::string&) { return std::nullopt; });
    EXPECT_EQ(fq_connection_simple_request(cfg_, "fqt.silent.simple", "{}", 100, -1, nullptr), -1);
    EXPECT_EQ(silent.count(), 1);
}

TEST_F(NatsRequestTest, EachTimeOutCostsOneAttemptWithoutPause)
{
    fqtest::Responder silent(peer_, "fqt.silent", [](const std::string&) { return std::nullopt; });
    ASSERT_TRUE(silent.ok());
    char err[1024] = "";
    const auto t0 = Clock::now();
    json_object* reply = fq_connection_send_recv_json(cfg_, "fqt.silent", "{}", 150, 2, err);
    const int64_t elapsed = ms_since(t0);
    EXPECT_EQ(reply, nullptr);
    EXPECT_TRUE(fqtest::wait_for([&] { return silent.count() >= 3; }, std::chrono::milliseconds(2000)));
    EXPECT_EQ(silent.count(), 3);
    EXPECT_STREQ(err, "NATS: request to fqt.silent timed out");
    EXPECT_GE(elapsed, 3 * 150 - 10);
    EXPECT_LT(elapsed, 3 * 150 + 400);
}

TEST_F(NatsRequestTest, NoRespondersBackOffStaysWithinItsBudget)
{
    const std::string no_resp = std::string("NATS: request to fqt.nobody failed: ") +
                                natsStatus_GetText(NATS_NO_RESPONDERS);
    {
        fqtest::StderrCapture cap;
        char err[1024] = "";
        const auto t0 = Clock::now();
        json_object* reply = fq_connection_send_recv_json(cfg_, "fqt.nobody", "{}", 5000, 0, err);
        const int64_t elapsed = ms_since(t0);
        EXPECT_EQ(reply, nullptr);
        EXPECT_EQ(std::string(err), no_resp);
        // The first three waits always fit (at most 262 ms); a fourth only under the 400 ms cap.
        const int sleeps = cap.count("nats: no responders for fqt.nobody - backoff");
        EXPECT_GE(sleeps, 3);
        EXPECT_LE(sleeps, 4);
        EXPECT_GE(elapsed, 25 + 50 + 100);
        EXPECT_LE(elapsed, 400 + 250);
    }
    {
        // Later attempts share the same allowance: they fail at once.
        fqtest::StderrCapture cap;
        const auto t0 = Clock::now();
        EXPECT_EQ(fq_connection_send_recv_json(cfg_, "fqt.nobody", "{}", 5000, 3, nullptr), nullptr);
        const int64_t elapsed = ms_since(t0);
        EXPECT_EQ(cap.count("NATS: request to fqt.nobody failed"), 4);
        EXPECT_LE(cap.count("- backoff"), 4);
        EXPECT_LE(elapsed, 400 + 250);
    }
    {
        // A budget smaller than the first wait gets no wait at all.
        fqtest::StderrCapture cap;
        const auto t0 = Clock::now();
        EXPECT_EQ(fq_connection_send_recv_json(cfg_, "fqt.nobody", "{}", 20, 0, nullptr), nullptr);
        EXPECT_LT(ms_since(t0), 20 + 100);
        EXPECT_EQ(cap.count("- backoff"), 0);
    }
}

TEST_F(NatsRequestTest, BrokenRepliesEndTheRequestWithoutRetry)
{
    fqtest::Responder bad(peer_, "fqt.badjson",
                          [](const std::string&) { return std::optional<std::string>("{\"ReturnCode\": 0,"); });
    fqtest::Responder empty(peer_, "fqt.empty", [](const std::string&) { return std::optional<std::string>(""); });
    ASSERT_TRUE(bad.ok() && empty.ok());
    fqtest::StderrCapture cap;
    char err[1024] = "untouched";
    EXPECT_EQ(fq_connection_send_recv_json(cfg_, "fqt.badjson", "{}", 2000, 2, err), nullptr);
    EXPECT_EQ(bad.count(), 1);
    EXPECT_TRUE(cap.contains("NATS: failed to parse reply JSON from fqt.badjson"));
    EXPECT_EQ(fq_connection_send_recv_json(cfg_, "fqt.empty", "{}", 2000, 2, err), nullptr);
    EXPECT_EQ(empty.count(), 1);
    EXPECT_TRUE(cap.contains("NATS: received empty reply from fqt.empty"));
    EXPECT_STREQ(err, "untouched");
}

TEST_F(NatsRequestTest, MissingConnectionOrArgumentsAreInvalidParameters)
{
    fq_connection_config blank{};
    char err[1024] = "";
    EXPECT_EQ(fq_connection_send_recv_json(&blank, "svc", "{}", 100, 0, err), nullptr);
    EXPECT_STREQ(err, "NATS: invalid parameters for send_recv_json");
    EXPECT_EQ(fq_connection_send_recv_json(cfg_, nullptr, "{}", 100, 0, err), nullptr);
    EXPECT_STREQ(err, "NATS: invalid parameters for send_recv_json");
    EXPECT_EQ(fq_connection_send_recv_json_data(cfg_, "svc", nullptr, 100, 0, 0, err), nullptr);
    EXPECT_STREQ(err, "NATS: invalid parameters for send_recv_json_data");
    EXPECT_EQ(fq_connection_send_recv_json(cfg_, "svc", nullptr, 100, 0, nullptr), nullptr);
}

// The payload is staged, only its key travels, the receiver reads it back whole, and the
// sender removes it once the reply is in.
TEST_F(NatsRequestTest, DataRequestStagesPayloadSendsKeyAndCleansUp)
{
    const auto data = pattern(FQ_KV_CHUNK_SIZE + 75000, 3);
    std::string seen_key;
    bool payload_matches = false;
    fqtest::Responder svc(peer_, "fqt.scan", [&](const std::string& body) {
        json_object* req = json_tokener_parse(body.c_str());
        seen_key = member_string(req, "_kv_key");
        const int64_t command = member_int(req, "Command");
        json_object_put(req);
        unsigned char* got = nullptr;
        size_t got_len = 0;
        if (kvstore_get_chunked(cfg_, seen_key.c_str(), &got, &got_len) == 0) {
            payload_matches = got_len == data.size() && memcmp(got, data.data(), got_len) == 0;
            free(got);
        }
        return std::optional<std::string>("{\"ReturnCode\": 0, \"Command\": " + std::to_string(command) + "}");
    });
    ASSERT_TRUE(svc.ok());

    fq_const_request_reply_t* rr = fq_const_request_reply_new();
    ASSERT_NE(rr, nullptr);
    rr->request->json_txt = "{\"Command\": 101, \"Path\": \"a/b\"}";
    rr->request->data = data.data();
    rr->request->data_len = data.size();
    rr->reply->json_txt = strdup("stale");
    char err[1024] = "";
    json_object* reply = fq_connection_send_recv_json_data(cfg_, "fqt.scan", rr, 5000, 1000, 0, err);
    ASSERT_NE(reply, nullptr) << err;
    EXPECT_EQ(member_int(reply, "Command"), 101);
    json_object_put(reply);
    EXPECT_EQ(rr->reply->json_txt, nullptr);
    fq_const_request_reply_free_structs(&rr);

    ASSERT_EQ(seen_key.rfind("scan-", 0), 0u) << seen_key;
    EXPECT_TRUE(payload_matches);
    ASSERT_EQ(svc.bodies().size(), 1u);
    json_object* sent = json_tokener_parse(svc.bodies()[0].c_str());
    EXPECT_EQ(member_string(sent, "Path"), "a/b");
    EXPECT_EQ(member_int(sent, "Command"), 101);
    json_object_put(sent);
    for (const std::string& k : {seen_key, seen_key + "-0", seen_key + "-1"}) {
        char* value = nullptr;
        EXPECT_EQ(fq_nats_kv_get(cfg_, FQ_KV_SCAN_DATA_BUCKET, k.c_str(), &value, nullptr), 1) << k;
        free(value);
    }
}

TEST_F(NatsRequestTest, CallersKeyWinsOverDataAndIsNotDeleted)
{
    const auto staged = pattern(4096, 5);
    const auto other = pattern(100, 9);
    char* key = nullptr;
    char err[1024] = "";
    ASSERT_EQ(fq_connection_stage_scan_data(cfg_, staged.data(), staged.size(), 5000, &key, err), 0) << err;
    ASSERT_NE(key, nullptr);

    std::string seen_key;
    size_t seen_len = 0;
    fqtest::Responder svc(peer_, "fqt.scan.keyed", [&](const std::string& body) {
        json_object* req = json_tokener_parse(body.c_str());
        seen_key = member_string(req, "_kv_key");
        json_object_put(req);
        unsigned char* got = nullptr;
        if (kvstore_get_chunked(cfg_, seen_key.c_str(), &got, &seen_len) == 0)
            free(got);
        return std::optional<std::string>("{\"ReturnCode\": 0}");
    });
    fq_const_request_reply_t* rr = fq_const_request_reply_new();
    rr->request->json_txt = "{\"Command\": 101}";
    rr->request->data = other.data();
    rr->request->data_len = other.size();
    rr->request->staged_data_key = key;
    json_object* reply = fq_connection_send_recv_json_data(cfg_, "fqt.scan.keyed", rr, 3000, 0, 0, err);
    ASSERT_NE(reply, nullptr) << err;
    json_object_put(reply);
    fq_const_request_reply_free_structs(&rr);
    EXPECT_EQ(seen_key, key);
    EXPECT_EQ(seen_len, staged.size());

    char* meta = nullptr;
    EXPECT_EQ(fq_nats_kv_get(cfg_, FQ_KV_SCAN_DATA_BUCKET, key, &meta, nullptr), 0);
    free(meta);
    fq_connection_unstage_scan_data(cfg_, key);
    EXPECT_EQ(fq_nats_kv_get(cfg_, FQ_KV_SCAN_DATA_BUCKET, key, &meta, nullptr), 1);
    free(meta);
    free(key);
}

TEST_F(NatsRequestTest, TimedOutDataRequestLeavesPayloadForItsTtl)
{
    const auto data = pattern(1000, 1);
    fqtest::Responder silent(peer_, "fqt.scan.silent", [](const std::string&) { return std::nullopt; });
    fq_const_request_reply_t* rr = fq_const_request_reply_new();
    rr->request->json_txt = "{\"Command\": 101}";
    rr->request->data = data.data();
    rr->request->data_len = data.size();
    char err[1024] = "";
    EXPECT_EQ(fq_connection_send_recv_json_data(cfg_, "fqt.scan.silent", rr, 100, 50, 0, err), nullptr);
    fq_const_request_reply_free_structs(&rr);
    EXPECT_STREQ(err, "NATS: request to fqt.scan.silent timed out");
    ASSERT_EQ(silent.bodies().size(), 1u);
    json_object* req = json_tokener_parse(silent.bodies()[0].c_str());
    const std::string key = member_string(req, "_kv_key");
    json_object_put(req);
    ASSERT_FALSE(key.empty());
    char* meta = nullptr;
    EXPECT_EQ(fq_nats_kv_get(cfg_, FQ_KV_SCAN_DATA_BUCKET, key.c_str(), &meta, nullptr), 0);
    EXPECT_STREQ(meta, "{\"chunks\":1,\"size\":1000}");
    free(meta);
    fq_connection_unstage_scan_data(cfg_, key.c_str());
}

TEST_F(NatsRequestTest, NoKeyWithoutPayloadOrWhenTheTextIsNotJson)
{
    const auto data = pattern(10, 2);
    fqtest::Responder svc(peer_, "fqt.scan.raw",
                          [](const std::string&) { return std::optional<std::string>("{\"ReturnCode\": 0}"); });
    fq_const_request_reply_t* rr = fq_const_request_reply_new();
    rr->request->json_txt = "{\"Command\": 2}";
    rr->request->data = data.data();
    rr->request->data_len = 0;
    json_object* reply = fq_connection_send_recv_json_data(cfg_, "fqt.scan.raw", rr, 2000, 0, 0, nullptr);
    EXPECT_NE(reply, nullptr);
    json_object_put(reply);

    rr->request->json_txt = "not json at all";
    rr->request->data_len = data.size();
    reply = fq_connection_send_recv_json_data(cfg_, "fqt.scan.raw", rr, 2000, 0, 0, nullptr);
    EXPECT_NE(reply, nullptr);
    json_object_put(reply);
    fq_const_request_reply_free_structs(&rr);

    const auto bodies = svc.bodies();
    ASSERT_EQ(bodies.size(), 2u);
    EXPECT_EQ(bodies[0], "{\"Command\": 2}");
    EXPECT_EQ(bodies[1], "not json at all");
}

TEST(NatsBackoff, LimitsAndBudget)
{
    EXPECT_EQ(fq_nats_nr_attempt_timeout_ms(nullptr, 700), 700);
    EXPECT_EQ(fq_nats_nr_should_retry(nullptr, 5000, "x"), 0);

    fq_nats_nr_state_t st;
    fq_nats_nr_init(&st);
    EXPECT_EQ(st.retries, 0u);
    EXPECT_EQ(st.waited_ms, 0u);
    // Smaller than any first wait: refused at once.
    EXPECT_EQ(fq_nats_nr_should_retry(&st, 20, "x"), 0);
    EXPECT_EQ(st.waited_ms, 0u);

    ASSERT_EQ(fq_nats_nr_should_retry(&st, 5000, "x"), 1);
    EXPECT_EQ(st.retries, 1u);
    EXPECT_GE(st.waited_ms, 25u);
    EXPECT_LE(st.waited_ms, 37u);
    EXPECT_EQ(fq_nats_nr_attempt_timeout_ms(&st, 1000), 1000 - (int64_t)st.waited_ms);
    EXPECT_EQ(fq_nats_nr_attempt_timeout_ms(&st, 10), 0);

    st.retries = FQ_NATS_NR_MAX_RETRIES;
    EXPECT_EQ(fq_nats_nr_should_retry(&st, 5000, "x"), 0);
    st.retries = 3;
    st.waited_ms = 201;  // 200 more would pass the 400 ms cap
    EXPECT_EQ(fq_nats_nr_should_retry(&st, 5000, "x"), 0);
}

TEST(NatsNames, TtlWorkQueueNamesAndServiceLists)
{
    EXPECT_EQ(fq_kv_ttl_ms_for(0), 1000);
    EXPECT_EQ(fq_kv_ttl_ms_for(900), 1000);
    EXPECT_EQ(fq_kv_ttl_ms_for(910), 1001);
    EXPECT_EQ(fq_kv_ttl_ms_for(60000), 66000);

    char buf[256];
    fq_nats_wq_subject("fq.av.x", buf, sizeof(buf));
    EXPECT_STREQ(buf, "jobs.fq.av.x");
    fq_nats_wq_stream("fq.av.x", buf, sizeof(buf));
    EXPECT_STREQ(buf, "JOBS_fq_av_x");
    fq_nats_wq_durable("fq-av-scanproxy", buf, sizeof(buf));
    EXPECT_STREQ(buf, "WORK_fq-av-scanproxy");

    EXPECT_TRUE(fq_nats_wq_service_in_csv(",fq-av-mimescan ,,fq-av-cloudscan", "fq-av-cloudscan"));
    EXPECT_TRUE(fq_nats_wq_service_in_csv("fq-av-mimescan, fq-av-cloudscan", "fq-av-mimescan"));
    EXPECT_FALSE(fq_nats_wq_service_in_csv("fq-av-mime", "fq-av-mimescan"));
    EXPECT_FALSE(fq_nats_wq_service_in_csv("fq-av-mimescan", "fq-av-mime"));
    EXPECT_FALSE(fq_nats_wq_service_in_csv("FQ-AV-MIMESCAN", "fq-av-mimescan"));
    EXPECT_FALSE(fq_nats_wq_service_in_csv(nullptr, "x"));

    char k1[128], k2[128];
    generate_unique_key(k1, sizeof(k1));
    generate_unique_key(k2, sizeof(k2));
    EXPECT_EQ(std::string(k1).rfind("scan-", 0), 0u);
    EXPECT_STRNE(k1, k2);
}

}  // namespace
