// Log records and events as they are queued for fq-av-log and fq-av-events-dispatch.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <sodium.h>
#include <stdlib.h>
#include <time.h>

#include <string>
#include <vector>

#include "fq_log.h"
#include "fq_raii.h"
#include "fq_uuid.h"
#include "process_util.h"
#include "stderr_capture.h"

namespace {

std::vector<std::string> keys_of(json_object* obj)
{
    std::vector<std::string> keys;
    json_object_object_foreach(obj, k, v)
    {
        (void)v;
        keys.emplace_back(k);
    }
    return keys;
}

const char* str(json_object* obj, const char* key)
{
    json_object* v = nullptr;
    return json_object_object_get_ex(obj, key, &v) ? json_object_get_string(v) : nullptr;
}

json_object* member(json_object* obj, const char* key)
{
    json_object* v = nullptr;
    return json_object_object_get_ex(obj, key, &v) ? v : nullptr;
}

json_object* message_data(const char* text)
{
    json_object* o = json_object_new_object();
    json_object_object_add(o, "Message", json_object_new_string(text));
    return o;
}

class LogRecords : public ::testing::Test {
protected:
    void SetUp() override
    {
        q = fq_pqueue_open(dir.path().c_str(), "r.pq", 100, 1000000, O_CREAT, RINGBUFFER);
        ASSERT_NE(q, nullptr);
    }
    void TearDown() override { fq_pqueue_close(q); }

    // The queued entries of one kind, parsed, oldest first.
    std::vector<fq_json_ptr> queued(const char* kind)
    {
        std::vector<fq_json_ptr> out;
        EXPECT_EQ(fq_pqueue_lock(q), 0);
        fq_pqueue_data** batch = nullptr;
        const int n = fq_pqueue_claim_batch(q, kind, 100, &batch);
        fq_pqueue_unlock(q);
        for (int i = 0; i < n; ++i) {
            EXPECT_EQ(fq_pqueue_data_read(batch[i]), 0);
            out.emplace_back(json_tokener_parse(static_cast<char*>(batch[i]->data)));
            unlink(batch[i]->id);
            fq_pqueue_data_free(batch[i]);
        }
        free(batch);
        return out;
    }

    fqtest::TempDir dir;
    fq_pqueue* q = nullptr;
};

TEST_F(LogRecords, HeaderIsInOrderInUtcWithAnIdOfItsOwn)
{
    const char* tz = getenv("TZ");
    const std::string saved = tz ? tz : "";
    setenv("TZ", "America/St_Johns", 1);  // -03:30: any local time would show
    tzset();
    fq_json_ptr a(fq_log_create_message());
    fq_json_ptr b(fq_log_create_message());
    if (tz)
        setenv("TZ", saved.c_str(), 1);
    else
        unsetenv("TZ");
    tzset();
    ASSERT_TRUE(a && b);

    EXPECT_EQ(keys_of(a.get()),
              (std::vector<std::string>{"LogVersion", "Timestamp", "Timestamp_epoch", "Component", "Hostname",
                                        "EventID"}));
    EXPECT_EQ(json_object_get_int(member(a.get(), "LogVersion")), 1);
    EXPECT_STREQ(str(a.get(), "Component"), "fq-av-scanproxy");
    const time_t epoch = json_object_get_int64(member(a.get(), "Timestamp_epoch"));
    struct tm tm;
    char utc[32];
    strftime(utc, sizeof(utc), "%Y-%m-%d %H:%M:%S", gmtime_r(&epoch, &tm));
    EXPECT_STREQ(str(a.get(), "Timestamp"), utc);
    EXPECT_LE(labs(epoch - time(nullptr)), 5);

    uint64_t t = 0;
    EXPECT_EQ(fq_uuid_text_time(str(a.get(), "EventID"), &t), 0) << "time-based";
    EXPECT_EQ(strlen(str(a.get(), "EventID")), 36u);
    EXPECT_STRNE(str(a.get(), "EventID"), str(b.get(), "EventID"));
    EXPECT_EQ(fq_log_create_message_with_eventID(nullptr), nullptr);
}

TEST_F(LogRecords, SectionsCarryLogDataAndTheRealmWhenThereIsOne)
{
    fq_json_ptr rec(fq_log_create_message());
    EXPECT_EQ(fq_log_add_log_section(rec.get(), "StatusLog", "", message_data("up")), 0);
    EXPECT_EQ(member(rec.get(), "realmID"), nullptr) << "an empty realm adds no key";
    EXPECT_EQ(fq_log_add_log_section(rec.get(), "ErrorLog", "r1", message_data("bad")), 0);
    EXPECT_EQ(fq_log_add_log_section(rec.get(), "UpdateLog", "r2", message_data("new")), 0);
    const std::string before = json_object_to_json_string(rec.get());
    EXPECT_EQ(fq_log_add_log_section(rec.get(), "StatusLog", "r3", nullptr), -1);
    EXPECT_EQ(json_object_to_json_string(rec.get()), before) << "a failed call leaves the record as it was";
    EXPECT_STREQ(str(rec.get(), "realmID"), "r2");
    EXPECT_STREQ(str(member(member(rec.get(), "ErrorLog"), "LogData"), "Message"), "bad");
    EXPECT_STREQ(str(member(member(rec.get(), "StatusLog"), "LogData"), "Message"), "up");

    ASSERT_EQ(fq_log_enqueue(q, 'L', rec.get()), 0);
    const auto logs = queued("L");
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_TRUE(json_object_equal(logs[0].get(), rec.get()));

    fq_json_ptr header_only(fq_log_create_message());
    fqtest::StderrCapture err;
    EXPECT_EQ(fq_log_enqueue(nullptr, 'L', header_only.get()), -1);
    EXPECT_EQ(err.stop(), "") << "records are dropped without a word while there is no queue";
    EXPECT_EQ(fq_log_enqueue(q, 'L', header_only.get()), 0) << "a record without sections is valid";
}

TEST_F(LogRecords, EventsHaveCommand501AndOnlyTheMembersGiven)
{
    ASSERT_EQ(
        fq_log_send_event(q, WORKER_EVENT_START_OK, nullptr, nullptr, nullptr, nullptr, nullptr, "ready", nullptr), 0);
    ASSERT_EQ(fq_log_send_event(q, WORKER_EVENT_START_ERROR, "", "sid", "f.zip", "boom", "blocked", "failed", nullptr),
              0);
    const auto events = queued("E");
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(keys_of(events[0].get()), (std::vector<std::string>{"LogVersion", "Timestamp", "Timestamp_epoch",
                                                                  "Component", "Hostname", "EventID", "Command",
                                                                  "Event"}));
    EXPECT_EQ(json_object_get_int(member(events[0].get(), "Command")), 501);
    json_object* ev = member(events[0].get(), "Event");
    EXPECT_EQ(keys_of(ev), (std::vector<std::string>{"Type", "Event-Message"}));
    EXPECT_EQ(json_object_get_int(member(ev, "Type")), 3010);

    EXPECT_STREQ(str(events[1].get(), "realmID"), "") << "any realm given to an event is kept, also an empty one";
    EXPECT_STREQ(str(events[1].get(), "SID"), "sid");
    EXPECT_EQ(keys_of(member(events[1].get(), "Event")),
              (std::vector<std::string>{"Type", "Filename", "Error", "Blocking-Reason", "Event-Message"}));
    EXPECT_TRUE(queued("L").empty());
}

TEST_F(LogRecords, EncryptedEventOpensWithTheKeyAndTheNonceBesideIt)
{
    ASSERT_GE(sodium_init(), 0);
    fq_secretbox_key_t* key = fq_secretbox_generate_key("event pass phrase");
    ASSERT_NE(key, nullptr);
    for (const char* text : {"first", "second"})
        ASSERT_EQ(fq_log_send_event(q, WORKER_EVENT_END, "realm", nullptr, nullptr, nullptr, nullptr, text, key), 0);
    const auto events = queued("E");
    ASSERT_EQ(events.size(), 2u);

    std::vector<std::vector<unsigned char>> nonces;
    for (size_t i = 0; i < events.size(); ++i) {
        const char* b64 = str(events[i].get(), "Event");
        const char* hex = str(events[i].get(), "Nonce");
        ASSERT_TRUE(b64 && hex);
        std::vector<unsigned char> nonce(crypto_secretbox_NONCEBYTES);
        ASSERT_EQ(sodium_hex2bin(nonce.data(), nonce.size(), hex, strlen(hex), nullptr, nullptr, nullptr), 0);
        std::vector<unsigned char> sealed(strlen(b64));
        size_t sealed_len = 0;
        ASSERT_EQ(sodium_base642bin(sealed.data(), sealed.size(), b64, strlen(b64), nullptr, &sealed_len, nullptr,
                                    sodium_base64_VARIANT_ORIGINAL),
                  0);
        std::string plain(sealed_len - crypto_secretbox_MACBYTES, '\0');
        ASSERT_EQ(crypto_secretbox_open_easy(reinterpret_cast<unsigned char*>(plain.data()), sealed.data(), sealed_len,
                                             nonce.data(), key->encryption_key),
                  0);
        fq_json_ptr event(json_tokener_parse(plain.c_str()));
        ASSERT_TRUE(event);
        EXPECT_EQ(json_object_get_int(member(event.get(), "Type")), 3030);
        EXPECT_STREQ(str(event.get(), "Event-Message"), i == 0 ? "first" : "second");
        nonces.push_back(nonce);
    }
    // No nonce is used twice under one key: the second is the first plus one.
    sodium_increment(nonces[0].data(), nonces[0].size());
    EXPECT_EQ(nonces[0], nonces[1]);
    fq_secretbox_free_key(key);
}

}  // namespace
