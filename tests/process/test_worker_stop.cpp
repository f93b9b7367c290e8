// A worker under a service manager: it stops within two seconds whatever it is doing, answers or
// fails every scan it holds when it stops, ends at once on a failure no retry can cure, and comes
// back by itself after a broker outage of any length.
#include <gtest/gtest.h>

#include <signal.h>

#include <atomic>
#include <set>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "worker_fixture.h"

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

// What an operator's service manager allows a stop.
constexpr auto kStopLimit = 2s;

// SIGTERM, then the exit status within the limit (or -1 if it did not end in time).
int s_stop_within_limit(pid_t pid)
{
    kill(pid, SIGTERM);
    int status = -1;
    if (!fqtest::wait_exit(pid, kStopLimit, &status)) {
        fqtest::stop_process(pid);
        return -1;
    }
    return status;
}

TEST(WorkerStop, EndsWithinTwoSecondsInEveryPhaseOfItsStart)
{
    {
        SCOPED_TRACE("broker unreachable, start-up connect attempts");
        fqtest::WorkerEnv env;
        ASSERT_TRUE(env.ok()) << env.error();
        auto args = env.args({"--console-mode", "--worker-threads", "1"});
        args[4] = "nats://127.0.0.1:" + std::to_string(fqtest::free_tcp_port());
        auto child = fqtest::spawn(args, env.dir.path());
        ASSERT_TRUE(fqtest::wait_until([&] { return env.trace_has("failed transiently on attempt 2/5"); }, 20s))
            << env.trace_text();
        EXPECT_EQ(0, s_stop_within_limit(child.pid));
        EXPECT_TRUE(env.trace_has("Ending worker with rc=0"));

        SCOPED_TRACE("broker unreachable, connection handed to the background");
        child = fqtest::spawn(args, env.dir.path());
        ASSERT_TRUE(fqtest::wait_until([&] { return env.trace_has("Waiting for the broker at"); }, 20s))
            << env.trace_text();
        EXPECT_EQ(0, s_stop_within_limit(child.pid));
        EXPECT_FALSE(env.trace_semaphore_left());
    }
    {
        SCOPED_TRACE("control service absent");
        fqtest::WorkerEnv env(false);
        ASSERT_TRUE(env.ok()) << env.error();
        auto child = env.spawn_worker({"--console-mode", "--worker-threads", "2"});
        ASSERT_TRUE(fqtest::wait_until([&] { return env.trace_has("Waiting for service fq-av-worker-control"); }, 20s));
        EXPECT_EQ(0, s_stop_within_limit(child.pid));
    }
    {
        SCOPED_TRACE("serving");
        fqtest::WorkerEnv env;
        ASSERT_TRUE(env.ok()) << env.error();
        auto child = env.spawn_worker({"--console-mode", "--worker-threads", "4", "--register-interval", "1"});
        ASSERT_TRUE(env.wait_ready()) << env.trace_text();
        const std::string control = fqtest::WorkerEnv::control_subject(child.pid);
        ASSERT_TRUE(fqtest::wait_until([&] { return env.registry_get(control).has_value(); }, 10s));
        EXPECT_EQ(0, s_stop_within_limit(child.pid));
        EXPECT_FALSE(env.registry_get(control).has_value());
        EXPECT_FALSE(env.trace_semaphore_left());
    }
}

TEST(WorkerStop, EveryScanItHoldsGetsAnAnswer)
{
    fqtest::WorkerEnv env;
    ASSERT_TRUE(env.ok()) << env.error();
    // One engine answers at once; the other never does, so its scans are still in work at the stop.
    fqtest::Responder quick(env.peer, "fq-av-quick", [](const std::string&) {
        return std::string("{\"ReturnCode\": 0, \"FilesScanned\": 0, \"Results\": []}");
    });
    fqtest::Responder silent(env.peer, "fq-av-silent", [](const std::string&) { return std::nullopt; });
    auto child = env.spawn_worker({"--console-mode", "--worker-threads", "24"});
    ASSERT_TRUE(env.wait_ready()) << env.trace_text();
    const std::string key = env.stage("abcd");
    ASSERT_FALSE(key.empty());

    // All jobs are at the broker before the stop: some in work, some queued behind a busy thread.
    constexpr int kScans = 20;
    natsSubscription* inbox = nullptr;
    ASSERT_EQ(NATS_OK, natsConnection_SubscribeSync(&inbox, env.peer, "fqt-replies.*"));
    for (int i = 0; i < kScans; ++i) {
        const char* services = i % 2 ? "fq-av-quick;fq-av-silent" : "fq-av-silent";
        const std::string job = env.scan_job(key, json_object_new_string(services), 4, 30000);
        ASSERT_EQ(NATS_OK, natsConnection_PublishRequestString(env.peer, "fq-av-scanproxy",
                                                               ("fqt-replies." + std::to_string(i)).c_str(),
                                                               job.c_str()));
    }
    ASSERT_EQ(NATS_OK, natsConnection_Flush(env.peer));
    ASSERT_TRUE(fqtest::wait_until([&] { return silent.count() >= kScans / 2; }, 20s)) << silent.count();

    EXPECT_EQ(0, s_stop_within_limit(child.pid));
    // Each client hears from the worker, and none of them is told "clean".
    std::set<std::string> answered;
    for (int i = 0; i < kScans; ++i) {
        natsMsg* raw = nullptr;
        if (natsSubscription_NextMsg(&raw, inbox, 3000) != NATS_OK)
            break;
        answered.insert(natsMsg_GetSubject(raw));
        const auto v = env.verdict(std::string(natsMsg_GetData(raw), (size_t)natsMsg_GetDataLength(raw)));
        EXPECT_EQ(-1000, v.rc) << v.error;
        EXPECT_TRUE(v.error == "Scan abandoned: the worker is stopping" ||
                    v.error == "Scan refused: the worker is stopping")
            << v.error;
        natsMsg_Destroy(raw);
    }
    EXPECT_EQ(kScans, (int)answered.size());
    natsSubscription_Destroy(inbox);
    EXPECT_TRUE(env.trace_has("Ending worker with rc=0"));
}

TEST(WorkerStop, AFailureNoRetryCanCureEndsTheStartWithItsReason)
{
    struct Case {
        const char* name;
        std::vector<std::string> extra;
        const char* reason;
    };
    fqtest::NatsServer locked({.user = "worker", .password = "right"});
    std::string err;
    ASSERT_TRUE(locked.start(&err)) << err;
    fqtest::WorkerEnv env;
    ASSERT_TRUE(env.ok()) << env.error();
    fqtest::write_file(env.dir / "not-a-cert.pem", "this is no certificate\n");
    const std::vector<Case> cases = {
        {"refused credentials", {"--broker", locked.url(), "--broker-user", "worker", "--broker-password", "wrong"},
         "Authorization Violation"},
        {"CA file missing", {"--broker-cert", env.dir / "missing.pem"}, "LoadCATrustedCertificates"},
        {"CA file that is no certificate", {"--broker-cert", env.dir / "not-a-cert.pem"}, "LoadCATrustedCertificates"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        unlink(env.trace.c_str());
        std::vector<std::string> extra = {"--console-mode", "--worker-threads", "1"};
        extra.insert(extra.end(), c.extra.begin(), c.extra.end());
        auto child = env.spawn_worker(extra);
        int status = -1;
        ASSERT_TRUE(fqtest::wait_exit(child.pid, 15s, &status)) << env.trace_text();
        EXPECT_EQ(255, status);
        EXPECT_TRUE(env.trace_has(c.reason)) << env.trace_text();
        EXPECT_TRUE(env.trace_has("Cannot connect to the broker at")) << env.trace_text();
    }
}

// The broker goes away for a while and comes back on the same port and store.
void s_outage(std::chrono::seconds outage)
{
    fqtest::WorkerEnv env;
    ASSERT_TRUE(env.ok()) << env.error();
    fqtest::Responder engine(env.peer, "fq-av-engine", [](const std::string&) {
        return std::string("{\"ReturnCode\": 0, \"FilesScanned\": 0, \"Results\": []}");
    });
    auto child = env.spawn_worker({"--console-mode", "--worker-threads", "2"});
    ASSERT_TRUE(env.wait_ready()) << env.trace_text();

    env.server.stop();
    std::this_thread::sleep_for(outage);  // the outage itself, not a wait for something to happen
    std::string err;
    ASSERT_TRUE(env.server.start(&err)) << err;
    const auto back = Clock::now();
    ASSERT_TRUE(fqtest::wait_until(
        [&] { return env.request("fq-av-scanproxy.ping", "{\"Command\": 3}", 500) == "{\"ReturnCode\": 0}"; }, 30s))
        << env.trace_text();
    const std::string key = env.stage("abcd");
    ASSERT_FALSE(key.empty());
    const auto v =
        env.verdict(env.request("fq-av-scanproxy", env.scan_job(key, json_object_new_string("fq-av-engine"), 4), 5000));
    EXPECT_EQ(1, v.rc) << v.error;
    EXPECT_LT(Clock::now() - back, 30s);
    EXPECT_TRUE(fqtest::process_alive(child.pid));
    EXPECT_TRUE(env.trace_has("NATS: reconnected to"));
    EXPECT_EQ(0, s_stop_within_limit(child.pid));
}

TEST(WorkerOutage, ServesAgainAfterAShortBrokerOutage)
{
    s_outage(3s);
}

TEST(WorkerOutage, ServesAgainAfterALongBrokerOutage)
{
    s_outage(30s);
}

}  // namespace
