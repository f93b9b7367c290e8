#include <gtest/gtest.h>
#include <json-c/json.h>

#include <signal.h>

#include <string>
#include <vector>

#include "worker_fixture.h"

using namespace std::chrono_literals;
using fqtest::read_file;

namespace {

const std::string kPing = "{ \"Command\" : 3 }";
const std::string kOk = "{\"ReturnCode\": 0}";

std::vector<std::string> s_keys(const std::string& json)
{
    std::vector<std::string> keys;
    json_object* obj = json_tokener_parse(json.c_str());
    if (!obj)
        return keys;
    json_object_object_foreach(obj, key, value)
    {
        (void)value;
        keys.emplace_back(key);
    }
    json_object_put(obj);
    return keys;
}

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
              s_keys(*record));
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

}  // namespace

namespace {

TEST(WorkerOnBroker, ClientGetsTheConsolidatedVerdict)
{
    fqtest::WorkerEnv env;
    ASSERT_TRUE(env.ok()) << env.error();
    fqtest::Responder engine(env.peer, "fq-av-engine", [](const std::string& body) {
        // The engine reads the job it is given and finds something in it.
        const bool has_key = body.find("\"_kv_key\"") != std::string::npos;
        return std::string(has_key ? "{\"ReturnCode\": -210, \"Blocking-reason\": \"Virus found\", \"FilesScanned\": 1, "
                                     "\"Results\": [{\"ReturnCode\": -210, \"File-name\": \"eicar.com\", "
                                     "\"File-size\": 68, \"Object-type\": -1, \"Virusname\": \"Eicar-Test-Signature\"}]}"
                                   : "{\"ReturnCode\": -1000, \"Error\": \"no key\"}");
    });
    auto child = env.spawn_worker({"--console-mode", "--worker-threads", "2"});
    ASSERT_TRUE(env.wait_ready()) << read_file(child.stderr_path);

    fq_connection_config* client = env.server.make_config();
    ASSERT_EQ(0, fq_connection_init(client));
    const std::string bytes = "X5O!P%@AP[4\\PZX54(P^)7CC)7}$EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";
    char* key = nullptr;
    char err[1024] = "";
    ASSERT_EQ(0, fq_connection_stage_scan_data(client, bytes.data(), bytes.size(), 60000, &key, err)) << err;
    const std::string job =
        "{\"Command\": 101, \"ObjectName\": \"eicar.com\", \"ObjectLen\": " + std::to_string(bytes.size()) +
        ", \"Services\": \"fq-av-engine\", \"shmID\": \"0xffffffff\", \"realmID\": \"r\", \"EventID\": \"e\", "
        "\"Hostname\": \"client\", \"SID\": \"S\", \"HTMLDETECTION\": \"OFF\", \"Scan-Servers\": \"all\", "
        "\"XML_MODE\": \"XML\", \"SVG_MODE\": \"SVG\", \"EVENT_ID_DELIMITER\": \"#\", \"SCANTIMEOUT\": 5000, "
        "\"_kv_key\": \"" + std::string(key) + "\"}";
    auto reply = env.request("fq-av-scanproxy", job, 10000);
    fq_connection_unstage_scan_data(client, key);
    free(key);
    fq_connection_deinit(client);
    fqtest::free_config(&client);

    ASSERT_TRUE(reply.has_value());
    json_object* r = json_tokener_parse(reply->c_str());
    ASSERT_NE(nullptr, r) << *reply;
    json_object* rc = nullptr;
    json_object* reason = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(r, "ReturnCode", &rc));
    EXPECT_EQ(-210, json_object_get_int(rc)) << *reply;
    ASSERT_TRUE(json_object_object_get_ex(r, "Blocking-reason", &reason));
    EXPECT_NE(std::string::npos, std::string(json_object_get_string(reason)).find("Eicar-Test-Signature"));
    json_object_put(r);
    fqtest::stop_process(child.pid);
}

}  // namespace
