// Staged payloads, the registry's writes and the bucket handle cache against a real broker.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "fq_connection_client.h"
#include "fq_nats_client.h"
#include "fq_provision.h"
#include "fqhlp_replies.h"
#include "broker_test.h"
#include "samples.h"

namespace {

std::string unique_key()
{
    char k[128];
    generate_unique_key(k, sizeof(k));
    return k;
}

class NatsKvTest : public fqtest::BrokerTest {
protected:
    // 0 found, 1 not found, -1 failure; the value in *value when given.
    static int get(const char* bucket, const std::string& key, std::string* value = nullptr)
    {
        char* v = nullptr;
        size_t len = 0;
        const int rc = fq_nats_kv_get(suite.cfg, bucket, key.c_str(), &v, &len);
        if (value)
            *value = v ? std::string(v, len) : "";
        free(v);
        return rc;
    }

    static void put_raw(const std::string& key, const std::string& value)
    {
        kvStore* kv = get_kvstore(suite.cfg);
        ASSERT_NE(kv, nullptr);
        ASSERT_EQ(kvStore_Put(nullptr, kv, key.c_str(), value.data(), (int)value.size()), NATS_OK);
    }

    // The header a stored message was written with, read straight from the bucket's stream.
    static std::string ttl_header(const char* bucket, const std::string& key)
    {
        natsMsg* msg = nullptr;
        const std::string stream = std::string("KV_") + bucket;
        const std::string subject = std::string("$KV.") + bucket + "." + key;
        if (js_GetLastMsg(&msg, static_cast<jsCtx*>(suite.cfg->_js), stream.c_str(), subject.c_str(), nullptr, nullptr) !=
            NATS_OK)
            return "(no message)";
        const char* v = nullptr;
        std::string out = natsMsgHeader_Get(msg, "Nats-TTL", &v) == NATS_OK && v ? v : "(no header)";
        natsMsg_Destroy(msg);
        return out;
    }

};

TEST_F(NatsKvTest, ChunkBoundariesAndExactMetadata)
{
    struct Case {
        size_t size;
        const char* meta;
        size_t chunks;
    };
    for (const Case& c : {Case{10, "{\"chunks\":1,\"size\":10}", 1}, Case{524288, "{\"chunks\":1,\"size\":524288}", 1},
                          Case{524289, "{\"chunks\":2,\"size\":524289}", 2}}) {
        SCOPED_TRACE(c.size);
        const auto data = fqtest::pattern(c.size, (unsigned)c.size);
        const std::string key = unique_key();
        ASSERT_EQ(kvstore_put_chunked(suite.cfg, key.c_str(), data.data(), data.size(), 5000), 0);

        std::string meta;
        ASSERT_EQ(get(FQ_KV_SCAN_DATA_BUCKET, key, &meta), 0);
        EXPECT_EQ(meta, c.meta);
        std::string last_chunk;
        EXPECT_EQ(get(FQ_KV_SCAN_DATA_BUCKET, key + "-" + std::to_string(c.chunks - 1), &last_chunk), 0);
        EXPECT_EQ(last_chunk.size(), c.size - (c.chunks - 1) * FQ_KV_CHUNK_SIZE);
        EXPECT_EQ(get(FQ_KV_SCAN_DATA_BUCKET, key + "-" + std::to_string(c.chunks)), 1);

        unsigned char* out = nullptr;
        size_t out_len = 0;
        ASSERT_EQ(kvstore_get_chunked(suite.cfg, key.c_str(), &out, &out_len), 0);
        ASSERT_EQ(out_len, data.size());
        EXPECT_EQ(memcmp(out, data.data(), out_len), 0);
        free(out);

        kvstore_delete_chunked(suite.cfg, key.c_str());
        EXPECT_EQ(get(FQ_KV_SCAN_DATA_BUCKET, key), 1);
        for (size_t i = 0; i < c.chunks; ++i)
            EXPECT_EQ(get(FQ_KV_SCAN_DATA_BUCKET, key + "-" + std::to_string(i)), 1);
    }
}

TEST_F(NatsKvTest, InvalidArgumentsStageOrRegisterNothing)
{
    char* key = reinterpret_cast<char*>(0x1);
    char err[1024] = "";
    EXPECT_EQ(fq_connection_stage_scan_data(suite.cfg, "x", 0, 1000, &key, nullptr), -1);
    EXPECT_EQ(key, nullptr);
    EXPECT_EQ(fq_nats_stage_scan_data(suite.cfg, nullptr, 5, 1000, &key, err), -1);
    EXPECT_STREQ(err, "NATS: invalid parameters for stage_scan_data");
    EXPECT_EQ(fq_connection_registry_put(suite.cfg, "", "{}", 1000), -1);
    EXPECT_EQ(fq_connection_registry_put(suite.cfg, "k", nullptr, 1000), -1);
    EXPECT_EQ(fq_connection_registry_put(nullptr, "k", "{}", 1000), -1);
}

TEST_F(NatsKvTest, EveryWriteCarriesItsTimeToLive)
{
    const auto data = fqtest::pattern(FQ_KV_CHUNK_SIZE + 1, 4);
    const std::string key = unique_key();
    ASSERT_EQ(kvstore_put_chunked(suite.cfg, key.c_str(), data.data(), data.size(), fq_kv_ttl_ms_for(5000)), 0);
    EXPECT_EQ(ttl_header(FQ_KV_SCAN_DATA_BUCKET, key), "5500ms");
    EXPECT_EQ(ttl_header(FQ_KV_SCAN_DATA_BUCKET, key + "-0"), "5500ms");
    EXPECT_EQ(ttl_header(FQ_KV_SCAN_DATA_BUCKET, key + "-1"), "5500ms");
    kvstore_delete_chunked(suite.cfg, key.c_str());

    // A registry record without a usable TTL lives 15 s.
    ASSERT_EQ(fq_connection_registry_put(suite.cfg, "fqt-ttl-default", "{}", 0), 0);
    EXPECT_EQ(ttl_header(FQ_KV_REGISTRY_BUCKET, "fqt-ttl-default"), "15000ms");
    ASSERT_EQ(fq_connection_registry_put(suite.cfg, "fqt-ttl-default", "{}", -5), 0);
    EXPECT_EQ(ttl_header(FQ_KV_REGISTRY_BUCKET, "fqt-ttl-default"), "15000ms");
    fq_connection_registry_delete(suite.cfg, "fqt-ttl-default");

    // This broker ignores the header and accepts the write: no fallback was needed.
    EXPECT_EQ(fq_nats_kv_msg_ttl_unsupported(), 0);
}

TEST_F(NatsKvTest, ForgedOrBrokenMetadataFailsClosed)
{
    struct Case {
        const char* name;
        std::string meta;
    };
    const std::vector<Case> cases = {
        {"size beyond any object", "{\"chunks\":5723,\"size\":3000000000}"},
        {"huge size, one chunk", "{\"chunks\":1,\"size\":9000000000000000000}"},
        {"too many chunks", "{\"chunks\":5,\"size\":10}"},
        {"too few chunks", "{\"chunks\":1,\"size\":524289}"},
        {"negative size", "{\"chunks\":1,\"size\":-10}"},
        {"members missing", "{\"size\":10}"},
        {"not JSON", "garbage"},
    };
    fqtest::StderrCapture cap;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string key = unique_key();
        put_raw(key, c.meta);
        put_raw(key + "-0", "0123456789");
        unsigned char* out = nullptr;
        size_t out_len = 12345;
        EXPECT_EQ(kvstore_get_chunked(suite.cfg, key.c_str(), &out, &out_len), -1);
        EXPECT_EQ(out, nullptr);
        EXPECT_EQ(out_len, 12345u);
        // Deleting never walks a forged chunk count; the record itself goes.
        kvstore_delete_chunked(suite.cfg, key.c_str());
        EXPECT_EQ(get(FQ_KV_SCAN_DATA_BUCKET, key), 1);
    }
    EXPECT_GE(cap.count("rejected: size="), 5);
    EXPECT_TRUE(cap.contains("NATS: KV metadata parse failed for"));
}

TEST_F(NatsKvTest, StagedObjectsAreReadStrictly)
{
    // Every byte of an object is accounted for by its metadata, or the object is not read.
    struct Case {
        const char* name;
        std::string meta;
        std::vector<std::string> chunks;  // written as <key>-0, <key>-1, ...
        const char* log;
    };
    const std::string& eicar = fqtest::kEicar;
    const std::vector<Case> cases = {
        {"chunk longer than an empty object", "{\"chunks\":1,\"size\":0}", {eicar}, "refused: chunk 0 holds"},
        {"chunk longer than announced", "{\"chunks\":1,\"size\":10}", {"0123456789X"}, "refused: chunk 0 holds"},
        {"chunk shorter than announced", "{\"chunks\":1,\"size\":100}", {std::string(50, 'b')}, "refused: chunk 0"},
        {"first of two chunks short", "{\"chunks\":2,\"size\":524300}",
         {std::string(FQ_KV_CHUNK_SIZE - 1, 'a'), std::string(13, 'c')}, "refused: chunk 0"},
        {"second chunk missing", "{\"chunks\":2,\"size\":524300}", {std::string(FQ_KV_CHUNK_SIZE, 'a')},
         "-1' failed after retries"},
        {"chunk beyond the announced ones", "{\"chunks\":1,\"size\":10}", {"0123456789", "more"},
         "a chunk beyond those its metadata announces exists"},
    };
    fqtest::StderrCapture cap;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string key = unique_key();
        put_raw(key, c.meta);
        for (size_t i = 0; i < c.chunks.size(); ++i)
            put_raw(key + "-" + std::to_string(i), c.chunks[i]);
        unsigned char* out = nullptr;
        size_t out_len = 0;
        EXPECT_EQ(kvstore_get_chunked(suite.cfg, key.c_str(), &out, &out_len), -1);
        EXPECT_EQ(out, nullptr);
        EXPECT_TRUE(cap.contains(c.log)) << cap.text();
    }
}

TEST_F(NatsKvTest, NamesTheBrokerCouldMisreadNeverReachIt)
{
    auto* nc = static_cast<natsConnection*>(suite.cfg->_conn);
    natsSubscription* tap = nullptr;
    ASSERT_EQ(natsConnection_SubscribeSync(&tap, nc, "probe.>"), NATS_OK);
    const std::vector<std::string> bad = {"a b", "x\r\nPUB probe.injected 5\r\nhello", std::string(4000, 'k'), "a*",
                                          ".lead", "a..b", ""};
    for (const std::string& key : bad) {
        SCOPED_TRACE(key.substr(0, 40));
        char err[1024] = "";
        EXPECT_EQ(fq_connection_send_recv_json(suite.cfg, key.c_str(), "{}", 200, 0, err), nullptr);
        EXPECT_NE(std::string(err).find("NATS: refusing the service name"), std::string::npos) << err;
        unsigned char* out = nullptr;
        size_t out_len = 0;
        EXPECT_EQ(kvstore_put_chunked(suite.cfg, key.c_str(), "abc", 3, 5000), -1);
        EXPECT_EQ(kvstore_get_chunked(suite.cfg, key.c_str(), &out, &out_len), -1);
        EXPECT_EQ(fq_connection_registry_put(suite.cfg, key.c_str(), "{}", 5000), -1);
        EXPECT_EQ(fq_nats_kv_put(suite.cfg, FQ_KV_REGISTRY_BUCKET, key.c_str(), "{}", 5000), -1);
    }
    // Nothing of it was written under any name the bucket could hold.
    kvStore* kv = get_registry_kvstore(suite.cfg);
    ASSERT_NE(kv, nullptr);
    kvKeysList keys{};
    const natsStatus s = kvStore_Keys(&keys, kv, nullptr);
    EXPECT_TRUE(s == NATS_OK || s == NATS_NOT_FOUND);
    for (int i = 0; i < keys.Count; ++i)
        EXPECT_EQ(std::string(keys.Keys[i]).find("probe"), std::string::npos) << keys.Keys[i];
    kvKeysList_Destroy(&keys);
    natsMsg* injected = nullptr;
    EXPECT_EQ(natsSubscription_NextMsg(&injected, tap, 300), NATS_TIMEOUT);
    natsMsg_Destroy(injected);
    natsSubscription_Destroy(tap);
}

TEST_F(NatsKvTest, ReplicaCatchUpFindsLateKeyAndGivesUpAfterHalfASecond)
{
    kvStore* kv = get_kvstore(suite.cfg);
    ASSERT_NE(kv, nullptr);
    const std::string late = unique_key();
    std::thread writer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        kvStore_PutString(nullptr, kv, late.c_str(), "here");
    });
    kvEntry* e = nullptr;
    const natsStatus s = kv_get_retry(kv, late.c_str(), &e);
    writer.join();
    EXPECT_EQ(s, NATS_OK);
    kvEntry_Destroy(e);
    kvStore_Delete(kv, late.c_str());

    const auto t0 = std::chrono::steady_clock::now();
    e = nullptr;
    EXPECT_EQ(kv_get_retry(kv, "fqt-never-written", &e), NATS_NOT_FOUND);
    const auto ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
    EXPECT_GE(ms, 500);
    EXPECT_LT(ms, 1500);
}

// Threads arriving at once at an empty cache end up with one handle, and closing the connection
// releases it.
TEST_F(NatsKvTest, BucketHandleIsBoundOnceAndReleasedWithTheConnection)
{
    fq_connection_config* fresh = suite.server->make_config();
    ASSERT_EQ(fq_connection_init(fresh), 0);
    constexpr int kThreads = 8;
    std::vector<kvStore*> scan(kThreads);
    std::atomic<int> ready{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back([&, i] {
            ready.fetch_add(1);
            while (ready.load() < kThreads) {
            }
            scan[i] = get_kvstore(fresh);
        });
    for (auto& t : threads)
        t.join();
    ASSERT_NE(scan[0], nullptr);
    for (int i = 0; i < kThreads; ++i)
        EXPECT_EQ(scan[i], scan[0]);
    EXPECT_EQ(fresh->_kv, scan[0]);
    fq_connection_deinit(fresh);
    EXPECT_EQ(fresh->_conn, nullptr);
    EXPECT_EQ(fresh->_kv, nullptr);
    fqtest::free_config(&fresh);
}

}  // namespace
