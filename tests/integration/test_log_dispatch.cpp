// The log dispatcher against a real broker: what reaches the sinks, in which order, what stays in
// the queue when a sink is away or refuses, and what a stop leaves behind.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "fq_log.h"
#include "json_util.h"
#include "nats_server.h"
#include "process_util.h"
#include "stderr_capture.h"

using namespace std::chrono_literals;

namespace {

const std::string kQueue = "fq-av-scanproxy.pq";

class LogDispatch : public ::testing::Test {
protected:
    static void SetUpTestSuite() { suite_.start(); }
    static void TearDownTestSuite() { suite_.stop(); }

    void SetUp() override
    {
        ASSERT_TRUE(suite_.error.empty()) << suite_.error;
        q = fq_pqueue_open(run.path().c_str(), kQueue.c_str(), 10000, 50000000, O_CREAT, RINGBUFFER);
        ASSERT_NE(q, nullptr);
    }
    void TearDown() override
    {
        if (dispatcher) {
            EXPECT_EQ(fq_log_stop_log_dispatcher(dispatcher, 15000), 0);
            fq_log_free_log_dispatcher(&dispatcher);
        }
        fq_pqueue_close(q);
    }

    void start() { ASSERT_NE(dispatcher = fq_log_create_log_dispatcher(run.path().c_str(), suite_.cfg), nullptr); }
    void push(char kind, const std::string& n)
    {
        const std::string text = "{\"n\": \"" + n + "\"}";
        ASSERT_EQ(fq_pqueue_push(q, kind, text.data(), text.size()), 0);
    }
    std::string data() const { return run / kQueue + "/data"; }
    std::vector<std::string> entries() const { return fqtest::list_dir(data()); }

    // The "n" of each body a sink got, in order.
    static std::vector<std::string> ns(const fqtest::Responder& sink)
    {
        std::vector<std::string> out;
        for (const std::string& body : sink.bodies())
            out.push_back(fqtest::json_at(body, {"n"}));
        return out;
    }
    static std::optional<std::string> ok(const std::string&) { return "{\"ReturnCode\": 0}"; }

    static inline fqtest::BrokerSuite suite_;
    fqtest::TempDir run;
    fq_pqueue* q = nullptr;
    fq_log_thread_param_t* dispatcher = nullptr;
};

TEST_F(LogDispatch, SinksThatComeLateGetEachKindOldestFirstAndCorruptEntriesAreDropped)
{
    for (const char* n : {"L1", "E1", "L2", "E2", "L3"})
        push(n[0], n);
    fqtest::write_file(data() + "/Lempty.dat", "");
    fqtest::write_file(data() + "/Enot-json.dat", "{\"cut\": ");
    ASSERT_EQ(symlink("/etc/hostname", (data() + "/Llink.dat").c_str()), 0);  // not opened through a link
    fqtest::write_file(data() + "/Xother.dat", "{}");

    fqtest::StderrCapture err;
    start();
    ASSERT_TRUE(fqtest::wait_for([&] { return err.count("Failed to send log/event entry") >= 2; }, 30s));
    EXPECT_EQ(entries().size(), 9u) << "nothing is lost while the sinks are away";

    fqtest::Responder logs(suite_.peer, "fq-av-log", ok);
    fqtest::Responder events(suite_.peer, "fq-av-events-dispatch", ok);
    ASSERT_TRUE(fqtest::wait_for([&] { return entries().size() == 1; }, 30s)) << ::testing::PrintToString(entries());
    EXPECT_EQ(entries(), std::vector<std::string>{"Xother.dat"});
    EXPECT_EQ(ns(logs), (std::vector<std::string>{"L1", "L2", "L3"}));
    EXPECT_EQ(ns(events), (std::vector<std::string>{"E1", "E2"}));
    EXPECT_TRUE(err.contains("Dropping unreadable/empty entry " + data() + "/claimed_"));
    EXPECT_EQ(err.count("Dropping unreadable/empty entry"), 2);
    EXPECT_EQ(err.count("Dropping non-JSON entry"), 1);
}

// A refusal costs the entry nothing: it is back under its first name, and the pause before the
// next try grows by 250 ms per failure in a row until one succeeds.
TEST_F(LogDispatch, RefusedEntryIsRestoredAndRetriedWithGrowingDelays)
{
    std::mutex mu;
    std::vector<std::chrono::steady_clock::time_point> at;
    int calls = 0;
    // A: refused three times, then taken. B: refused once, then taken.
    fqtest::Responder logs(suite_.peer, "fq-av-log", [&](const std::string&) {
        std::lock_guard<std::mutex> lock(mu);
        at.push_back(std::chrono::steady_clock::now());
        const int n = calls++;
        return std::optional<std::string>(n < 3 || n == 4 ? "{\"ReturnCode\": -1}" : "{\"ReturnCode\": 0}");
    });
    push('L', "A");
    const std::vector<std::string> first_name = entries();
    start();
    ASSERT_TRUE(fqtest::wait_for([&] { return logs.count() >= 1 && entries() == first_name; }, 10s));
    ASSERT_TRUE(fqtest::wait_for([&] { return logs.count() == 4 && entries().empty(); }, 20s));
    push('L', "B");
    ASSERT_TRUE(fqtest::wait_for([&] { return logs.count() == 6 && entries().empty(); }, 20s));

    auto gap_ms = [&](int i) {
        return std::chrono::duration_cast<std::chrono::milliseconds>(at[i + 1] - at[i]).count();
    };
    std::lock_guard<std::mutex> lock(mu);
    EXPECT_GE(gap_ms(0), 240);
    EXPECT_GE(gap_ms(1), 490);
    EXPECT_GE(gap_ms(2), 740);
    EXPECT_GT(gap_ms(2), gap_ms(1));
    EXPECT_GE(gap_ms(4), 240);
    EXPECT_LT(gap_ms(4), 900) << "the success in between set the delay back";
}

TEST_F(LogDispatch, StopInTheMiddleOfABatchGivesTheRestBack)
{
    fqtest::Responder logs(suite_.peer, "fq-av-log", [](const std::string& body) {
        std::this_thread::sleep_for(100ms);  // a slow sink keeps the dispatcher inside its batch
        return ok(body);
    });
    for (int i = 0; i < 40; ++i)
        push('L', std::to_string(i));
    start();
    ASSERT_TRUE(fqtest::wait_for([&] { return logs.count() >= 3; }, 20s));
    ASSERT_EQ(fq_log_stop_log_dispatcher(dispatcher, 15000), 0);
    fq_log_free_log_dispatcher(&dispatcher);

    const auto left = entries();
    for (const auto& name : left)
        EXPECT_EQ(name[0], 'L') << name;
    EXPECT_EQ(left.size() + static_cast<size_t>(logs.count()), 40u);
    EXPECT_LT(logs.count(), 40);
}

}  // namespace
