// tools/fq-av-worker-control as a real process on a real broker, and what every peer shares:
// the command line, the bounded wait for the broker at start, and the orderly stop.
#include <gtest/gtest.h>
#include <nats/nats.h>
#include <signal.h>

#include <optional>
#include <string>
#include <vector>

#include "fq_connection_client.h"
#include "fq_worker_ping.h"
#include "nats_server.h"
#include "process_util.h"

namespace {

using namespace std::chrono_literals;

const std::string kControl = std::string(FQ_BUILD_DIR) + "/fq-av-worker-control";
const std::string kQuarantine = std::string(FQ_BUILD_DIR) + "/fq-av-quarantine";
const std::string kLog = std::string(FQ_BUILD_DIR) + "/fq-av-log";

std::optional<std::string> request(natsConnection* nc, const std::string& subject, const std::string& body,
                                   int64_t timeout_ms = 2000)
{
    natsMsg* reply = nullptr;
    if (natsConnection_RequestString(&reply, nc, subject.c_str(), body.c_str(), timeout_ms) != NATS_OK)
        return std::nullopt;
    std::string text(natsMsg_GetData(reply), (size_t)natsMsg_GetDataLength(reply));
    natsMsg_Destroy(reply);
    return text;
}

bool answers_ping(natsConnection* nc, const std::string& subject)
{
    return fqtest::wait_for([&] { return request(nc, subject, "{\"Command\": 3}", 200).has_value(); }, 10s);
}

class PeerControl : public ::testing::Test {
protected:
    static inline fqtest::NatsServer* server = nullptr;
    static inline natsConnection* nc = nullptr;

    static void SetUpTestSuite()
    {
        server = new fqtest::NatsServer();
        std::string err;
        ASSERT_TRUE(server->start(&err)) << err;
        nc = server->connect_peer(&err);
        ASSERT_NE(nc, nullptr) << err;
    }
    static void TearDownTestSuite()
    {
        if (nc) {
            natsConnection_Close(nc);
            natsConnection_Destroy(nc);
            nc = nullptr;
        }
        delete server;
        server = nullptr;
    }
};

TEST_F(PeerControl, AnswersTheWorkersPingAndAnyOtherRequestThenStopsOnSigterm)
{
    fqtest::TempDir dir;
    fqtest::Child child = fqtest::spawn({kControl, "--broker", server->url(), "--threads", "3"}, dir.path());
    ASSERT_TRUE(answers_ping(nc, "fq-av-worker-control")) << fqtest::read_file(child.stderr_path);

    // The worker's own call, as it makes it at start.
    fq_connection_config* cfg = server->make_config();
    ASSERT_EQ(fq_connection_init(cfg), 0);
    EXPECT_EQ(fq_worker_ping(cfg, const_cast<char*>("fq-av-worker-control"), false, 3, 2000, 0), 0);
    EXPECT_EQ(fq_connection_simple_request(cfg, "fq-av-worker-control", "{ \"Command\" : 3 }", 2000, 0, nullptr), 0);
    fq_connection_deinit(cfg);
    fqtest::free_config(&cfg);

    EXPECT_EQ(request(nc, "fq-av-worker-control", "{\"Command\": 9, \"Secret\": \"x\"}"), "{\"ReturnCode\": 0}");
    EXPECT_EQ(request(nc, "fq-av-worker-control", "not json at all"), "{\"ReturnCode\": 0}");

    ASSERT_EQ(kill(child.pid, SIGTERM), 0);
    int status = -1;
    ASSERT_TRUE(fqtest::wait_exit(child.pid, 5s, &status)) << "still running after SIGTERM";
    EXPECT_EQ(status, 0) << fqtest::read_file(child.stderr_path);
    EXPECT_FALSE(request(nc, "fq-av-worker-control", "{\"Command\": 3}", 300).has_value());
}

TEST_F(PeerControl, SeveralPeersShareTheSubjectAndEachRequestIsAnsweredOnce)
{
    fqtest::TempDir dir;
    fqtest::Child a = fqtest::spawn({kControl, "--broker", server->url()}, dir.path());
    fqtest::Child b = fqtest::spawn({kControl, "--broker", server->url(), "-t", "1"}, dir.path());
    ASSERT_TRUE(answers_ping(nc, "fq-av-worker-control"));

    // A queue group: one answer per request, however many subscriptions exist.
    natsSubscription* sub = nullptr;
    ASSERT_EQ(natsConnection_SubscribeSync(&sub, nc, "_INBOX.peer-control-test"), NATS_OK);
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(natsConnection_PublishRequestString(nc, "fq-av-worker-control", "_INBOX.peer-control-test",
                                                      "{\"Command\": 3}"),
                  NATS_OK);
    int answers = 0;
    natsMsg* m = nullptr;
    while (natsSubscription_NextMsg(&m, sub, 500) == NATS_OK) {
        ++answers;
        natsMsg_Destroy(m);
    }
    natsSubscription_Destroy(sub);
    EXPECT_EQ(answers, 20);

    ASSERT_EQ(kill(a.pid, SIGINT), 0);
    int status = -1;
    ASSERT_TRUE(fqtest::wait_exit(a.pid, 5s, &status));
    EXPECT_EQ(status, 0);
    // The other one goes on serving.
    EXPECT_EQ(request(nc, "fq-av-worker-control", "{\"Command\": 3}"), "{\"ReturnCode\": 0}");
    fqtest::stop_process(b.pid);
}

TEST(PeerStart, UnreachableBrokerEndsWithStatus2AfterTheWait)
{
    const int port = fqtest::free_tcp_port();
    ASSERT_GT(port, 0);
    const std::string url = "nats://127.0.0.1:" + std::to_string(port);
    fqtest::TempDir dir;
    const auto t0 = std::chrono::steady_clock::now();
    fqtest::Child child = fqtest::spawn({kControl, "--broker", url, "--wait", "400ms"}, dir.path());
    int status = -1;
    ASSERT_TRUE(fqtest::wait_exit(child.pid, 10s, &status));
    const auto took = std::chrono::steady_clock::now() - t0;
    EXPECT_EQ(status, 2);
    EXPECT_GE(took, 400ms);
    EXPECT_LT(took, 5s);
    const std::string err = fqtest::read_file(child.stderr_path);
    EXPECT_NE(err.find("cannot reach the broker at " + url), std::string::npos) << err;
}

TEST(PeerStart, BrokerThatComesUpDuringTheWaitIsServed)
{
    fqtest::NatsServer server;
    fqtest::TempDir dir;
    fqtest::Child child = fqtest::spawn({kControl, "--broker", server.url(), "--wait", "20s"}, dir.path());
    // Let the peer find nobody at first.
    ASSERT_FALSE(fqtest::wait_until([&] { return !fqtest::process_alive(child.pid); }, 600ms));
    std::string err;
    ASSERT_TRUE(server.start(&err)) << err;
    natsConnection* nc = server.connect_peer(&err);
    ASSERT_NE(nc, nullptr) << err;
    EXPECT_TRUE(answers_ping(nc, "fq-av-worker-control")) << fqtest::read_file(child.stderr_path);
    natsConnection_Close(nc);
    natsConnection_Destroy(nc);
    fqtest::stop_process(child.pid);
}

TEST(PeerStart, CommandLineMistakesAreUsageErrorsAndHelpListsTheOptions)
{
    std::string out;
    ASSERT_EQ(fqtest::run_program({kLog, "--help"}, &out), 0);
    for (const char* option : {"--broker", "--user", "--password", "--broker-cert", "--threads", "--wait", "--file"})
        EXPECT_NE(out.find(option), std::string::npos) << option;

    EXPECT_EQ(fqtest::run_program({kControl, "--no-such-option"}, &out), 1);
    EXPECT_EQ(fqtest::run_program({kControl, "--threads", "0"}, &out), 1);
    EXPECT_EQ(fqtest::run_program({kControl, "--wait", "soon"}, &out), 1);
    EXPECT_EQ(fqtest::run_program({kControl, "stray"}, &out), 1);
    EXPECT_EQ(fqtest::run_program({kLog}, &out), 1) << "a sink needs --file";
    EXPECT_NE(out.find("--file"), std::string::npos) << out;

    fqtest::TempDir dir;
    EXPECT_EQ(fqtest::run_program({kQuarantine, "--directory", dir.path()}, &out), 1) << "no key";
    // A key becomes part of the subject; the worker cuts its text at the first colon.
    for (const char* key : {"a:b", "a b", "a.*", "x.", ""})
        EXPECT_EQ(fqtest::run_program({kQuarantine, "--key", key, "--directory", dir.path()}, &out), 1) << key;
}

}  // namespace
