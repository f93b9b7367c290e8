// tools/fq-av-log and tools/fq-av-events-dispatch as real processes: records delivered the way
// the worker's dispatcher delivers them, and the file they end up in.
#include <json-c/json.h>
#include <signal.h>
#include <stdio.h>

#include <atomic>
#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "broker_test.h"

namespace {

using namespace std::chrono_literals;

std::vector<std::string> lines_of(const std::string& path)
{
    std::vector<std::string> lines;
    std::istringstream in(fqtest::read_file(path));
    std::string line;
    while (std::getline(in, line))
        lines.push_back(line);
    return lines;
}

class PeerSinks : public fqtest::BrokerTest {
protected:
    static fqtest::Child start(const std::string& program, const std::string& subject, const std::string& file)
    {
        fqtest::Child c = fqtest::spawn({fqtest::build_program(program), "--broker", suite.server->url(), "--file",
                                         file, "--threads", "4"},
                                        suite.dir->path());
        EXPECT_TRUE(fqtest::answers_ping(suite.peer, subject)) << fqtest::read_file(c.stderr_path);
        return c;
    }

    // As the dispatcher sends an entry.
    static int send(const std::string& subject, const std::string& text)
    {
        return fq_connection_simple_request(suite.cfg, subject.c_str(), text.c_str(), 3000, 0, nullptr);
    }
};

TEST_F(PeerSinks, LogSinkWritesOneCompactLinePerRecordAndLivesThroughRequestsThatAreNotJson)
{
    const std::string file = suite.dir->path() + "/log.jsonl";
    fqtest::Child child = start("fq-av-log", "fq-av-log", file);

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
        // The line is exactly the record's compact form: the same value, on one line.
        const fqtest::Json sent(records[i]);
        EXPECT_EQ(lines[i], json_object_to_json_string_ext(sent.get(), JSON_C_TO_STRING_PLAIN |
                                                                            JSON_C_TO_STRING_NOSLASHESCAPE));
    }

    // A rotation: the file is moved away and SIGHUP makes the sink open a new one; no record is lost.
    ASSERT_EQ(rename(file.c_str(), (file + ".1").c_str()), 0);
    ASSERT_EQ(kill(child.pid, SIGHUP), 0);
    int sent_after = 0;
    const bool reopened = fqtest::wait_until(
        [&] {
            EXPECT_EQ(send("fq-av-log", "{\"n\": " + std::to_string(sent_after++) + "}"), 0);
            return !fqtest::read_file(file).empty();
        },
        5s);
    ASSERT_TRUE(reopened);
    EXPECT_EQ(lines_of(file + ".1").size() + lines_of(file).size(), records.size() + (size_t)sent_after);

    ASSERT_EQ(kill(child.pid, SIGTERM), 0);
    int status = -1;
    ASSERT_TRUE(fqtest::wait_exit(child.pid, 5s, &status));
    EXPECT_EQ(status, 0) << fqtest::read_file(child.stderr_path);
}

TEST_F(PeerSinks, EventSinkKeepsConcurrentRecordsWholeOnePerLine)
{
    const std::string file = suite.dir->path() + "/events.jsonl";
    fqtest::Child child = start("fq-av-events-dispatch", "fq-av-events-dispatch", file);

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
    for (const std::string& line : lines)
        ids.insert(fqtest::Json(line).str("EventID"));
    EXPECT_EQ(ids.size(), (size_t)(kClients * kPerClient)) << "every line a whole record of its own";

    fqtest::stop_process(child.pid);
}

// A delivery repeated after a lost acknowledgement is acknowledged again but written once, also
// by a sink restarted in between.
TEST_F(PeerSinks, RepeatedEventIdIsWrittenOnceAcrossARestart)
{
    const std::string file = suite.dir->path() + "/repeated.jsonl";
    auto record = [](const char* id) { return std::string("{\"EventID\": \"") + id + "\", \"StatusLog\": {}}"; };
    for (const std::vector<const char*>& ids : {std::vector<const char*>{"a", "a", "b"}, {"b", "a", "c"}}) {
        fqtest::Child child = start("fq-av-log", "fq-av-log", file);
        for (const char* id : ids)
            EXPECT_EQ(send("fq-av-log", record(id)), 0) << id;
        fqtest::stop_process(child.pid);
    }
    std::vector<std::string> ids;
    for (const std::string& line : lines_of(file))
        ids.push_back(fqtest::Json(line).str("EventID"));
    EXPECT_EQ(ids, (std::vector<std::string>{"a", "b", "c"}));
}

TEST(PeerSinksStart, FileThatCannotBeOpenedIsASetUpError)
{
    std::string out;
    EXPECT_EQ(fqtest::run_program({fqtest::build_program("fq-av-events-dispatch"), "--file", "/nonexistent-dir/events.jsonl", "--wait", "0"}, &out), 1);
    EXPECT_NE(out.find("/nonexistent-dir/events.jsonl"), std::string::npos) << out;
}

}  // namespace
