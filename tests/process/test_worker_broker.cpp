#include <gtest/gtest.h>

#include <signal.h>

#include <string>
#include <vector>

#include "json_util.h"
#include "samples.h"
#include "worker_fixture.h"

using namespace std::chrono_literals;
using fqtest::read_file;

namespace {

const std::string kPing = "{ \"Command\" : 3 }";
const std::string kOk = "{\"ReturnCode\": 0}";

TEST(WorkerOnBroker, TakesNoWorkBeforeTheControlServiceHasAnswered)
{
    fqtest::WorkerEnv env(false);
    ASSERT_TRUE(env.ok()) << env.error();
    auto child = env.spawn_worker({"--console-mode", "--worker-threads", "2"});
    ASSERT_TRUE(fqtest::wait_until([&] { return env.trace_has("Waiting for service fq-av-worker-control"); }, 20s));
    EXPECT_FALSE(env.request("fq-av-scanproxy", kPing, 500).has_value());
    EXPECT_FALSE(env.request("fq-av-scanproxy.ping", kPing, 500).has_value());

    env.start_control();
    ASSERT_TRUE(env.wait_ready()) << env.trace_text();
    EXPECT_EQ(kOk, env.request("fq-av-scanproxy", kPing).value_or("no reply"));
    fqtest::stop_process(child.pid);
}

TEST(WorkerOnBroker, AnswersOnItsThreeSubjectsAndKeepsItsRecord)
{
    fqtest::WorkerEnv env;
    ASSERT_TRUE(env.ok()) << env.error();
    auto child = env.spawn_worker({"--console-mode", "--worker-threads", "2", "--register-interval", "1", "--primary"});
    ASSERT_TRUE(env.wait_ready()) << read_file(child.stderr_path);
    const std::string control = fqtest::WorkerEnv::control_subject(child.pid);
    // The control subject is served from just after the "ready" line on.
    ASSERT_TRUE(fqtest::answers_ping(env.peer, control));

    EXPECT_EQ(kOk, env.request("fq-av-scanproxy", kPing).value_or("no reply"));
    EXPECT_EQ(kOk, env.request("fq-av-scanproxy.ping", kPing).value_or("no reply"));
    EXPECT_EQ("{\"ReturnCode\": -1}", env.request("fq-av-scanproxy.ping", "{\"Command\": 9}").value_or("no reply"));
    EXPECT_EQ(kOk, env.request(control, kPing).value_or("no reply"));
    // Service info through the client subject.
    const std::string info = env.request("fq-av-scanproxy", "{\"Command\": 1}").value_or("");
    EXPECT_NE(std::string::npos, info.find("\"DriverName\": \"Scan proxy\"")) << info;

    uint64_t first = 0;
    auto record = env.registry_get(control, &first);
    ASSERT_TRUE(record.has_value());
    EXPECT_EQ((std::vector<std::string>{"Command", "worker-name", "service-name", "Primary", "Secret", "DriverName",
                                        "MajorVersion", "MinorVersion", "NumberOfViruses", "NumberOfVariants",
                                        "Timestamp"}),
              fqtest::Json(*record).keys());
    EXPECT_NE(std::string::npos, record->find("\"worker-name\": \"" + control + "\"")) << *record;
    EXPECT_NE(std::string::npos, record->find("\"Primary\": 1")) << *record;

    // Refreshed from the main loop: a newer revision of the same record.
    uint64_t later = 0;
    EXPECT_TRUE(fqtest::wait_until(
        [&] {
            auto r = env.registry_get(control, &later);
            return r && later > first;
        },
        10s));

    kill(child.pid, SIGTERM);
    int status = -1;
    ASSERT_TRUE(fqtest::wait_exit(child.pid, 15s, &status));
    EXPECT_EQ(0, status);
    EXPECT_FALSE(env.registry_get(control).has_value());
}

TEST(WorkerOnBroker, ShutdownNeedsTheRightSecret)
{
    fqtest::WorkerEnv env;
    ASSERT_TRUE(env.ok()) << env.error();
    const std::string secret = "Q7w8e9r0t1y2u3i4o5p6a7s8d9f0g1h2";
    auto child = env.spawn_worker({"--console-mode", "--worker-threads", "1", "--secret", secret});
    ASSERT_TRUE(env.wait_ready());
    const std::string control = fqtest::WorkerEnv::control_subject(child.pid);
    // The control subject is served from just after the "ready" line on.
    ASSERT_TRUE(fqtest::answers_ping(env.peer, control));

    const std::string refused = env.request(control, "{ \"Command\" : 9 , \"Secret\":\"wrong-secret\"}").value_or("");
    EXPECT_NE(std::string::npos, refused.find("\"ReturnCode\": -1000, \"Error\": \"Secret mismatch\"")) << refused;
    EXPECT_TRUE(fqtest::process_alive(child.pid));
    EXPECT_EQ(kOk, env.request("fq-av-scanproxy.ping", kPing).value_or("no reply"));
    EXPECT_TRUE(env.registry_get(control).has_value());

    EXPECT_EQ(kOk,
              env.request(control, "{ \"Command\" : 9 , \"Secret\":\"" + secret + "\"}").value_or("no reply"));
    int status = -1;
    ASSERT_TRUE(fqtest::wait_exit(child.pid, 15s, &status));
    EXPECT_EQ(0, status);
    EXPECT_FALSE(env.registry_get(control).has_value());
}

TEST(WorkerOnBroker, TemporaryWorkerWithoutAnAnswerToReadyStopsWithMinusOne)
{
    fqtest::WorkerEnv env;
    ASSERT_TRUE(env.ok()) << env.error();
    // Nobody serves the subject READY goes to: the worker must give up and remove its record.
    auto child = env.spawn_worker(
        {"--console-mode", "--worker-threads", "1", "--signal_when_ready", "fq-av-scanproxy.nobody_1", "--secret", "s"});
    int status = -1;
    ASSERT_TRUE(fqtest::wait_exit(child.pid, 60s, &status)) << env.trace_text();
    EXPECT_EQ(255, status);
    EXPECT_TRUE(env.trace_has("Failed to send READY message"));
    EXPECT_FALSE(env.registry_get(fqtest::WorkerEnv::control_subject(child.pid)).has_value());
}

TEST(WorkerOnBroker, ClientGetsTheConsolidatedVerdict)
{
    fqtest::WorkerEnv env;
    ASSERT_TRUE(env.ok()) << env.error();
    fqtest::Responder engine(env.peer, "fq-av-engine", [](const std::string& body) {
        // The engine reads the job it is given and finds something in it.
        return fqtest::Json(body).has("_kv_key")
                   ? fqtest::service_reply(-210, {fqtest::service_entry("eicar.com", -210, "Eicar-Test-Signature")},
                                           ", \"Blocking-reason\": \"Virus found\"")
                   : std::string("{\"ReturnCode\": -1000, \"Error\": \"no key\"}");
    });
    auto child = env.spawn_worker({"--console-mode", "--worker-threads", "2"});
    ASSERT_TRUE(env.wait_ready()) << read_file(child.stderr_path);
    const fqtest::Json r(
        env.scan(fqtest::worker_job("eicar.com", fqtest::kEicar.size(), "fq-av-engine"), fqtest::kEicar).value_or(""));
    EXPECT_EQ(-210, r.rc()) << r.text();
    EXPECT_NE(std::string::npos, r.str("Blocking-reason").find("Eicar-Test-Signature")) << r.text();
    fqtest::stop_process(child.pid);
}

}  // namespace
