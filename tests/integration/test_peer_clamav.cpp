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

struct Reply {
    int rc = 12345;
    std::string error;
    std::string blocking_reason;
    int files_scanned = -1;
    std::vector<Result> results;

    const Result* find(const std::string& name) const
    {
        for (const auto& r : results)
            if (r.file_name == name)
                return &r;
        return nullptr;
    }
};

std::string text_of(json_object* o, const char* key)
{
    json_object* v = nullptr;
    return o && json_object_object_get_ex(o, key, &v) ? json_object_get_string(v) : "";
}

Reply read_reply(json_object* reply)
{
    Reply r;
    json_object* v = nullptr;
    if (!reply)
        return r;
    if (json_object_object_get_ex(reply, "ReturnCode", &v))
        r.rc = json_object_get_int(v);
    r.error = text_of(reply, "Error");
    r.blocking_reason = text_of(reply, "Blocking-reason");
    if (json_object_object_get_ex(reply, "FilesScanned", &v))
        r.files_scanned = json_object_get_int(v);
    json_object* results = nullptr;
    if (!json_object_object_get_ex(reply, "Results", &results) || !json_object_is_type(results, json_type_array))
        return r;
    for (size_t i = 0; i < json_object_array_length(results); ++i) {
        json_object* e = json_object_array_get_idx(results, i);
        Result x;
        if (json_object_object_get_ex(e, "ReturnCode", &v))
            x.rc = json_object_get_int(v);
        x.file_name = text_of(e, "File-name");
        if (json_object_object_get_ex(e, "File-size", &v))
            x.file_size = json_object_get_int64(v);
        x.virusname = text_of(e, "Virusname");
        r.results.push_back(x);
    }
    return r;
}

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
        if (child.pid > 0) {
            fqtest::stop_process(child.pid);
            child.pid = -1;
        }
        fq_connection_deinit(cfg);
        fqtest::free_config(&cfg);
        delete dir;
        dir = nullptr;
        delete server;
        server = nullptr;
    }

    // The job as the worker forwards it (extra members added at the end), the object staged beside it.
    static Reply scan(const std::string& name, const std::string& bytes, const std::string& extra = "")
    {
        const std::string job = "{\"Command\": 101, \"realmID\": \"realm\", \"SID\": \"SID\", \"Hostname\": "
                                "\"client.example\", \"EventID\": \"ev-1\", \"Services\": \"fq-av-clamav\", "
                                "\"Recursion\": 0, \"ObjectName\": \"" +
                                name + "\", \"ObjectLen\": " + std::to_string(bytes.size()) +
                                ", \"SCANTIMEOUT\": 20000, \"SCANEXTRACT_DEPTH\": 0, \"SCANEXTRACT_MAX_FILES\": 0, "
                                "\"SCANEXTRACT_SIZE\": 0" +
                                extra + "}";
        fq_const_request_reply_t* rr = fq_const_request_reply_new();
        rr->request->json_txt = job.c_str();
        rr->request->data = reinterpret_cast<const unsigned char*>(bytes.data());
        rr->request->data_len = bytes.size();
        json_object* reply = fq_connection_send_recv_json_data(cfg, "fq-av-clamav", rr, 20000, 0, 0, nullptr);
        fq_const_request_reply_free_structs(&rr);
        Reply r = read_reply(reply);
        json_object_put(reply);
        return r;
    }

    static Reply raw(const std::string& body)
    {
        json_object* reply = fq_connection_send_recv_json(cfg, "fq-av-clamav", body.c_str(), 5000, 0, nullptr);
        Reply r = read_reply(reply);
        json_object_put(reply);
        return r;
    }
};

TEST_F(PeerClamav, PlainFilesEicarAndTheProjectPatternAreFoundCleanTextIsClean)
{
    Reply r = scan("eicar.com", kEicar);
    EXPECT_EQ(r.rc, -210) << dump(r);
    EXPECT_EQ(r.blocking_reason, "Virus found");
    ASSERT_EQ(r.files_scanned, 1);
    ASSERT_EQ(r.results.size(), 1u);
    EXPECT_EQ(r.results[0].file_name, "eicar.com");
    EXPECT_EQ(r.results[0].rc, -210);
    EXPECT_EQ(r.results[0].file_size, (int64_t)kEicar.size());
    EXPECT_EQ(r.results[0].virusname.rfind("Eicar-Test-Signature", 0), 0u) << r.results[0].virusname;

    // The marker anywhere inside other text.
    r = scan("notes/marked.txt", "first line\n" + kPattern + "\nlast line\n");
    EXPECT_EQ(r.rc, -210) << dump(r);
    ASSERT_EQ(r.results.size(), 1u);
    EXPECT_EQ(r.results[0].virusname.rfind("FQ-AV.Test.Pattern.Virus", 0), 0u) << r.results[0].virusname;

    // Half of the marker is nothing.
    r = scan("letter.txt", kText + kPattern.substr(0, 20));
    EXPECT_EQ(r.rc, 0) << dump(r);
    EXPECT_EQ(r.blocking_reason, "");
    ASSERT_EQ(r.files_scanned, 1);
    ASSERT_EQ(r.results.size(), 1u);
    EXPECT_EQ(r.results[0].file_name, "letter.txt");
    EXPECT_EQ(r.results[0].rc, 0);
    EXPECT_EQ(r.results[0].virusname, "");
}

TEST_F(PeerClamav, EicarInAZipFolderIsReportedUnderItsNestedName)
{
    const std::string zip = make_zip({{"docs/readme.txt", kText}, {"folder/eicar.com", kEicar}});
    ASSERT_FALSE(zip.empty());
    ASSERT_EQ(zip.find("EICAR"), std::string::npos) << "the member must not be visible in the raw archive";

    const Reply r = scan("upload.zip", zip);
    EXPECT_EQ(r.rc, -210) << dump(r);
    EXPECT_EQ(r.blocking_reason, "Virus found");
    ASSERT_EQ(r.files_scanned, 3) << dump(r);
    ASSERT_EQ(r.results.size(), 3u);
    EXPECT_EQ(r.results[0].file_name, "upload.zip");
    EXPECT_EQ(r.results[0].rc, 0) << "the finding comes from the unpacked member";
    const Result* readme = r.find("upload.zip/docs/readme.txt");
    ASSERT_NE(readme, nullptr) << dump(r);
    EXPECT_EQ(readme->rc, 0);
    EXPECT_EQ(readme->file_size, (int64_t)kText.size());
    const Result* eicar = r.find("upload.zip/folder/eicar.com");
    ASSERT_NE(eicar, nullptr) << dump(r);
    EXPECT_EQ(eicar->rc, -210);
    EXPECT_EQ(eicar->virusname.rfind("Eicar-Test-Signature", 0), 0u);

    // A clean archive is clean, with an entry for every member.
    const Reply clean = scan("clean.zip", make_zip({{"a.txt", kText}, {"b/c.txt", kText + kText}}));
    EXPECT_EQ(clean.rc, 0) << dump(clean);
    EXPECT_EQ(clean.files_scanned, 3);
    EXPECT_NE(clean.find("clean.zip/b/c.txt"), nullptr) << dump(clean);

    // Compressed tar is unpacked like zip.
    const std::string tgz = make_archive(Kind::TarGz, {{"docs/readme.txt", kText}, {"bin/eicar.com", kEicar}});
    ASSERT_FALSE(tgz.empty());
    const Reply t = scan("backup.tar.gz", tgz);
    EXPECT_EQ(t.rc, -210) << dump(t);
    EXPECT_EQ(t.files_scanned, 3);
    const Result* in_tar = t.find("backup.tar.gz/bin/eicar.com");
    ASSERT_NE(in_tar, nullptr) << dump(t);
    EXPECT_EQ(in_tar->rc, -210);

    // A compressed single file is no archive to libarchive: libclamav looks into it itself.
    const std::string gz = make_archive(Kind::Gz, {{"eicar.com", kEicar}});
    ASSERT_FALSE(gz.empty());
    ASSERT_EQ(gz.find("EICAR"), std::string::npos);
    const Reply g = scan("eicar.com.gz", gz);
    EXPECT_EQ(g.rc, -210) << dump(g);
    EXPECT_EQ(g.files_scanned, 1);
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

    // Three files in all levels: a limit of 2 is reached, 3 is enough.
    r = scan("outer.zip", outer, ", \"SCANEXTRACT_MAX_FILES\": 2");
    EXPECT_EQ(r.rc, -100) << dump(r);
    EXPECT_EQ(r.blocking_reason, "Limit of files in archives reached");
    EXPECT_EQ(scan("outer.zip", outer, ", \"SCANEXTRACT_MAX_FILES\": 3").rc, -210);

    // Unpacked bytes of all members together.
    const std::string big = make_zip({{"a.txt", std::string(6000, 'a')}, {"b.txt", std::string(6000, 'b')}});
    r = scan("big.zip", big, ", \"SCANEXTRACT_SIZE\": 10000");
    EXPECT_EQ(r.rc, -100) << dump(r);
    EXPECT_EQ(r.blocking_reason, "Limit of unpacked bytes reached");
    EXPECT_EQ(r.files_scanned, (int)r.results.size());
    EXPECT_EQ(scan("big.zip", big, ", \"SCANEXTRACT_SIZE\": 12000").rc, 0);
}

TEST_F(PeerClamav, RequestsItCannotScanAreErrors)
{
    // Announced bytes that are not there.
    Reply r = raw("{\"Command\": 101, \"ObjectName\": \"gone.txt\", \"ObjectLen\": 10}");
    EXPECT_EQ(r.rc, -1000);
    EXPECT_NE(r.error.find("gone.txt"), std::string::npos) << r.error;
    EXPECT_TRUE(r.results.empty());

    // A staged object that has expired or was never there.
    EXPECT_EQ(raw("{\"Command\": 101, \"ObjectName\": \"x\", \"ObjectLen\": 4, \"_kv_key\": \"no-such-key\"}").rc,
              -1000);

    // Fewer bytes than the job announces.
    const std::string job = "{\"Command\": 101, \"ObjectName\": \"short.txt\", \"ObjectLen\": 999}";
    fq_const_request_reply_t* rr = fq_const_request_reply_new();
    rr->request->json_txt = job.c_str();
    rr->request->data = reinterpret_cast<const unsigned char*>(kEicar.data());
    rr->request->data_len = kEicar.size();
    json_object* reply = fq_connection_send_recv_json_data(cfg, "fq-av-clamav", rr, 5000, 0, 0, nullptr);
    fq_const_request_reply_free_structs(&rr);
    r = read_reply(reply);
    json_object_put(reply);
    EXPECT_EQ(r.rc, -1000);
    EXPECT_NE(r.error.find("999"), std::string::npos) << r.error;

    EXPECT_EQ(raw("not JSON").rc, -1000);
    EXPECT_EQ(raw("{\"Command\": 101, \"ObjectLen\": 0}").rc, -1000);
    EXPECT_EQ(raw("{\"Command\": 3}").rc, 0);
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

    auto bad = fqtest::spawn({kClamav, "--broker", server.url(), "--database", dir / "nothing-here"}, dir.path());
    int status = -1;
    ASSERT_TRUE(fqtest::wait_exit(bad.pid, 20s, &status));
    EXPECT_EQ(status, 1);
    EXPECT_NE(fqtest::read_file(bad.stderr_path).find("nothing-here"), std::string::npos);

    // A directory without signatures would call everything clean.
    fqtest::write_file(dir / "notes.txt", "no signatures here\n");
    bad = fqtest::spawn({kClamav, "--broker", server.url(), "--database", dir.path()}, dir.path());
    ASSERT_TRUE(fqtest::wait_exit(bad.pid, 20s, &status));
    EXPECT_EQ(status, 1) << fqtest::read_file(bad.stderr_path);

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
    const Reply r = read_reply(obj);
    json_object_put(obj);
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
