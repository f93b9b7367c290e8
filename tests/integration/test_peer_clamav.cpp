// tools/fq-av-clamav as a real process with its shipped database: objects sent the way the
// worker forwards them, archives made here with libarchive, and one job through the real worker.
#include <archive.h>
#include <archive_entry.h>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <signal.h>

#include <atomic>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "fq_connection_client.h"
#include "nats_server.h"
#include "process_util.h"
#include "worker_fixture.h"

namespace {

using namespace std::chrono_literals;

const std::string kClamav = std::string(FQ_BUILD_DIR) + "/fq-av-clamav";

// Put together at run time, so that this source file is not itself a finding.
const std::string kEicar = std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$") + "EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";
const std::string kPattern = std::string("FQ-AV-TEST-") + "PATTERN-VIRUS-7D3E19A4";
const std::string kText = "Dear reader,\nnothing to see here but two lines of text.\n";

using Members = std::vector<std::pair<std::string, std::string>>;

enum class Kind { Zip, TarGz, Gz };

// An archive made in memory. Zip members are deflated, so no member's bytes show in the archive;
// Gz is one compressed file without any archive around it.
std::string make_archive(Kind kind, const Members& members, const char* passphrase = nullptr)
{
    size_t total = 4096;
    for (const auto& m : members)
        total += m.first.size() * 2 + m.second.size() + 1024;
    std::vector<char> buf(total);
    size_t used = 0;
    struct archive* a = archive_write_new();
    if (kind == Kind::Zip) {
        archive_write_set_format_zip(a);
        archive_write_zip_set_compression_deflate(a);
    } else {
        if (kind == Kind::Gz)
            archive_write_set_format_raw(a);
        else
            archive_write_set_format_pax_restricted(a);
        archive_write_add_filter_gzip(a);
    }
    if (passphrase && (archive_write_set_options(a, "zip:encryption=zipcrypt") != ARCHIVE_OK ||
                       archive_write_set_passphrase(a, passphrase) != ARCHIVE_OK)) {
        archive_write_free(a);
        return "";
    }
    if (archive_write_open_memory(a, buf.data(), buf.size(), &used) != ARCHIVE_OK) {
        archive_write_free(a);
        return "";
    }
    bool ok = true;
    for (const auto& m : members) {
        struct archive_entry* e = archive_entry_new();
        archive_entry_set_pathname(e, m.first.c_str());
        archive_entry_set_size(e, (la_int64_t)m.second.size());
        archive_entry_set_filetype(e, AE_IFREG);
        archive_entry_set_perm(e, 0644);
        ok = ok && archive_write_header(a, e) == ARCHIVE_OK &&
             archive_write_data(a, m.second.data(), m.second.size()) == (la_ssize_t)m.second.size();
        archive_entry_free(e);
    }
    ok = ok && archive_write_close(a) == ARCHIVE_OK;
    archive_write_free(a);
    return ok ? std::string(buf.data(), used) : "";
}

std::string make_zip(const Members& members, const char* passphrase = nullptr)
{
    return make_archive(Kind::Zip, members, passphrase);
}

struct Result {
    int rc = 12345;
    std::string file_name;
    int64_t file_size = -1;
    std::string virusname;
};

std::string text_of(json_object* o, const char* key)
{
    json_object* v = nullptr;
    return o && json_object_object_get_ex(o, key, &v) ? json_object_get_string(v) : "";
}

int64_t int_of(json_object* o, const char* key, int64_t missing)
{
    json_object* v = nullptr;
    return o && json_object_object_get_ex(o, key, &v) ? json_object_get_int64(v) : missing;
}

struct Reply {
    int rc = 12345;
    std::string error, blocking_reason;
    int files_scanned = -1;
    std::vector<Result> results;

    explicit Reply(json_object* reply)
        : rc((int)int_of(reply, "ReturnCode", 12345)), error(text_of(reply, "Error")),
          blocking_reason(text_of(reply, "Blocking-reason")), files_scanned((int)int_of(reply, "FilesScanned", -1))
    {
        json_object* list = nullptr;
        if (reply && json_object_object_get_ex(reply, "Results", &list) && json_object_is_type(list, json_type_array))
            for (size_t i = 0; i < json_object_array_length(list); ++i) {
                json_object* e = json_object_array_get_idx(list, i);
                results.push_back({(int)int_of(e, "ReturnCode", 12345), text_of(e, "File-name"),
                                   int_of(e, "File-size", -1), text_of(e, "Virusname")});
            }
        json_object_put(reply);
    }
    const Result* find(const std::string& name) const
    {
        for (const auto& r : results)
            if (r.file_name == name)
                return &r;
        return nullptr;
    }
};

std::string dump(const Reply& r)
{
    std::string s = "rc=" + std::to_string(r.rc) + " error='" + r.error + "' reason='" + r.blocking_reason + "'";
    for (const auto& e : r.results)
        s += "\n  " + std::to_string(e.rc) + " " + e.file_name + " '" + e.virusname + "'";
    return s;
}

class PeerClamav : public ::testing::Test {
protected:
    static inline fqtest::NatsServer* server = nullptr;
    static inline fq_connection_config* cfg = nullptr;
    static inline fqtest::TempDir* dir = nullptr;
    static inline fqtest::Child child;

    static void SetUpTestSuite()
    {
        server = new fqtest::NatsServer();
        std::string err;
        ASSERT_TRUE(server->start(&err)) << err;
        ASSERT_TRUE(server->provision(nullptr, nullptr, &err)) << err;
        cfg = server->make_config();
        ASSERT_EQ(fq_connection_init(cfg), 0);
        dir = new fqtest::TempDir();
        child = fqtest::spawn({kClamav, "--broker", server->url(), "--threads", "3"}, dir->path());
        const bool up = fqtest::wait_for(
            [] { return fq_connection_simple_request(cfg, "fq-av-clamav", "{\"Command\": 3}", 200, 0, nullptr) == 0; },
            20s);
        ASSERT_TRUE(up) << fqtest::read_file(child.stderr_path);
    }
    static void TearDownTestSuite()
    {
        if (child.pid > 0)
            fqtest::stop_process(child.pid);
        fq_connection_deinit(cfg);
        fqtest::free_config(&cfg);
        delete dir;
        delete server;
    }

    // A job with the object's bytes beside it.
    static Reply send(const std::string& job, const std::string& bytes)
    {
        fq_const_request_reply_t* rr = fq_const_request_reply_new();
        rr->request->json_txt = job.c_str();
        rr->request->data = reinterpret_cast<const unsigned char*>(bytes.data());
        rr->request->data_len = bytes.size();
        Reply r(fq_connection_send_recv_json_data(cfg, "fq-av-clamav", rr, 20000, 0, 0, nullptr));
        fq_const_request_reply_free_structs(&rr);
        return r;
    }
    // The job as the worker forwards it (extra members added at the end).
    static Reply scan(const std::string& name, const std::string& bytes, const std::string& extra = "")
    {
        return send("{\"Command\": 101, \"realmID\": \"realm\", \"SID\": \"SID\", \"Hostname\": \"client.example\", "
                    "\"EventID\": \"ev-1\", \"Services\": \"fq-av-clamav\", \"Recursion\": 0, \"ObjectName\": \"" +
                        name + "\", \"ObjectLen\": " + std::to_string(bytes.size()) +
                        ", \"SCANTIMEOUT\": 20000, \"SCANEXTRACT_DEPTH\": 0, \"SCANEXTRACT_MAX_FILES\": 0, "
                        "\"SCANEXTRACT_SIZE\": 0" + extra + "}",
                    bytes);
    }
    static Reply raw(const std::string& body)
    {
        return Reply(fq_connection_send_recv_json(cfg, "fq-av-clamav", body.c_str(), 5000, 0, nullptr));
    }
};

TEST_F(PeerClamav, PlainFilesAndArchivesGetAVerdictPerFile)
{
    // A compressed single file is no archive to libarchive: libclamav looks into it itself.
    const std::string gz = make_archive(Kind::Gz, {{"eicar.com", kEicar}});
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
        {"backup.tar.gz", make_archive(Kind::TarGz, {{"docs/readme.txt", kText}, {"bin/eicar.com", kEicar}}), -210, 3,
         "backup.tar.gz/bin/eicar.com", "Eicar-Test-Signature", kEicar.size()},
        {"eicar.com.gz", gz, -210, 1, "eicar.com.gz", "Eicar-Test-Signature", gz.size()},
    };
    ASSERT_EQ(cases[3].bytes.find("EICAR"), std::string::npos) << "a member must not show in the raw zip";
    for (const auto& c : cases) {
        ASSERT_FALSE(c.bytes.empty()) << c.name;
        const Reply r = scan(c.name, c.bytes);
        EXPECT_EQ(r.rc, c.rc) << c.name << ": " << dump(r);
        EXPECT_EQ(r.blocking_reason, c.rc ? "Virus found" : "") << c.name;
        EXPECT_EQ(r.files_scanned, c.files) << c.name;
        ASSERT_EQ(r.results.size(), (size_t)c.files) << c.name << ": " << dump(r);
        EXPECT_EQ(r.results[0].file_name, c.name);
        if (c.finding != c.name) {
            EXPECT_EQ(r.results[0].rc, 0) << c.name << ": the verdict comes from the unpacked member";
        }
        const Result* hit = r.find(c.finding);
        ASSERT_NE(hit, nullptr) << c.name << ": " << dump(r);
        EXPECT_EQ(hit->rc, c.rc) << c.name;
        EXPECT_EQ(hit->virusname.rfind(c.virus, 0), 0u) << c.name << ": " << hit->virusname;
        EXPECT_EQ(c.virus.empty(), hit->virusname.empty()) << c.name;
        EXPECT_EQ(hit->file_size, (int64_t)c.size) << c.name;
    }
}

TEST_F(PeerClamav, DamagedOrEncryptedArchivesAreNeverClean)
{
    std::string body;
    for (int i = 0; i < 400; ++i)
        body += "line " + std::to_string(i * 7919 % 1000) + " of a clean document\n";
    const std::string zip = make_zip({{"report.txt", body}, {"more/report2.txt", body + body}});
    ASSERT_FALSE(zip.empty());
    ASSERT_EQ(scan("whole.zip", zip).rc, 0);

    for (size_t cut : {zip.size() / 2, zip.size() / 5, (size_t)40}) {
        const Reply r = scan("cut.zip", zip.substr(0, cut));
        EXPECT_EQ(r.rc, -100) << "cut at " << cut << ": " << dump(r);
        EXPECT_EQ(r.blocking_reason.rfind("Damaged archive: ", 0), 0u) << dump(r);
        EXPECT_EQ(r.files_scanned, (int)r.results.size());
    }

    const std::string locked = make_zip({{"secret.txt", kText}}, "passw0rd");
    if (locked.empty())
        GTEST_SKIP() << "this libarchive cannot write encrypted zip";
    const Reply r = scan("locked.zip", locked);
    EXPECT_EQ(r.rc, -100) << dump(r);
    const Result* member = r.find("locked.zip/secret.txt");
    ASSERT_NE(member, nullptr) << dump(r);
    EXPECT_EQ(member->rc, -100);
    EXPECT_NE(member->virusname.find("Encrypted"), std::string::npos) << member->virusname;
}

TEST_F(PeerClamav, NestingFileCountAndSizeLimitsEndInNotCompleted)
{
    const std::string inner = make_zip({{"x/eicar.com", kEicar}});
    const std::string outer = make_zip({{"readme.txt", kText}, {"inner.zip", inner}});
    ASSERT_FALSE(outer.empty());

    // Depth 1: the outer archive's members are scanned, the inner archive is not opened.
    Reply r = scan("outer.zip", outer, ", \"SCANEXTRACT_DEPTH\": 1");
    EXPECT_EQ(r.rc, -100) << dump(r);
    EXPECT_EQ(r.blocking_reason, "Archive nesting depth limit reached");
    ASSERT_EQ(r.results.size(), 3u) << dump(r);
    const Result* in = r.find("outer.zip/inner.zip");
    ASSERT_NE(in, nullptr) << dump(r);
    EXPECT_EQ(in->rc, -100);
    EXPECT_EQ(r.find("outer.zip/inner.zip/x/eicar.com"), nullptr);

    // Depth 2 reaches the finding; so does the default when the job sets none.
    for (const std::string extra : {", \"SCANEXTRACT_DEPTH\": 2", ""}) {
        r = scan("outer.zip", outer, extra);
        EXPECT_EQ(r.rc, -210) << extra << dump(r);
        EXPECT_EQ(r.files_scanned, 4);
        const Result* deep = r.find("outer.zip/inner.zip/x/eicar.com");
        ASSERT_NE(deep, nullptr) << dump(r);
        EXPECT_EQ(deep->rc, -210);
    }

    // Three files in all levels, 12000 unpacked bytes: each limit just reached, and just enough.
    const std::string big = make_zip({{"a.txt", std::string(6000, 'a')}, {"b.txt", std::string(6000, 'b')}});
    const struct {
        const std::string& bytes;
        std::string extra, reason;
        int rc;
    } limits[] = {
        {outer, ", \"SCANEXTRACT_MAX_FILES\": 2", "Limit of files in archives reached", -100},
        {outer, ", \"SCANEXTRACT_MAX_FILES\": 3", "Virus found", -210},
        {big, ", \"SCANEXTRACT_SIZE\": 10000", "Limit of unpacked bytes reached", -100},
        {big, ", \"SCANEXTRACT_SIZE\": 12000", "", 0},
    };
    for (const auto& c : limits) {
        r = scan("limits.zip", c.bytes, c.extra);
        EXPECT_EQ(r.rc, c.rc) << c.extra << dump(r);
        EXPECT_EQ(r.blocking_reason, c.reason) << c.extra;
        EXPECT_EQ(r.files_scanned, (int)r.results.size()) << c.extra;
    }
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
        const Reply r = c.data.empty() ? raw(c.body) : send(c.body, c.data);
        EXPECT_EQ(r.rc, c.rc) << c.body;
        EXPECT_NE(r.error.find(c.error_part), std::string::npos) << c.body << ": " << r.error;
        EXPECT_TRUE(r.results.empty()) << c.body;
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
                const std::string& bytes = kind == 0 ? kText : kind == 1 ? zip : kEicar;
                const Reply r = scan(name, bytes);
                const int want = kind == 0 ? 0 : -210;
                const size_t entries = kind == 1 ? 2 : 1;
                if (r.rc != want || r.results.size() != entries || r.results[0].file_name != name)
                    ++wrong;
            }
        });
    }
    for (auto& c : clients)
        c.join();
    EXPECT_EQ(wrong.load(), 0);
}

TEST(PeerClamavProcess, StopsInOrderOnSigtermAndRefusesAMissingDatabase)
{
    fqtest::NatsServer server;
    std::string err;
    ASSERT_TRUE(server.start(&err)) << err;
    fqtest::TempDir dir;

    // A missing database, and a directory without signatures, which would call everything clean.
    fqtest::write_file(dir / "notes.txt", "no signatures here\n");
    int status = -1;
    for (const std::string& db : {dir / "nothing-here", dir.path()}) {
        auto bad = fqtest::spawn({kClamav, "--broker", server.url(), "--database", db}, dir.path());
        ASSERT_TRUE(fqtest::wait_exit(bad.pid, 20s, &status));
        EXPECT_EQ(status, 1) << db;
        EXPECT_NE(fqtest::read_file(bad.stderr_path).find(db), std::string::npos) << fqtest::read_file(bad.stderr_path);
    }

    auto good = fqtest::spawn({kClamav, "--broker", server.url(), "--threads", "2"}, dir.path());
    ASSERT_TRUE(fqtest::wait_until(
        [&] { return fqtest::read_file(good.stderr_path).find("serving fq-av-clamav with 2 threads") != std::string::npos; },
        20s))
        << fqtest::read_file(good.stderr_path);
    ASSERT_EQ(kill(good.pid, SIGTERM), 0);
    ASSERT_TRUE(fqtest::wait_exit(good.pid, 10s, &status)) << fqtest::read_file(good.stderr_path);
    EXPECT_EQ(status, 0) << fqtest::read_file(good.stderr_path);
}

TEST(PeerClamavWorker, TheClientGetsTheNestedFindingThroughTheWorker)
{
    fqtest::WorkerEnv env;
    ASSERT_TRUE(env.ok()) << env.error();
    auto engine = fqtest::spawn({kClamav, "--broker", env.server.url(), "--threads", "2"}, env.dir.path());
    auto worker = env.spawn_worker({"--console-mode", "--worker-threads", "2"});
    ASSERT_TRUE(env.wait_ready()) << fqtest::read_file(worker.stderr_path);

    fq_connection_config* client = env.server.make_config();
    ASSERT_EQ(0, fq_connection_init(client));
    ASSERT_TRUE(fqtest::wait_for(
        [&] { return fq_connection_simple_request(client, "fq-av-clamav", "{\"Command\": 3}", 200, 0, nullptr) == 0; },
        20s))
        << fqtest::read_file(engine.stderr_path);

    const std::string zip = make_zip({{"docs/a.txt", kText}, {"payload/eicar.com", kEicar}});
    char* key = nullptr;
    char errmsg[1024] = "";
    ASSERT_EQ(0, fq_connection_stage_scan_data(client, zip.data(), zip.size(), 60000, &key, errmsg)) << errmsg;
    const std::string job =
        "{\"Command\": 101, \"ObjectName\": \"mail.zip\", \"ObjectLen\": " + std::to_string(zip.size()) +
        ", \"Services\": \"fq-av-clamav\", \"shmID\": \"0xffffffff\", \"realmID\": \"r\", \"EventID\": \"e\", "
        "\"Hostname\": \"client\", \"SID\": \"S\", \"HTMLDETECTION\": \"OFF\", \"Scan-Servers\": \"all\", "
        "\"XML_MODE\": \"XML\", \"SVG_MODE\": \"SVG\", \"EVENT_ID_DELIMITER\": \"#\", \"SCANTIMEOUT\": 10000, "
        "\"_kv_key\": \"" + std::string(key) + "\"}";
    auto text = env.request("fq-av-scanproxy", job, 15000);
    fq_connection_unstage_scan_data(client, key);
    free(key);
    fq_connection_deinit(client);
    fqtest::free_config(&client);

    ASSERT_TRUE(text.has_value()) << fqtest::read_file(engine.stderr_path);
    json_object* obj = json_tokener_parse(text->c_str());
    ASSERT_NE(obj, nullptr) << *text;
    const Reply r(obj);
    EXPECT_EQ(r.rc, -210) << *text;
    EXPECT_NE(r.blocking_reason.find("Eicar-Test-Signature"), std::string::npos) << *text;
    const Result* nested = r.find("mail.zip/payload/eicar.com");
    ASSERT_NE(nested, nullptr) << *text;
    EXPECT_EQ(nested->rc, -210);
    // The worker works the finding up to the archive itself.
    const Result* top = r.find("mail.zip");
    ASSERT_NE(top, nullptr) << *text;
    EXPECT_EQ(top->rc, -210);

    fqtest::stop_process(worker.pid);
    fqtest::stop_process(engine.pid);
}

}  // namespace
