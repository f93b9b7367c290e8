// Log records and events as they are queued for fq-av-log and fq-av-events-dispatch.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sodium.h>
#include <stdlib.h>
#include <time.h>

#include <string>
#include <vector>

#include "fq_log.h"
#include "fq_raii.h"
#include "fq_uuid.h"
#include "json_util.h"
#include "process_util.h"
#include "stderr_capture.h"

using fqtest::json_at;
using fqtest::json_keys;
using Keys = std::vector<std::string>;

namespace {

json_object* message_data(const char* text)
{
    json_object* o = json_object_new_object();
    json_object_object_add(o, "Message", json_object_new_string(text));
    return o;
}

class LogRecords : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(q, nullptr); }
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
    fq_pqueue* q = fq_pqueue_open(dir.path().c_str(), "r.pq", 100, 1000000, O_CREAT, RINGBUFFER);
};

TEST_F(LogRecords, HeaderIsInOrderInUtcWithAnIdOfItsOwn)
{
    const char* tz = getenv("TZ");
    const std::string saved = tz ? tz : "";
    setenv("TZ", "America/St_Johns", 1);  // -03:30: any local time would show
    tzset();
    fq_json_ptr a(fq_log_create_message());
    fq_json_ptr b(fq_log_create_message());
    tz ? setenv("TZ", saved.c_str(), 1) : unsetenv("TZ");
    tzset();
    ASSERT_TRUE(a && b);

    EXPECT_EQ(json_keys(a.get()),
              (Keys{"LogVersion", "Timestamp", "Timestamp_epoch", "Component", "Hostname", "EventID"}));
    EXPECT_EQ(json_at(a.get(), {"LogVersion"}), "1");
    EXPECT_EQ(json_at(a.get(), {"Component"}), "fq-av-scanproxy");
    const time_t epoch = std::stoll(json_at(a.get(), {"Timestamp_epoch"}));
    struct tm tm;
    char utc[32];
    strftime(utc, sizeof(utc), "%Y-%m-%d %H:%M:%S", gmtime_r(&epoch, &tm));
    EXPECT_EQ(json_at(a.get(), {"Timestamp"}), utc);
    EXPECT_LE(labs(epoch - time(nullptr)), 5);

    uint64_t t = 0;
    const std::string id = json_at(a.get(), {"EventID"});
    EXPECT_EQ(fq_uuid_text_time(id.c_str(), &t), 0) << "time-based";
    EXPECT_EQ(id.size(), 36u);
    EXPECT_NE(id, json_at(b.get(), {"EventID"}));
    EXPECT_EQ(fq_log_create_message_with_eventID(nullptr), nullptr);
}

TEST_F(LogRecords, SectionsCarryLogDataAndTheRealmWhenThereIsOne)
{
    fq_json_ptr rec(fq_log_create_message());
    EXPECT_EQ(fq_log_add_log_section(rec.get(), "StatusLog", "", message_data("up")), 0);
    EXPECT_EQ(json_at(rec.get(), {"realmID"}), "") << "an empty realm adds no key";
    EXPECT_EQ(fq_log_add_log_section(rec.get(), "ErrorLog", "r1", message_data("bad")), 0);
    EXPECT_EQ(fq_log_add_log_section(rec.get(), "UpdateLog", "r2", message_data("new")), 0);
    const std::string before = json_object_to_json_string(rec.get());
    EXPECT_EQ(fq_log_add_log_section(rec.get(), "StatusLog", "r3", nullptr), -1);
    EXPECT_EQ(json_object_to_json_string(rec.get()), before) << "a failed call leaves the record as it was";
    EXPECT_EQ(json_at(rec.get(), {"realmID"}), "r2");
    EXPECT_EQ(json_at(rec.get(), {"ErrorLog", "LogData", "Message"}), "bad");
    EXPECT_EQ(json_at(rec.get(), {"StatusLog", "LogData", "Message"}), "up");

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
    EXPECT_EQ(json_keys(events[0].get()), (Keys{"LogVersion", "Timestamp", "Timestamp_epoch", "Component", "Hostname",
                                                "EventID", "Command", "Event"}));
    EXPECT_EQ(json_at(events[0].get(), {"Command"}), "501");
    json_object* ev = json_object_object_get(events[0].get(), "Event");
    EXPECT_EQ(json_keys(ev), (Keys{"Type", "Event-Message"}));
    EXPECT_EQ(json_at(ev, {"Type"}), "3010");

    EXPECT_EQ(json_keys(events[1].get()).at(7), "realmID") << "any realm given to an event is kept, also an empty one";
    EXPECT_EQ(json_at(events[1].get(), {"SID"}), "sid");
    EXPECT_EQ(json_keys(json_object_object_get(events[1].get(), "Event")),
              (Keys{"Type", "Filename", "Error", "Blocking-Reason", "Event-Message"}));
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
        const std::string b64 = json_at(events[i].get(), {"Event"});
        const std::string hex = json_at(events[i].get(), {"Nonce"});
        std::vector<unsigned char> nonce(crypto_secretbox_NONCEBYTES);
        ASSERT_EQ(sodium_hex2bin(nonce.data(), nonce.size(), hex.c_str(), hex.size(), nullptr, nullptr, nullptr), 0);
        std::vector<unsigned char> sealed(b64.size());
        size_t len = 0;
        ASSERT_EQ(sodium_base642bin(sealed.data(), sealed.size(), b64.c_str(), b64.size(), nullptr, &len, nullptr,
                                    sodium_base64_VARIANT_ORIGINAL),
                  0);
        ASSERT_GT(len, crypto_secretbox_MACBYTES);
        std::string plain(len - crypto_secretbox_MACBYTES, '\0');
        ASSERT_EQ(crypto_secretbox_open_easy(reinterpret_cast<unsigned char*>(plain.data()), sealed.data(), len,
                                             nonce.data(), key->encryption_key),
                  0);
        EXPECT_EQ(json_at(plain, {"Type"}), "3030");
        EXPECT_EQ(json_at(plain, {"Event-Message"}), i == 0 ? "first" : "second");
        nonces.push_back(nonce);
    }
    // No nonce is used twice under one key: the second is the first plus one.
    sodium_increment(nonces[0].data(), nonces[0].size());
    EXPECT_EQ(nonces[0], nonces[1]);
    fq_secretbox_free_key(key);
}

}  // namespace
