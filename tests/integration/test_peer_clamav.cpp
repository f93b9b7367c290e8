// tools/fq-av-clamav as a real process with its shipped database: objects sent the way the
// worker forwards them, archives made here with libarchive, and one job through the real worker.
#include <signal.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "broker_test.h"
#include "samples.h"
#include "worker_fixture.h"

namespace {

using namespace std::chrono_literals;
using namespace fqtest;

class PeerClamav : public BrokerTest {
protected:
    static void SetUpTestSuite()
    {
        BrokerTest::SetUpTestSuite();
        suite.start_program("fq-av-clamav", {"--threads", "3"}, "fq-av-clamav");
    }
    // The job as the worker forwards it (extra members at the end), the bytes staged beside it.
    static Json scan(const std::string& name, const std::string& bytes, const std::string& extra = "")
    {
        return Json(suite.send("fq-av-clamav",
                               "{\"Command\": 101, \"ObjectName\": \"" + name + "\", \"ObjectLen\": " +
                                   std::to_string(bytes.size()) + ", \"SCANTIMEOUT\": 20000" + extra + "}",
                               bytes));
    }
};

TEST_F(PeerClamav, PlainFilesAndArchivesGetAVerdictPerFile)
{
    // A compressed single file is no archive to libarchive: libclamav looks into it itself.
    const std::string gz = make_archive(ArchiveKind::Gz, {{"eicar.com", kEicar}});
    ASSERT_EQ(gz.find("EICAR"), std::string::npos);
    const struct {
        std::string name, bytes;
        int rc, files;
        std::string finding, virus;  // the entry that must carry the verdict, and its signature
        size_t size;                 // that entry's own size
    } cases[] = {
        {"eicar.com", kEicar, -210, 1, "eicar.com", "Eicar-Test-Signature", kEicar.size()},
        // The marker anywhere inside other text; half of it is nothing.
        {"notes/marked.txt", "first line\n" + kPattern + "\nlast line\n", -210, 1, "notes/marked.txt",
         "FQ-AV.Test.Pattern.Virus", 22 + kPattern.size()},
        {"letter.txt", kText + kPattern.substr(0, 20), 0, 1, "letter.txt", "", kText.size() + 20},
        // Members are reported under the archive's name; the archive entry itself is clean.
        {"upload.zip", make_zip({{"docs/readme.txt", kText}, {"folder/eicar.com", kEicar}}), -210, 3,
         "upload.zip/folder/eicar.com", "Eicar-Test-Signature", kEicar.size()},
        {"clean.zip", make_zip({{"a.txt", kText}, {"b/c.txt", kText + kText}}), 0, 3, "clean.zip/b/c.txt", "",
         2 * kText.size()},
        {"backup.tar.gz", make_archive(ArchiveKind::TarGz, {{"docs/readme.txt", kText}, {"bin/eicar.com", kEicar}}),
         -210, 3, "backup.tar.gz/bin/eicar.com", "Eicar-Test-Signature", kEicar.size()},
        {"eicar.com.gz", gz, -210, 1, "eicar.com.gz", "Eicar-Test-Signature", gz.size()},
    };
    ASSERT_EQ(cases[3].bytes.find("EICAR"), std::string::npos) << "a member must not show in the raw zip";
    for (const auto& c : cases) {
        ASSERT_FALSE(c.bytes.empty()) << c.name;
        const Json r = scan(c.name, c.bytes);
        EXPECT_EQ(r.rc(), c.rc) << c.name << ": " << r.text();
        EXPECT_EQ(r.str("Blocking-reason"), c.rc ? "Virus found" : "") << c.name;
        EXPECT_EQ(r.num("FilesScanned"), c.files) << c.name;
        ASSERT_EQ(r.list().size(), (size_t)c.files) << c.name << ": " << r.text();
        EXPECT_EQ(r.list()[0].str("File-name"), c.name);
        if (c.finding != c.name) {
            EXPECT_EQ(r.list()[0].rc(), 0) << c.name << ": the verdict comes from the unpacked member";
        }
        const Json hit = r.entry(c.finding);
        ASSERT_TRUE(hit) << c.name << ": " << r.text();
        EXPECT_EQ(hit.rc(), c.rc) << c.name;
        EXPECT_EQ(hit.str("Virusname").rfind(c.virus, 0), 0u) << c.name << ": " << hit.str("Virusname");
        EXPECT_EQ(c.virus.empty(), hit.str("Virusname").empty()) << c.name;
        EXPECT_EQ(hit.num("File-size"), (int64_t)c.size) << c.name;
        // Started without --database: every reply says that only the test signatures are loaded.
        EXPECT_NE(r.str("Engine").find("TEST SIGNATURES ONLY"), std::string::npos) << r.str("Engine");
    }
    EXPECT_NE(read_file(suite.program.stderr_path).find("WARNING: no --database given"), std::string::npos);
}

TEST_F(PeerClamav, DamagedOrEncryptedArchivesAreNeverClean)
{
    std::string body;
    for (int i = 0; i < 400; ++i)
        body += "line " + std::to_string(i * 7919 % 1000) + " of a clean document\n";
    const std::string zip = make_zip({{"report.txt", body}, {"more/report2.txt", body + body}});
    ASSERT_EQ(scan("whole.zip", zip).rc(), 0);
    for (size_t cut : {zip.size() / 2, zip.size() / 5, (size_t)40}) {
        const Json r = scan("cut.zip", zip.substr(0, cut));
        EXPECT_EQ(r.rc(), -100) << "cut at " << cut << ": " << r.text();
        EXPECT_EQ(r.str("Blocking-reason").rfind("Damaged archive: ", 0), 0u) << r.text();
        EXPECT_EQ(r.num("FilesScanned"), (int64_t)r.list().size());
    }

    const std::string locked = make_zip({{"secret.txt", kText}}, "passw0rd");
    if (locked.empty())
        GTEST_SKIP() << "this libarchive cannot write encrypted zip";
    const Json r = scan("locked.zip", locked);
    EXPECT_EQ(r.rc(), -100) << r.text();
    const Json member = r.entry("locked.zip/secret.txt");
    EXPECT_EQ(member.rc(), -100) << r.text();
    EXPECT_NE(member.str("Virusname").find("Encrypted"), std::string::npos) << r.text();
}

TEST_F(PeerClamav, NestingFileCountAndSizeLimitsEndInNotCompleted)
{
    const std::string outer = make_zip({{"readme.txt", kText}, {"inner.zip", make_zip({{"x/eicar.com", kEicar}})}});
    // Three files in all levels, 12000 unpacked bytes: each limit just reached, and just enough.
    const std::string big = make_zip({{"a.txt", std::string(6000, 'a')}, {"b.txt", std::string(6000, 'b')}});
    const struct {
        const std::string& bytes;
        std::string extra, reason;
        int rc, files;
    } cases[] = {
        // Depth 1: the outer archive's members are scanned, the inner archive is not opened.
        {outer, ", \"SCANEXTRACT_DEPTH\": 1", "Archive nesting depth limit reached", -100, 3},
        // Depth 2 reaches the finding; so does the default when the job sets none (0).
        {outer, ", \"SCANEXTRACT_DEPTH\": 2", "Virus found", -210, 4},
        {outer, ", \"SCANEXTRACT_DEPTH\": 0", "Virus found", -210, 4},
        {outer, ", \"SCANEXTRACT_MAX_FILES\": 2", "Limit of files in archives reached", -100, -1},
        {outer, ", \"SCANEXTRACT_MAX_FILES\": 3", "Virus found", -210, 4},
        {big, ", \"SCANEXTRACT_SIZE\": 10000", "Limit of unpacked bytes reached", -100, -1},
        {big, ", \"SCANEXTRACT_SIZE\": 12000", "", 0, 3},
    };
    for (const auto& c : cases) {
        const Json r = scan("limits.zip", c.bytes, c.extra);
        EXPECT_EQ(r.rc(), c.rc) << c.extra << r.text();
        EXPECT_EQ(r.str("Blocking-reason"), c.reason) << c.extra;
        EXPECT_EQ(r.num("FilesScanned"), (int64_t)r.list().size()) << c.extra;
        if (c.files > 0) {
            EXPECT_EQ(r.list().size(), (size_t)c.files) << c.extra << r.text();
        }
    }
    const Json shallow = scan("outer.zip", outer, ", \"SCANEXTRACT_DEPTH\": 1");
    EXPECT_EQ(shallow.entry("outer.zip/inner.zip").rc(), -100) << shallow.text();
    EXPECT_FALSE(shallow.entry("outer.zip/inner.zip/x/eicar.com"));
    EXPECT_EQ(scan("outer.zip", outer).entry("outer.zip/inner.zip/x/eicar.com").rc(), -210);
}

TEST_F(PeerClamav, RequestsItCannotScanAreErrors)
{
    const struct {
        std::string body, data, error_part;
        int rc;
    } cases[] = {
        {"{\"Command\": 101, \"ObjectName\": \"gone.txt\", \"ObjectLen\": 10}", "", "gone.txt", -1000},
        // A staged object that has expired or was never there.
        {"{\"Command\": 101, \"ObjectName\": \"x\", \"ObjectLen\": 4, \"_kv_key\": \"no-such-key\"}", "", "", -1000},
        // Fewer bytes than the job announces.
        {"{\"Command\": 101, \"ObjectName\": \"short.txt\", \"ObjectLen\": 999}", kEicar, "999", -1000},
        {"not JSON", "", "", -1000},
        {"{\"Command\": 101, \"ObjectLen\": 0}", "", "", -1000},
        {"{\"Command\": 3}", "", "", 0},
    };
    for (const auto& c : cases) {
        const Json r(suite.send("fq-av-clamav", c.body, c.data));
        EXPECT_EQ(r.rc(), c.rc) << c.body;
        EXPECT_NE(r.str("Error").find(c.error_part), std::string::npos) << c.body << ": " << r.text();
        EXPECT_TRUE(r.list().empty()) << c.body;
    }
}

TEST_F(PeerClamav, ConcurrentJobsEachGetTheirOwnVerdict)
{
    const std::string zip = make_zip({{"deep/eicar.com", kEicar}});
    std::atomic<int> wrong{0};
    std::vector<std::thread> clients;
    for (int t = 0; t < 3; ++t) {
        clients.emplace_back([&, t] {
            for (int i = 0; i < 8; ++i) {
                const std::string name = "obj-" + std::to_string(t) + "-" + std::to_string(i);
                const int kind = (t + i) % 3;
                const Json r = scan(name, kind == 0 ? kText : kind == 1 ? zip : kEicar);
                const auto entries = r.list();
                if (r.rc() != (kind == 0 ? 0 : -210) || entries.size() != (kind == 1 ? 2u : 1u) ||
                    entries[0].str("File-name") != name)
                    ++wrong;
            }
        });
    }
    for (auto& c : clients)
        c.join();
    EXPECT_EQ(wrong.load(), 0);
}

TEST(PeerClamavProcess, RefusesAMissingDatabaseAndStopsInOrderOnSigterm)
{
    TempDir dir;
    // A folder without signatures would call everything clean.
    write_file(dir / "notes.txt", "no signatures here\n");
    std::string out;
    for (const std::string& db : {dir / "nothing-here", dir.path()}) {
        EXPECT_EQ(run_program({build_program("fq-av-clamav"), "--database", db, "--wait", "0"}, &out), 1) << db;
        EXPECT_NE(out.find(db), std::string::npos) << out;
    }
    // The engine is released only after the serving threads are done with it.
    NatsServer server;
    std::string err;
    ASSERT_TRUE(server.start(&err)) << err;
    auto good = spawn({build_program("fq-av-clamav"), "--broker", server.url(), "--threads", "2"}, dir.path());
    ASSERT_TRUE(wait_until([&] { return read_file(good.stderr_path).find("serving fq-av-clamav") != std::string::npos; },
                           20s))
        << read_file(good.stderr_path);
    ASSERT_EQ(kill(good.pid, SIGTERM), 0);
    int status = -1;
    ASSERT_TRUE(wait_exit(good.pid, 10s, &status)) << read_file(good.stderr_path);
    EXPECT_EQ(status, 0) << read_file(good.stderr_path);
}

TEST(PeerClamavWorker, TheClientGetsTheNestedFindingThroughTheWorker)
{
    WorkerEnv env;
    ASSERT_TRUE(env.ok()) << env.error();
    auto engine = spawn({build_program("fq-av-clamav"), "--broker", env.server.url(), "--threads", "2"}, env.dir.path());
    auto worker = env.spawn_worker({"--console-mode", "--worker-threads", "2"});
    ASSERT_TRUE(env.wait_ready()) << read_file(worker.stderr_path);
    ASSERT_TRUE(answers_ping(env.peer, "fq-av-clamav")) << read_file(engine.stderr_path);

    const std::string zip = make_zip({{"docs/a.txt", kText}, {"payload/eicar.com", kEicar}});
    const Json r(env.scan(worker_job("mail.zip", zip.size(), "fq-av-clamav", ", \"SCANTIMEOUT\": 10000"), zip)
                     .value_or(""));
    EXPECT_EQ(r.rc(), -210) << r.text();
    EXPECT_NE(r.str("Blocking-reason").find("Eicar-Test-Signature"), std::string::npos) << r.text();
    EXPECT_EQ(r.entry("mail.zip/payload/eicar.com").rc(), -210) << r.text();
    // The worker works the finding up to the archive itself.
    EXPECT_EQ(r.entry("mail.zip").rc(), -210) << r.text();
    stop_process(worker.pid);
    stop_process(engine.pid);
}

}  // namespace
