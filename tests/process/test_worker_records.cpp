// The worker's log records and events through the on-disk queue, with the real worker, the real
// reference sinks and a real broker: sinks that come late, restarts, SIGKILL, a broker outage,
// several processes on one queue, and a full queue.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>
#include <unistd.h>

#include <map>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "fq_pqueue.h"
#include "json_util.h"
#include "worker_fixture.h"

using namespace std::chrono_literals;
using fqtest::json_at;
using fqtest::read_file;

namespace {

const std::string kQueue = "fq-av-scanproxy.pq";

std::vector<std::string> s_lines(const std::string& path)
{
    std::vector<std::string> out;
    std::istringstream in(read_file(path));
    for (std::string line; std::getline(in, line);)
        out.push_back(line);
    return out;
}

// What a record says: the StatusLog message of a log record, "<Type> <Event-Message>" of an event.
std::vector<std::string> s_said(const std::string& path)
{
    std::vector<std::string> out;
    for (const std::string& l : s_lines(path)) {
        const std::string type = json_at(l, {"Event", "Type"});
        out.push_back(type.empty() ? json_at(l, {"StatusLog", "LogData", "Message"})
                                   : type + " " + json_at(l, {"Event", "Event-Message"}));
    }
    return out;
}

int s_count(const std::string& text, const std::string& needle)
{
    int n = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1))
        ++n;
    return n;
}

class WorkerRecords : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(env.ok()) << env.error(); }
    void TearDown() override
    {
        for (pid_t pid : {sink_log.pid, sink_events.pid})
            fqtest::stop_process(pid);
    }

    // The reference sinks, writing to log.jsonl and events.jsonl; started again if they ended.
    void start_sinks()
    {
        for (auto [child, program, file] : {std::tuple{&sink_log, "fq-av-log", &log_file},
                                            std::tuple{&sink_events, "fq-av-events-dispatch", &event_file}}) {
            if (child->pid > 0 && fqtest::process_alive(child->pid))
                continue;
            if (child->pid > 0)
                fqtest::wait_exit(child->pid, 1s, nullptr);
            *child = fqtest::spawn({std::string(FQ_BUILD_DIR "/") + program, "--broker", env.server.url(), "--file",
                                    *file, "--threads", "1", "--wait", "30s"},
                                   env.dir.path());
        }
    }
    fqtest::Child worker(const std::vector<std::string>& extra = {})
    {
        std::vector<std::string> args = {"--console-mode", "--worker-threads", "2"};
        args.insert(args.end(), extra.begin(), extra.end());
        return env.spawn_worker(args);
    }
    int stop(const fqtest::Child& w, int sig = SIGTERM)
    {
        kill(w.pid, sig);
        int status = -1;
        EXPECT_TRUE(fqtest::wait_exit(w.pid, 30s, &status)) << "worker " << w.pid << " did not end";
        return status;
    }
    bool wait_trace_count(const std::string& text, int n, std::chrono::milliseconds limit = 60s)
    {
        return fqtest::wait_until([&] { return s_count(env.trace_text(), text) >= n; }, limit);
    }
    bool wait_said(const std::string& path, const std::string& what)
    {
        return fqtest::wait_until([&] { return s_count(read_file(path), what) > 0; }, 60s);
    }
    std::string data() const { return env.basedir + "/run/" + kQueue + "/data"; }
    std::vector<std::string> entries() const { return fqtest::list_dir(data()); }
    // A queue made before any worker, with limits in its control file that every worker keeps.
    void make_queue(size_t max_entries)
    {
        const std::string run = env.basedir + "/run";
        ASSERT_EQ(fq_pqueue_close(fq_pqueue_open(run.c_str(), kQueue.c_str(), max_entries, 50000000, O_CREAT, FAIL)),
                  0);
    }

    fqtest::WorkerEnv env;
    std::string log_file = env.dir / "log.jsonl";
    std::string event_file = env.dir / "events.jsonl";
    fqtest::Child sink_log;
    fqtest::Child sink_events;
};

// The records of a worker that ran and stopped while the sinks were away, and of the next worker
// on the same base directory, reach the sinks once they appear, in the order they were made;
// corrupt entries on the way are dropped and hold nothing up.
TEST_F(WorkerRecords, SinksThatComeLateGetEveryRecordOfEveryStartInOrderPerKind)
{
    const fqtest::Child first = worker();
    ASSERT_TRUE(env.wait_ready()) << read_file(first.stderr_path);
    ASSERT_TRUE(fqtest::wait_until([&] { return entries().size() >= 2; }, 10s));
    EXPECT_EQ(stop(first), 0);
    for (const std::string& name : entries())
        EXPECT_NE(name.rfind("claimed_", 0), 0u) << "a stop gives back what its dispatcher held: " << name;
    fqtest::write_file(data() + "/Lempty.dat", "");
    fqtest::write_file(data() + "/Enot-json.dat", "{\"cut\": ");
    fqtest::write_file(data() + "/Xother.dat", "{}");  // no kind: never claimed
    const fqtest::Child second = worker();
    ASSERT_TRUE(wait_trace_count("ready with 2 threads", 2)) << read_file(second.stderr_path);

    start_sinks();
    ASSERT_TRUE(fqtest::wait_until([&] { return s_lines(log_file).size() >= 3 && s_lines(event_file).size() >= 3; },
                                   60s));
    const std::string one = "Scan proxy worker, PID " + std::to_string(first.pid);
    const std::string two = "Scan proxy worker, PID " + std::to_string(second.pid);
    EXPECT_EQ(s_said(log_file), (std::vector<std::string>{one + " ready with 2 threads", one + " shutting down",
                                                          two + " ready with 2 threads"}));
    EXPECT_EQ(s_said(event_file), (std::vector<std::string>{"3010 " + one + " ready with 2 threads",
                                                            "3030 " + one + " shutting down",
                                                            "3010 " + two + " ready with 2 threads"}));
    EXPECT_EQ(stop(second), 0);
    EXPECT_EQ(s_lines(log_file).size(), 4u) << "the last record of a stop with the sinks there is delivered";
    EXPECT_EQ(entries(), std::vector<std::string>{"Xother.dat"});
    EXPECT_TRUE(env.trace_has("Dropping unreadable/empty entry " + data() + "/claimed_"));
    EXPECT_TRUE(env.trace_has("Dropping non-JSON entry " + data() + "/claimed_"));
}

// A worker killed while it is delivering leaves its claimed entry on disk; a start after it has
// aged past the stale-claim age gives it back to the queue and delivers it.
TEST_F(WorkerRecords, RecordsClaimedByAKilledWorkerAreDeliveredByALaterStart)
{
    const fqtest::Child first = [&] {
        // A log sink that never answers keeps the dispatcher inside its send.
        fqtest::Responder silent(env.peer, "fq-av-log", [](const std::string&) { return std::nullopt; });
        const fqtest::Child w = worker();
        // The ready record is out on its way; the event before it has been given back.
        const std::string claimed = "claimed_" + std::to_string(w.pid) + "_";
        EXPECT_TRUE(fqtest::wait_until(
            [&] {
                std::ostringstream names;
                for (const auto& n : entries())
                    names << n << "\n";
                return s_count(names.str(), claimed + "L") == 1 && s_count(names.str(), claimed + "E") == 0;
            },
            30s));
        EXPECT_EQ(stop(w, SIGKILL), 128 + SIGKILL);
        return w;
    }();
    ASSERT_FALSE(HasFailure());
    for (const auto& name : entries()) {
        struct timeval tv[2];
        gettimeofday(&tv[0], nullptr);
        tv[0].tv_sec -= 7200;  // past the age at which a claim counts as abandoned
        tv[1] = tv[0];
        ASSERT_EQ(utimes((data() + "/" + name).c_str(), tv), 0);
    }

    start_sinks();
    const fqtest::Child second = worker();
    EXPECT_TRUE(wait_said(log_file, "PID " + std::to_string(first.pid) + " ready with 2 threads"))
        << read_file(log_file);
    EXPECT_TRUE(env.trace_has("Re-entered 1 stale claimed queue entry into the dispatch pool"));
    EXPECT_EQ(stop(second), 0);
}

// Events made while the broker is away wait on disk and arrive once it is back, each exactly once.
TEST_F(WorkerRecords, BrokerAwayForTenSecondsLosesNoRecord)
{
    start_sinks();
    const fqtest::Child w = worker({"--autoscale", "--autoscale-monitoring-period", "2"});
    // The main loop's own line, once per event (the record's text shows up in other lines too).
    const std::string lwm = "s_report_load(): Load Low-Water mark met";
    ASSERT_TRUE(wait_said(event_file, "Low-Water")) << read_file(w.stderr_path);

    env.server.stop();
    const auto down_at = std::chrono::steady_clock::now();
    const int before = s_count(env.trace_text(), lwm);
    // About one low-water event a second is made meanwhile.
    ASSERT_TRUE(wait_trace_count(lwm, before + 8));
    ASSERT_TRUE(fqtest::wait_until([&] { return std::chrono::steady_clock::now() - down_at >= 10s; }, 30s));
    std::string error;
    ASSERT_TRUE(env.server.start(&error)) << error;
    const int64_t back_at = time(nullptr);

    const bool delivered = fqtest::wait_until(
        [&] {
            start_sinks();  // a sink whose connection gave up during the outage has ended
            for (const std::string& l : s_lines(event_file))
                if (std::stoll("0" + json_at(l, {"Timestamp_epoch"})) >= back_at)
                    return true;
            return false;
        },
        30s);
    ASSERT_TRUE(delivered) << read_file(event_file);
    EXPECT_EQ(stop(w), 0);

    std::set<std::string> ids;
    for (const std::string& file : {log_file, event_file})
        for (const std::string& l : s_lines(file))
            EXPECT_TRUE(ids.insert(json_at(l, {"EventID"})).second) << "delivered twice: " << l;
    EXPECT_EQ(s_count(read_file(event_file), "\"Type\":3070"), s_count(env.trace_text(), lwm));
    EXPECT_TRUE(entries().empty());
}

// 4 processes push 2,500 records each into the queue of two workers that share a base directory;
// the dispatchers of both deliver every record exactly once and leave the queue empty.
TEST_F(WorkerRecords, SeveralProcessesShareOneQueueAndEveryRecordArrivesOnce)
{
    constexpr int kPushers = 4;
    constexpr int kPerPusher = 2500;
    make_queue(2 * kPushers * kPerPusher);
    std::mutex mu;
    std::map<std::string, int> seen;
    auto sink = [&](const std::string& body) {
        const std::string id = json_at(body, {"id"});  // the workers' own records have none
        std::lock_guard<std::mutex> lock(mu);
        if (!id.empty())
            ++seen[id];
        return std::optional<std::string>("{\"ReturnCode\": 0}");
    };
    fqtest::Responder logs(env.peer, "fq-av-log", sink);
    fqtest::Responder events(env.peer, "fq-av-events-dispatch", sink);
    const fqtest::Child a = worker();
    const fqtest::Child b = worker();
    std::vector<pid_t> pushers;
    for (int p = 0; p < kPushers; ++p) {
        const pid_t pid = fork();
        if (pid == 0) {
            fq_pqueue* q = fq_pqueue_open((env.basedir + "/run").c_str(), kQueue.c_str(), 1, 1, O_CREAT, FAIL);
            int failed = q ? 0 : 1;
            for (int i = 0; q && i < kPerPusher; ++i) {
                const std::string text = "{\"id\": \"" + std::to_string(p) + "-" + std::to_string(i) + "\"}";
                failed += fq_pqueue_push(q, i % 2 ? 'E' : 'L', text.data(), text.size()) != 0;
            }
            _exit(failed ? 1 : 0);
        }
        pushers.push_back(pid);
    }
    for (pid_t pid : pushers) {
        int status = -1;
        EXPECT_TRUE(fqtest::wait_exit(pid, 60s, &status));
        EXPECT_EQ(status, 0);
    }
    EXPECT_TRUE(fqtest::wait_until(
        [&] {
            std::lock_guard<std::mutex> lock(mu);
            return seen.size() == static_cast<size_t>(kPushers * kPerPusher);
        },
        60s));
    EXPECT_TRUE(fqtest::wait_until([&] { return entries().empty(); }, 10s));
    {
        std::lock_guard<std::mutex> lock(mu);
        for (const auto& [id, n] : seen)
            EXPECT_EQ(n, 1) << id;
    }
    // Both dispatchers took their part.
    const std::string trace = env.trace_text();
    for (const fqtest::Child& w : {a, b}) {
        EXPECT_GT(s_count(trace, "claimed_" + std::to_string(w.pid) + "_"), 0) << w.pid;
        EXPECT_EQ(stop(w), 0);
    }
}

// A queue at its limit refuses the worker's records with the warning; the worker serves all the same.
TEST_F(WorkerRecords, FullQueueRefusesRecordsAndTheWorkerGoesOnServing)
{
    make_queue(3);
    for (const char* name : {"Xa.dat", "Xb.dat", "Xc.dat"})  // never claimed, but they take room
        fqtest::write_file(data() + "/" + name, "{}");
    const fqtest::Child w = worker();
    ASSERT_TRUE(env.wait_ready()) << read_file(w.stderr_path);
    ASSERT_TRUE(wait_trace_count("Queue full: 3 Elements (max 3)", 2, 10s));
    EXPECT_EQ(env.request("fq-av-scanproxy", "{\"Command\": 3}").value_or("no reply"), "{\"ReturnCode\": 0}");
    EXPECT_EQ(stop(w), 0);
    EXPECT_EQ(entries(), (std::vector<std::string>{"Xa.dat", "Xb.dat", "Xc.dat"}));
}

}  // namespace
