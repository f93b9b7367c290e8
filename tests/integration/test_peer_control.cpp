// tools/fq-av-worker-control as a real process on a real broker, and what every peer shares:
// the command line, the bounded wait for the broker at start, and the orderly stop.
#include <signal.h>

#include <string>
#include <vector>

#include "broker_test.h"
#include "fq_worker_ping.h"

namespace {

using namespace std::chrono_literals;
using namespace fqtest;

const std::string kControl = build_program("fq-av-worker-control");
const std::string kQuarantine = build_program("fq-av-quarantine");
const std::string kLog = build_program("fq-av-log");

using PeerControl = BrokerTest;

TEST_F(PeerControl, AnswersTheWorkersPingAndAnyOtherRequestThenStopsOnSigterm)
{
    Child child = spawn({kControl, "--broker", suite.server->url(), "--threads", "3"}, suite.dir->path());
    ASSERT_TRUE(answers_ping(suite.peer, "fq-av-worker-control")) << read_file(child.stderr_path);
    // The worker's own call, as it makes it at start.
    EXPECT_EQ(fq_worker_ping(suite.cfg, "fq-av-worker-control", false, 3, 2000, 0), 0);
    EXPECT_EQ(request(suite.peer, "fq-av-worker-control", "{\"Command\": 9, \"Secret\": \"x\"}"), "{\"ReturnCode\": 0}");
    EXPECT_EQ(request(suite.peer, "fq-av-worker-control", "not json at all"), "{\"ReturnCode\": 0}");

    ASSERT_EQ(kill(child.pid, SIGTERM), 0);
    int status = -1;
    ASSERT_TRUE(wait_exit(child.pid, 5s, &status)) << "still running after SIGTERM";
    EXPECT_EQ(status, 0) << read_file(child.stderr_path);
    EXPECT_FALSE(request(suite.peer, "fq-av-worker-control", "{\"Command\": 3}", 300).has_value());
}

TEST_F(PeerControl, SeveralPeersShareTheSubjectAndEachRequestIsAnsweredOnce)
{
    Child a = spawn({kControl, "--broker", suite.server->url()}, suite.dir->path());
    Child b = spawn({kControl, "--broker", suite.server->url(), "-t", "1"}, suite.dir->path());
    ASSERT_TRUE(answers_ping(suite.peer, "fq-av-worker-control"));

    // A queue group: one answer per request, however many subscriptions exist.
    natsSubscription* sub = nullptr;
    ASSERT_EQ(natsConnection_SubscribeSync(&sub, suite.peer, "_INBOX.peer-control-test"), NATS_OK);
    fq_nats_sub_ptr guard(sub);
    for (int i = 0; i < 20; ++i)
        ASSERT_EQ(natsConnection_PublishRequestString(suite.peer, "fq-av-worker-control", "_INBOX.peer-control-test",
                                                      "{\"Command\": 3}"),
                  NATS_OK);
    int answers = 0;
    natsMsg* m = nullptr;
    while (natsSubscription_NextMsg(&m, sub, 500) == NATS_OK) {
        ++answers;
        natsMsg_Destroy(m);
    }
    EXPECT_EQ(answers, 20);

    ASSERT_EQ(kill(a.pid, SIGINT), 0);
    int status = -1;
    ASSERT_TRUE(wait_exit(a.pid, 5s, &status));
    EXPECT_EQ(status, 0);
    // The other one goes on serving.
    EXPECT_EQ(request(suite.peer, "fq-av-worker-control", "{\"Command\": 3}"), "{\"ReturnCode\": 0}");
    stop_process(b.pid);
}

TEST(PeerStart, UnreachableBrokerEndsWithStatus2AfterTheWait)
{
    const std::string url = "nats://127.0.0.1:" + std::to_string(free_tcp_port());
    std::string out;
    const auto t0 = std::chrono::steady_clock::now();
    EXPECT_EQ(run_program({kControl, "--broker", url, "--wait", "400ms"}, &out, 10s), 2);
    const auto took = std::chrono::steady_clock::now() - t0;
    EXPECT_GE(took, 400ms);
    EXPECT_LT(took, 5s);
    EXPECT_NE(out.find("cannot reach the broker at " + url), std::string::npos) << out;
}

TEST(PeerStart, BrokerThatComesUpDuringTheWaitIsServed)
{
    NatsServer server;
    TempDir dir;
    Child child = spawn({kControl, "--broker", server.url(), "--wait", "20s"}, dir.path());
    // Let the peer find nobody at first.
    ASSERT_FALSE(wait_until([&] { return !process_alive(child.pid); }, 600ms));
    std::string err;
    ASSERT_TRUE(server.start(&err)) << err;
    fq_nats_conn_ptr nc(server.connect_peer(&err));
    ASSERT_NE(nc, nullptr) << err;
    EXPECT_TRUE(answers_ping(nc.get(), "fq-av-worker-control")) << read_file(child.stderr_path);
    stop_process(child.pid);
}

TEST(PeerStart, CommandLineMistakesAreUsageErrorsAndHelpListsTheOptions)
{
    std::string out;
    ASSERT_EQ(run_program({kLog, "--help"}, &out), 0);
    for (const char* option : {"--broker", "--user", "--password", "--broker-cert", "--threads", "--wait", "--file"})
        EXPECT_NE(out.find(option), std::string::npos) << option;

    TempDir dir;
    const std::vector<std::vector<std::string>> wrong = {
        {kControl, "--no-such-option"}, {kControl, "--threads", "0"}, {kControl, "--wait", "soon"},
        {kControl, "stray"}, {kLog} /* a sink needs --file */, {kQuarantine, "--directory", dir.path()} /* no key */,
        // A key becomes part of the subject; the worker cuts its text at the first colon.
        {kQuarantine, "--key", "a:b", "--directory", dir.path()}, {kQuarantine, "--key", "a b", "--directory", dir.path()},
        {kQuarantine, "--key", "a.*", "--directory", dir.path()}, {kQuarantine, "--key", "x.", "--directory", dir.path()},
        {kQuarantine, "--key", "", "--directory", dir.path()}};
    for (const auto& argv : wrong)
        EXPECT_EQ(run_program(argv, &out), 1) << argv.back() << ": " << out;
    EXPECT_EQ(run_program({kLog}, &out), 1);
    EXPECT_NE(out.find("--file"), std::string::npos) << out;
}

}  // namespace
