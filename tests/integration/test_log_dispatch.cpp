// The log dispatcher against a real broker: a sink that refuses, and the pause before each retry.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <mutex>
#include <string>
#include <vector>

#include "fq_log.h"
#include "nats_server.h"
#include "process_util.h"

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

    static inline fqtest::BrokerSuite suite_;
    fqtest::TempDir run;
    fq_pqueue* q = nullptr;
    fq_log_thread_param_t* dispatcher = nullptr;
};

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
    ASSERT_TRUE(fqtest::wait_until([&] { return logs.count() >= 1 && entries() == first_name; }, 10s));
    ASSERT_TRUE(fqtest::wait_until([&] { return logs.count() == 4 && entries().empty(); }, 20s));
    push('L', "B");
    ASSERT_TRUE(fqtest::wait_until([&] { return logs.count() == 6 && entries().empty(); }, 20s));

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

}  // namespace
