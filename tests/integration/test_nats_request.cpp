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
#include "broker_test.h"
#include "fq_raii.h"
#include "samples.h"

namespace {

using Clock = std::chrono::steady_clock;

int64_t ms_since(Clock::time_point t0)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count();
}

using NatsRequestTest = fqtest::BrokerTest;

TEST_F(NatsRequestTest, ReplyComesBackAsObjectAndErrorTextIsLeftAlone)
{
    fqtest::Responder svc(suite.peer, "fqt.echo", [](const std::string& body) {
        return std::optional<std::string>("{\"ReturnCode\": 0, \"Echo\": " + body + "}");
    });
    char err[1024] = "untouched";
    const fqtest::Json reply(fq_connection_send_recv_json(suite.cfg, "fqt.echo", "{\"Command\": 3}", 2000, 0, err));
    EXPECT_EQ(fqtest::Json(reply.str("Echo")).num("Command"), 3) << reply.text();
    EXPECT_EQ(svc.count(), 1);
    EXPECT_STREQ(err, "untouched");
}

TEST_F(NatsRequestTest, SimpleRequestGivesReturnCodeOrMinusOne)
{
    fqtest::Responder virus(suite.peer, "fqt.virus",
                            [](const std::string&) { return std::optional<std::string>("{\"ReturnCode\": -210}"); });
    fqtest::Responder bare(suite.peer, "fqt.bare", [](const std::string&) { return std::optional<std::string>("{}"); });
    ASSERT_TRUE(virus.ok() && bare.ok());
    EXPECT_EQ(fq_connection_simple_request(suite.cfg, "fqt.virus", "{}", 2000, 0, nullptr), -210);
    EXPECT_EQ(fq_connection_simple_request(suite.cfg, "fqt.bare", "{}", 2000, 0, nullptr), -1);
    EXPECT_EQ(fq_connection_simple_request(suite.cfg, "fqt.nobody.simple", "{}", 20, 0, nullptr), -1);
    // A negative count is one attempt, not an endless series.
    fqtest::Responder silent(suite.peer, "fqt.silent.simple", [](const std::string&) { return std::nullopt; });
    EXPECT_EQ(fq_connection_simple_request(suite.cfg, "fqt.silent.simple", "{}", 100, -1, nullptr), -1);
    EXPECT_EQ(silent.count(), 1);
}

TEST_F(NatsRequestTest, EachTimeOutCostsOneAttemptWithoutPause)
{
    fqtest::Responder silent(suite.peer, "fqt.silent", [](const std::string&) { return std::nullopt; });
    ASSERT_TRUE(silent.ok());
    char err[1024] = "";
    const auto t0 = Clock::now();
    json_object* reply = fq_connection_send_recv_json(suite.cfg, "fqt.silent", "{}", 150, 2, err);
    const int64_t elapsed = ms_since(t0);
    EXPECT_EQ(reply, nullptr);
    EXPECT_TRUE(fqtest::wait_until([&] { return silent.count() >= 3; }, std::chrono::milliseconds(2000)));
    EXPECT_EQ(silent.count(), 3);
    EXPECT_STREQ(err, "NATS: request to fqt.silent timed out");
    EXPECT_GE(elapsed, 3 * 150 - 10);
    EXPECT_LT(elapsed, 3 * 150 + 400);
}

TEST_F(NatsRequestTest, NoRespondersBackOffStaysWithinItsBudget)
{
    const struct {
        uint32_t timeout_ms, retries;
        int failures, min_sleeps, max_sleeps;
        int64_t min_ms, max_ms;
    } cases[] = {
        // The first three waits always fit (at most 262 ms); a fourth only under the 400 ms cap.
        {5000, 0, 1, 3, 4, 25 + 50 + 100, 400 + 250},
        // Later attempts share the same allowance: they fail at once.
        {5000, 3, 4, 3, 4, 25 + 50 + 100, 400 + 250},
        // A budget smaller than the first wait gets no wait at all.
        {20, 0, 1, 0, 0, 0, 20 + 100},
    };
    for (const auto& c : cases) {
        fqtest::StderrCapture cap;
        char err[1024] = "";
        const auto t0 = Clock::now();
        EXPECT_EQ(fq_connection_send_recv_json(suite.cfg, "fqt.nobody", "{}", c.timeout_ms, c.retries, err), nullptr);
        const int64_t elapsed = ms_since(t0);
        EXPECT_EQ(std::string(err), std::string("NATS: request to fqt.nobody failed: ") +
                                        natsStatus_GetText(NATS_NO_RESPONDERS));
        EXPECT_EQ(cap.count("NATS: request to fqt.nobody failed"), c.failures) << c.retries;
        EXPECT_GE(cap.count("nats: no responders for fqt.nobody - backoff"), c.min_sleeps) << c.timeout_ms;
        EXPECT_LE(cap.count("nats: no responders for fqt.nobody - backoff"), c.max_sleeps) << c.timeout_ms;
        EXPECT_GE(elapsed, c.min_ms);
        EXPECT_LE(elapsed, c.max_ms);
    }
}

TEST_F(NatsRequestTest, BrokenRepliesEndTheRequestWithoutRetry)
{
    fqtest::Responder bad(suite.peer, "fqt.badjson",
                          [](const std::string&) { return std::optional<std::string>("{\"ReturnCode\": 0,"); });
    fqtest::Responder empty(suite.peer, "fqt.empty", [](const std::string&) { return std::optional<std::string>(""); });
    ASSERT_TRUE(bad.ok() && empty.ok());
    fqtest::StderrCapture cap;
    char err[1024] = "untouched";
    EXPECT_EQ(fq_connection_send_recv_json(suite.cfg, "fqt.badjson", "{}", 2000, 2, err), nullptr);
    EXPECT_EQ(bad.count(), 1);
    EXPECT_TRUE(cap.contains("NATS: failed to parse reply JSON from fqt.badjson"));
    EXPECT_EQ(fq_connection_send_recv_json(suite.cfg, "fqt.empty", "{}", 2000, 2, err), nullptr);
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
    EXPECT_EQ(fq_connection_send_recv_json(suite.cfg, nullptr, "{}", 100, 0, err), nullptr);
    EXPECT_STREQ(err, "NATS: invalid parameters for send_recv_json");
    EXPECT_EQ(fq_connection_send_recv_json_data(suite.cfg, "svc", nullptr, 100, 0, 0, err), nullptr);
    EXPECT_STREQ(err, "NATS: invalid parameters for send_recv_json_data");
    EXPECT_EQ(fq_connection_send_recv_json(suite.cfg, "svc", nullptr, 100, 0, nullptr), nullptr);
}

// 0 when key is in the staging bucket, 1 when not.
int staged(const std::string& key)
{
    char* value = nullptr;
    const int rc = fq_nats_kv_get(fqtest::BrokerTest::suite.cfg, FQ_KV_SCAN_DATA_BUCKET, key.c_str(), &value, nullptr);
    free(value);
    return rc;
}

std::vector<unsigned char> read_back(const std::string& key)
{
    unsigned char* got = nullptr;
    size_t len = 0;
    std::vector<unsigned char> out;
    if (kvstore_get_chunked(fqtest::BrokerTest::suite.cfg, key.c_str(), &got, &len) == 0)
        out.assign(got, got + len);
    free(got);
    return out;
}

// A data request as the scan driver makes it.
fqtest::Json data_request(const char* service, const char* text, const std::vector<unsigned char>& data,
                          const char* key, uint64_t timeout_ms, char* err = nullptr)
{
    fq_const_message_t request{text, data.data(), data.size(), key};
    fq_message_t reply{};
    fq_const_request_reply_t rr{&request, &reply};
    return fqtest::Json(fq_connection_send_recv_json_data(fqtest::BrokerTest::suite.cfg, service, &rr, timeout_ms, 50,
                                                          0, err));
}

// The payload is staged, only its key travels, the receiver reads it back whole, and the
// sender removes it once the reply is in.
TEST_F(NatsRequestTest, DataRequestStagesPayloadSendsKeyAndCleansUp)
{
    const auto data = fqtest::pattern(FQ_KV_CHUNK_SIZE + 75000, 3);
    std::vector<unsigned char> got;
    fqtest::Responder svc(suite.peer, "fqt.scan", [&](const std::string& body) {
        got = read_back(fqtest::Json(body).str("_kv_key"));
        return std::optional<std::string>("{\"ReturnCode\": 0, \"Command\": " + fqtest::Json(body).str("Command") + "}");
    });
    fq_const_message_t request{"{\"Command\": 101, \"Path\": \"a/b\"}", data.data(), data.size(), nullptr};
    fq_message_t reply{strdup("stale"), nullptr, 0, nullptr};
    fq_const_request_reply_t rr{&request, &reply};
    char err[1024] = "";
    const fqtest::Json r(fq_connection_send_recv_json_data(suite.cfg, "fqt.scan", &rr, 5000, 1000, 0, err));
    EXPECT_EQ(r.num("Command"), 101) << err;
    EXPECT_EQ(reply.json_txt, nullptr) << "a text left in the reply slot is released";
    EXPECT_TRUE(got == data);

    ASSERT_EQ(svc.bodies().size(), 1u);
    const fqtest::Json sent(svc.bodies()[0]);
    const std::string key = sent.str("_kv_key");
    ASSERT_EQ(key.rfind("scan-", 0), 0u) << key;
    EXPECT_EQ(sent.str("Path"), "a/b");
    for (const std::string& k : {key, key + "-0", key + "-1"})
        EXPECT_EQ(staged(k), 1) << k;
}

TEST_F(NatsRequestTest, CallersKeyWinsOverDataAndIsNotDeleted)
{
    const auto payload = fqtest::pattern(4096, 5);
    char* key = nullptr;
    ASSERT_EQ(fq_connection_stage_scan_data(suite.cfg, payload.data(), payload.size(), 5000, &key, nullptr), 0);
    fq_cstr_ptr key_guard(key);
    std::vector<unsigned char> got;
    fqtest::Responder svc(suite.peer, "fqt.scan.keyed", [&](const std::string& body) {
        got = read_back(fqtest::Json(body).str("_kv_key"));
        return std::optional<std::string>("{\"ReturnCode\": 0}");
    });
    EXPECT_EQ(data_request("fqt.scan.keyed", "{\"Command\": 101}", fqtest::pattern(100, 9), key, 3000).rc(), 0);
    EXPECT_TRUE(got == payload);
    EXPECT_EQ(staged(key), 0);
    fq_connection_unstage_scan_data(suite.cfg, key);
    EXPECT_EQ(staged(key), 1);
}

TEST_F(NatsRequestTest, TimedOutDataRequestLeavesPayloadForItsTtl)
{
    fqtest::Responder silent(suite.peer, "fqt.scan.silent", [](const std::string&) { return std::nullopt; });
    char err[1024] = "";
    EXPECT_FALSE(data_request("fqt.scan.silent", "{\"Command\": 101}", fqtest::pattern(1000, 1), nullptr, 100, err));
    EXPECT_STREQ(err, "NATS: request to fqt.scan.silent timed out");
    ASSERT_EQ(silent.bodies().size(), 1u);
    const std::string key = fqtest::Json(silent.bodies()[0]).str("_kv_key");
    ASSERT_FALSE(key.empty());
    EXPECT_EQ(staged(key), 0);
    fq_connection_unstage_scan_data(suite.cfg, key.c_str());
}

TEST_F(NatsRequestTest, NoKeyWithoutPayloadOrWhenTheTextIsNotJson)
{
    fqtest::Responder svc(suite.peer, "fqt.scan.raw",
                          [](const std::string&) { return std::optional<std::string>("{\"ReturnCode\": 0}"); });
    EXPECT_TRUE(data_request("fqt.scan.raw", "{\"Command\": 2}", {}, nullptr, 2000));
    EXPECT_TRUE(data_request("fqt.scan.raw", "not json at all", fqtest::pattern(10, 2), nullptr, 2000));
    EXPECT_EQ(svc.bodies(), (std::vector<std::string>{"{\"Command\": 2}", "not json at all"}));
}

TEST(NatsNames, BackoffLimitsTtlAndWorkQueueNames)
{
    fq_nats_nr_state_t st;
    fq_nats_nr_init(&st);
    EXPECT_EQ(fq_nats_nr_should_retry(&st, 20, "x"), 0) << "a budget smaller than any first wait";
    EXPECT_EQ(fq_nats_nr_attempt_timeout_ms(nullptr, 700), 700);
    EXPECT_EQ(fq_nats_nr_should_retry(nullptr, 5000, "x"), 0);
    st.retries = FQ_NATS_NR_MAX_RETRIES;
    EXPECT_EQ(fq_nats_nr_should_retry(&st, 5000, "x"), 0);
    st.retries = 3;
    st.waited_ms = 201;  // 200 more would pass the 400 ms cap
    EXPECT_EQ(fq_nats_nr_should_retry(&st, 5000, "x"), 0);

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

    char k1[128], k2[128];
    generate_unique_key(k1, sizeof(k1));
    generate_unique_key(k2, sizeof(k2));
    EXPECT_EQ(std::string(k1).rfind("scan-", 0), 0u);
    EXPECT_STRNE(k1, k2);
}

}  // namespace
