// fq-av-scan against the real worker on a real broker, with in-test scan services.
#include <gtest/gtest.h>
#include <nats/nats.h>

#include <sys/stat.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <optional>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "json_util.h"
#include "worker_fixture.h"

using namespace std::chrono_literals;

namespace {

const std::string kScan = fqtest::build_program("fq-av-scan");

using fqtest::Json;

std::string s_entry(const std::string& name, int rc, const std::string& virus = "")
{
    return fqtest::service_entry(name, rc, virus, "text/plain");
}

// A scan service that finds "Test.Virus" in objects whose name begins with "bad", fails on
// those beginning with "broken", and passes everything else.
fqtest::Responder::Fn s_engine()
{
    return [](const std::string& body) -> std::optional<std::string> {
        Json job(body);
        const std::string name = job.str("ObjectName");
        if (name.rfind("bad", 0) == 0)
            return fqtest::service_reply(-210, {s_entry(name, -210, "Test.Virus"), s_entry(name + "/inner.exe", -210, "Test.Virus")});
        if (name.rfind("broken", 0) == 0)
            return std::string("{\"ReturnCode\": -1000, \"Error\": \"engine down\"}");
        return fqtest::service_reply(0, {s_entry(name, 0)});
    };
}

struct ScanRun {
    int status = -1;
    std::string out;
    std::string err;
};

class ScanClient : public ::testing::Test {
protected:
    static inline fqtest::WorkerEnv* env = nullptr;
    static inline fqtest::Child worker;

    static void SetUpTestSuite()
    {
        env = new fqtest::WorkerEnv();
        ASSERT_TRUE(env->ok()) << env->error();
        std::string err;
        // A work queue for the worker, which it does not pull from: --js must time out cleanly.
        ASSERT_TRUE(env->server.provision(nullptr, "fq-av-scanproxy", &err)) << err;
        worker = env->spawn_worker({"--console-mode", "--worker-threads", "4"});
        ASSERT_TRUE(env->wait_ready()) << fqtest::read_file(worker.stderr_path);
    }

    static void TearDownTestSuite()
    {
        if (worker.pid > 0)
            fqtest::stop_process(worker.pid);
        delete env;
        env = nullptr;
    }

    void TearDown() override
    {
        // Whatever a run staged, it removed again.
        EXPECT_EQ(std::vector<std::string>{}, fqtest::staged_keys(env->peer));
    }

    ScanRun scan(std::vector<std::string> args)
    {
        std::vector<std::string> argv = {kScan, "--broker", env->server.url(), "--no-summary"};
        argv.insert(argv.end(), args.begin(), args.end());
        return run(argv);
    }

    ScanRun run(const std::vector<std::string>& argv)
    {
        ScanRun r;
        auto child = fqtest::spawn(argv, files.path());
        int status = -1;
        if (!fqtest::wait_exit(child.pid, 60s, &status)) {
            fqtest::stop_process(child.pid);
            ADD_FAILURE() << "fq-av-scan did not finish";
        }
        r.status = status;
        r.out = fqtest::read_file(child.stdout_path);
        r.err = fqtest::read_file(child.stderr_path);
        return r;
    }

    std::string file(const std::string& rel, const std::string& content)
    {
        const std::string path = files / rel;
        for (size_t p = path.find('/', files.path().size() + 1); p != std::string::npos; p = path.find('/', p + 1))
            mkdir(path.substr(0, p).c_str(), 0755);
        fqtest::write_file(path, content);
        return path;
    }

    static uint64_t stream_messages(const char* stream)
    {
        jsCtx* js = nullptr;
        jsStreamInfo* si = nullptr;
        uint64_t n = UINT64_MAX;
        if (natsConnection_JetStream(&js, env->peer, nullptr) == NATS_OK &&
            js_GetStreamInfo(&si, js, stream, nullptr, nullptr) == NATS_OK)
            n = si->State.Msgs;
        jsStreamInfo_Destroy(si);
        jsCtx_Destroy(js);
        return n;
    }

    fqtest::TempDir files;
};

TEST_F(ScanClient, CleanFileIsOkAndTheJobCarriesTheDefaults)
{
    fqtest::Responder engine(env->peer, "fq-av-tc-clean", s_engine());
    const std::string path = file("report.txt", "hello world");
    ScanRun r = scan({"--services", "fq-av-tc-clean", path});
    EXPECT_EQ(0, r.status) << r.out << r.err;
    EXPECT_EQ(path + ": OK\n", r.out);
    ASSERT_EQ(1, engine.count());
    const Json job(engine.bodies()[0]);
    char host[256] = "";
    gethostname(host, sizeof(host) - 1);
    EXPECT_EQ(host, job.str("Hostname"));
    EXPECT_EQ("report.txt", job.str("ObjectName"));
    EXPECT_FALSE(job.str("EventID").empty());
    for (const auto& [key, value] : std::map<std::string, int64_t>{
             {"ObjectLen", 11}, {"Command", 101}, {"SCANTIMEOUT", 30000}, {"SCANEXTRACT", 1}, {"SCANEXTRACT_DEPTH", 5}})
        EXPECT_EQ(value, job.num(key.c_str())) << key;
}

TEST_F(ScanClient, FindingsExitOneAndAServiceFailureIsAnErrorThatWinsOverThem)
{
    fqtest::Responder engine(env->peer, "fq-av-tc-find", s_engine());
    const std::string bad = file("tree/bad.com", "X5O!P%@AP");
    const std::string broken = file("tree/broken.doc", "anything");
    ScanRun found = scan({"--services", "fq-av-tc-find", "--verbose", bad});
    EXPECT_EQ(1, found.status) << found.out << found.err;
    EXPECT_NE(std::string::npos, found.out.find(bad + ": Test.Virus FOUND\n")) << found.out;
    EXPECT_NE(std::string::npos, found.out.find("  bad.com/inner.exe: Test.Virus FOUND (text/plain, 11 bytes)\n"))
        << found.out;

    ScanRun both = scan({"--services", "fq-av-tc-find", files / "tree"});
    EXPECT_EQ(2, both.status) << both.out << both.err;
    EXPECT_NE(std::string::npos, both.out.find(bad + ": Test.Virus FOUND")) << both.out;
    EXPECT_NE(std::string::npos, both.out.find(broken + ": ERROR ")) << both.out;
    EXPECT_NE(std::string::npos, both.out.find("engine down")) << both.out;
}

TEST_F(ScanClient, TreeIsWalkedWithoutLeavingIt)
{
    fqtest::Responder engine(env->peer, "fq-av-tc-tree", s_engine());
    const std::string a = file("tree/a.txt", "alpha");
    const std::string b = file("tree/sub/b.txt", "beta");
    const std::string bad = file("tree/sub/deeper/bad.bin", "evil");
    const std::string empty = file("tree/empty.txt", "");
    const std::string outside = file("elsewhere/bad-outside.bin", "evil too");
    ASSERT_EQ(0, symlink(outside.c_str(), (files / "tree/bad-link.bin").c_str()));
    ASSERT_EQ(0, symlink((files / "elsewhere").c_str(), (files / "tree/linkdir").c_str()));

    ScanRun r = scan({"--services", "fq-av-tc-tree", "--threads", "3", files / "tree/"});
    EXPECT_EQ(1, r.status) << r.out << r.err;
    std::istringstream lines(r.out);
    std::set<std::string> got;
    for (std::string line; std::getline(lines, line);)
        got.insert(line);
    const std::set<std::string> want = {a + ": OK", b + ": OK", bad + ": Test.Virus FOUND", empty + ": OK"};
    EXPECT_EQ(want, got);
    // The empty file needs no service; the links lead out of the tree.
    EXPECT_EQ(3, engine.count());

    ScanRun followed = scan({"--services", "fq-av-tc-tree", "--follow", files / "tree"});
    EXPECT_EQ(1, followed.status);
    EXPECT_NE(std::string::npos, followed.out.find(files / "tree/bad-link.bin: Test.Virus FOUND")) << followed.out;
    EXPECT_NE(std::string::npos, followed.out.find(files / "tree/linkdir/bad-outside.bin: Test.Virus FOUND"))
        << followed.out;
}

TEST_F(ScanClient, PolicyFileAndOptionsMakeTheJob)
{
    fqtest::Responder engine(env->peer, "fq-av-tc-policy", s_engine());
    const std::string policy = file("policy.json",
                                    "{\"Services\": \"fq-av-tc-policy\", \"SID\": \"S42\", \"realmID\": \"r7\", "
                                    "\"CUST_CLEAN\": 1, \"SCANEXTRACT_DEPTH\": 9, \"SCANTIMEOUT\": 5000, "
                                    "\"EventID\": \"fixed\", \"ObjectName\": \"not-mine\"}");
    file("two/one.txt", "1");
    file("two/two.txt", "2");
    ScanRun r = scan({"--policy", policy, "--depth", "3", "--threads", "1", files / "two"});
    EXPECT_EQ(0, r.status) << r.out << r.err;
    ASSERT_EQ(2, engine.count());
    Json first(engine.bodies()[0]);
    Json second(engine.bodies()[1]);
    EXPECT_EQ("S42", first.str("SID"));
    EXPECT_EQ("r7", first.str("realmID"));
    EXPECT_EQ(1, first.num("CUST_CLEAN"));
    EXPECT_EQ(3, first.num("SCANEXTRACT_DEPTH"));
    EXPECT_EQ(5000, first.num("SCANTIMEOUT"));
    EXPECT_EQ("one.txt", first.str("ObjectName"));
    // Each object has an id of its own, whatever the policy says.
    EXPECT_NE("fixed", first.str("EventID"));
    EXPECT_NE(first.str("EventID"), second.str("EventID"));

    const std::string broken = file("broken.json", "{\"SID\": ");
    ScanRun bad = scan({"--policy", broken, files / "two"});
    EXPECT_EQ(2, bad.status);
    EXPECT_NE(std::string::npos, bad.err.find("not valid JSON")) << bad.err;
    const std::string empty_sid = file("empty-sid.json", "{\"SID\": \"\"}");
    ScanRun refused = scan({"--policy", empty_sid, files / "two"});
    EXPECT_EQ(2, refused.status);
    EXPECT_NE(std::string::npos, refused.err.find("SID")) << refused.err;
    EXPECT_EQ(2, engine.count());
}

TEST_F(ScanClient, SizeLimitsOfTheJobAndOfTheClient)
{
    fqtest::Responder engine(env->peer, "fq-av-tc-size", s_engine());
    const std::string big = file("big.bin", std::string(200, 'x'));
    ScanRun blocked = scan({"--services", "fq-av-tc-size", "--max-size", "100", big});
    EXPECT_EQ(1, blocked.status) << blocked.out << blocked.err;
    EXPECT_EQ(big + ": File too large BLOCKED\n", blocked.out);

    ScanRun refused = scan({"--services", "fq-av-tc-size", "--max-file-size", "100", big});
    EXPECT_EQ(2, refused.status);
    EXPECT_EQ(0u, refused.out.rfind(big + ": ERROR file too large to send", 0)) << refused.out;
    EXPECT_EQ(0, engine.count());
}

TEST_F(ScanClient, JsonLinesCarryThePathAndTheReply)
{
    fqtest::Responder engine(env->peer, "fq-av-tc-json", s_engine());
    const std::string ok = file("j/ok.txt", "fine");
    const std::string bad = file("j/bad.txt", "evil");
    std::vector<std::string> argv = {kScan, "--broker", env->server.url(), "--services", "fq-av-tc-json", "--json",
                                     files / "j"};
    ScanRun r = run(argv);
    EXPECT_EQ(1, r.status) << r.out << r.err;
    std::istringstream lines(r.out);
    std::map<std::string, int64_t> codes;
    for (std::string line; std::getline(lines, line);) {
        Json j(line);
        ASSERT_TRUE(j) << line;
        codes[j.str("path")] = j.num("ReturnCode");
    }
    EXPECT_EQ((std::map<std::string, int64_t>{{ok, 1}, {bad, -210}}), codes);
    // The summary stays out of the JSON lines.
    EXPECT_NE(std::string::npos, r.err.find("Scanned files: 2")) << r.err;
}

TEST_F(ScanClient, WorkQueueWithoutPullerTimesOutAndLeavesNothing)
{
    const std::string path = file("queued.txt", "waiting");
    ScanRun r = scan({"--js", "--timeout", "300", path});
    EXPECT_EQ(2, r.status) << r.out << r.err;
    EXPECT_EQ(0u, r.out.rfind(path + ": ERROR no reply through the work queue jobs.fq-av-scanproxy", 0)) << r.out;
    EXPECT_EQ(0u, stream_messages("JOBS_fq-av-scanproxy"));
}

TEST_F(ScanClient, PingFindsTheWorker)
{
    ScanRun r = run({kScan, "--broker", env->server.url(), "--ping"});
    EXPECT_EQ(0, r.status) << r.err;
    EXPECT_EQ("fq-av-scanproxy.ping: alive\n", r.out);
}

// A stand-in on the worker's subject answers what no worker would: none of it is a verdict.
// A stand-in on the worker's subject answers what no worker would: none of it is a verdict.
TEST(ScanClientReplies, AnythingButAVerdictIsAnError)
{
    fqtest::WorkerEnv env(false);
    ASSERT_TRUE(env.ok()) << env.error();
    fqtest::TempDir dir;
    const std::string path = dir / "x.txt";
    fqtest::write_file(path, "content");
    const std::vector<std::pair<std::string, std::string>> replies = {
        {"", "ERROR no worker serves fq-av-scanproxy"},
        {"not json", "not a JSON object"},
        {"[1, 2]", "not a JSON object"},
        {"{\"FilesScanned\": 0}", "no ReturnCode"},
        {"{\"ReturnCode\": 0}", "unexpected ReturnCode 0"},
        {"{\"ReturnCode\": \"clean\"}", "unreadable ReturnCode"},
        {"{\"ReturnCode\": 7}", "unexpected ReturnCode 7"},
        // The code as text, as after a failed quarantine, is still read.
        {"{\"ReturnCode\": \"-1000\", \"Error\": \"Quarantine service fq-av-quarantine.q is not available\"}",
         ": ERROR Quarantine service fq-av-quarantine.q is not available"},
    };
    for (const auto& [reply, why] : replies) {
        std::unique_ptr<fqtest::Responder> fake;
        if (!reply.empty())
            fake = std::make_unique<fqtest::Responder>(env.peer, "fq-av-scanproxy",
                                                       [&](const std::string&) { return reply; });
        std::string out;
        EXPECT_EQ(2, fqtest::run_program({kScan, "--broker", env.server.url(), "--no-summary", path}, &out, 30000ms))
            << reply;
        EXPECT_NE(std::string::npos, out.find(path + ": ERROR")) << reply << " -> " << out;
        EXPECT_NE(std::string::npos, out.find(why)) << reply << " -> " << out;
    }
}

}  // namespace
