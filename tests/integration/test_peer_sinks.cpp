// tools/fq-av-log and tools/fq-av-events-dispatch as real processes: records delivered the way
// the worker's dispatcher delivers them, and the file they end up in.
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <signal.h>
#include <stdio.h>

#include <atomic>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "fq_connection_client.h"
#include "nats_server.h"
#include "process_util.h"

namespace {

using namespace std::chrono_literals;

const std::string kLogSink = std::string(FQ_BUILD_DIR) + "/fq-av-log";
const std::string kEventSink = std::string(FQ_BUILD_DIR) + "/fq-av-events-dispatch";

std::vector<std::string> lines_of(const std::string& path)
{
    std::vector<std::string> lines;
    std::istringstream in(fqtest::read_file(path));
    std::string line;
    while (std::getline(in, line))
        lines.push_back(line);
    return lines;
}

class PeerSinks : public ::testing::Test {
protected:
    static inline fqtest::NatsServer* server = nullptr;
    static inline fq_connection_config* cfg = nullptr;

    static void SetUpTestSuite()
    {
        server = new fqtest::NatsServer();
        std::string err;
        ASSERT_TRUE(server->start(&err)) << err;
        cfg = server->make_config();
        ASSERT_EQ(fq_connection_init(cfg), 0);
    }
    static void TearDownTestSuite()
    {
        fq_connection_deinit(cfg);
        fqtest::free_config(&cfg);
        delete server;
    }

    static fqtest::Child start(const std::string& program, const std::string& subject, const std::string& file,
                               const std::string& dir, const std::string& threads = "4")
    {
        fqtest::Child c =
            fqtest::spawn({program, "--broker", server->url(), "--file", file, "--threads", threads}, dir);
        const bool up = fqtest::wait_for([&] { return send(subject, "{\"Command\": 3}", 200) == 0; }, 10s);
        EXPECT_TRUE(up) << fqtest::read_file(c.stderr_path);
        return c;
    }

    // As the dispatcher sends an entry.
    static int send(const std::string& subject, const std::string& text, unsigned timeout_ms = 3000)
    {
        return fq_connection_simple_request(cfg, subject.c_str(), text.c_str(), timeout_ms, 0, nullptr);
    }
};

TEST_F(PeerSinks, LogSinkWritesOneCompactLinePerRecordAndLivesThroughRequestsThatAreNotJson)
{
    fqtest::TempDir dir;
    const std::string file = dir / "log.jsonl";
    fqtest::Child child = start(kLogSink, "fq-av-log", file, dir.path());

    const std::vector<std::string> records = {
        "{\n  \"LogVersion\": 1,\n  \"Timestamp\": \"2026-11-18 06:45:10\",\n  \"Timestamp_epoch\": 1794984310,\n"
        "  \"Component\": \"fq-av-scanproxy\",\n  \"EventID\": \"7f1c\",\n  \"realmID\": \"r/1\",\n"
        "  \"StatusLog\": {\"LogData\": {\"Message\": \"line one\\nline two \\\"quoted\\\" a/b\"}}\n}",
        "{\"LogVersion\":1,\"EventID\":\"second\",\"ErrorLog\":{\"LogData\":{\"Message\":\"\\u00e4rger\"}}}",
    };
    EXPECT_EQ(send("fq-av-log", records[0]), 0);
    for (const char* bad : {"not json", "{\"LogVersion\": 1", "[1, 2]", "{\"a\": 1} trailing", "\"text\""})
        EXPECT_EQ(send("fq-av-log", bad), -1) << bad;
    EXPECT_EQ(send("fq-av-log", records[1]), 0);

    const std::vector<std::string> lines = lines_of(file);
    ASSERT_EQ(lines.size(), records.size()) << "pings and refused requests are not written";
    for (size_t i = 0; i < records.size(); ++i) {
        json_object* sent = json_tokener_parse(records[i].c_str());
        json_object* written = json_tokener_parse(lines[i].c_str());
        ASSERT_NE(written, nullptr) << lines[i];
        EXPECT_TRUE(json_object_equal(sent, written)) << lines[i];
        const int flags = JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE;
        EXPECT_EQ(lines[i], json_object_to_json_string_ext(sent, flags));
        json_object_put(sent);
        json_object_put(written);
    }

    // A rotation: the file is moved away and SIGHUP makes the sink open a new one; no record is lost.
    ASSERT_EQ(rename(file.c_str(), (dir / "log.jsonl.1").c_str()), 0);
    ASSERT_EQ(kill(child.pid, SIGHUP), 0);
    int sent_after = 0;
    const bool reopened = fqtest::wait_for(
        [&] {
            EXPECT_EQ(send("fq-av-log", "{\"n\": " + std::to_string(sent_after++) + "}"), 0);
            return !fqtest::read_file(file).empty();
        },
        5s);
    ASSERT_TRUE(reopened);
    EXPECT_EQ(lines_of(dir / "log.jsonl.1").size() + lines_of(file).size(), records.size() + (size_t)sent_after);

    ASSERT_EQ(kill(child.pid, SIGTERM), 0);
    int status = -1;
    ASSERT_TRUE(fqtest::wait_exit(child.pid, 5s, &status));
    EXPECT_EQ(status, 0) << fqtest::read_file(child.stderr_path);
}

TEST_F(PeerSinks, EventSinkKeepsConcurrentRecordsWholeOnePerLine)
{
    fqtest::TempDir dir;
    const std::string file = dir / "events.jsonl";
    fqtest::Child child = start(kEventSink, "fq-av-events-dispatch", file, dir.path());

    constexpr int kClients = 4;
    constexpr int kPerClient = 40;
    const std::string filler(6000, 'e');
    std::atomic<int> failed{0};
    std::vector<std::thread> clients;
    for (int t = 0; t < kClients; ++t) {
        clients.emplace_back([&, t] {
            for (int i = 0; i < kPerClient; ++i) {
                const std::string id = std::to_string(t) + "-" + std::to_string(i);
                const std::string event = "{\"LogVersion\": 1, \"EventID\": \"" + id +
                                          "\", \"Command\": 501, \"Event\": {\"Type\": 3010, \"Event-Message\": \"" +
                                          filler + "\"}}";
                if (send("fq-av-events-dispatch", event) != 0)
                    ++failed;
            }
        });
    }
    for (auto& c : clients)
        c.join();
    EXPECT_EQ(failed.load(), 0);

    std::set<std::string> ids;
    const std::vector<std::string> lines = lines_of(file);
    EXPECT_EQ(lines.size(), (size_t)(kClients * kPerClient));
    for (const std::string& line : lines) {
        json_object* o = json_tokener_parse(line.c_str());
        json_object* id = nullptr;
        ASSERT_TRUE(o && json_object_object_get_ex(o, "EventID", &id)) << line.substr(0, 80);
        ids.insert(json_object_get_string(id));
        json_object_put(o);
    }
    EXPECT_EQ(ids.size(), (size_t)(kClients * kPerClient));

    ASSERT_EQ(kill(child.pid, SIGINT), 0);
    int status = -1;
    ASSERT_TRUE(fqtest::wait_exit(child.pid, 5s, &status));
    EXPECT_EQ(status, 0) << fqtest::read_file(child.stderr_path);
}

// A delivery repeated after a lost acknowledgement is acknowledged again but written once, also
// by a sink restarted in between.
TEST_F(PeerSinks, RepeatedEventIdIsWrittenOnceAcrossARestart)
{
    fqtest::TempDir dir;
    const std::string file = dir / "log.jsonl";
    auto record = [](const char* id) { return std::string("{\"EventID\": \"") + id + "\", \"StatusLog\": {}}"; };
    for (const std::vector<const char*>& ids : {std::vector<const char*>{"a", "a", "b"}, {"b", "a", "c"}}) {
        fqtest::Child child = start(kLogSink, "fq-av-log", file, dir.path(), "1");
        for (const char* id : ids)
            EXPECT_EQ(send("fq-av-log", record(id)), 0) << id;
        fqtest::stop_process(child.pid);
    }
    std::vector<std::string> ids;
    for (const std::string& line : lines_of(file)) {
        json_object* o = json_tokener_parse(line.c_str());
        json_object* id = nullptr;
        ASSERT_TRUE(o && json_object_object_get_ex(o, "EventID", &id)) << line;
        ids.emplace_back(json_object_get_string(id));
        json_object_put(o);
    }
    EXPECT_EQ(ids, (std::vector<std::string>{"a", "b", "c"}));
}

TEST(PeerSinksStart, FileThatCannotBeOpenedIsASetUpError)
{
    std::string out;
    EXPECT_EQ(fqtest::run_program({kEventSink, "--file", "/nonexistent-dir/events.jsonl", "--wait", "0"}, &out), 1);
    EXPECT_NE(out.find("/nonexistent-dir/events.jsonl"), std::string::npos) << out;
}

}  // namespace
