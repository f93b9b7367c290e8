// tools/fq-av-mimescan as a real process: objects staged in the KV store the way the worker
// stages them, and the result entry it answers with.
#include <archive.h>
#include <archive_entry.h>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <nats/nats.h>

#include <atomic>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "fq_connection_client.h"
#include "nats_server.h"
#include "process_util.h"

namespace {

using namespace std::chrono_literals;

const std::string kMimescan = std::string(FQ_BUILD_DIR) + "/fq-av-mimescan";

// A zip archive with one text member, made in memory.
std::string make_zip()
{
    std::vector<char> buf(64 * 1024);
    size_t used = 0;
    struct archive* a = archive_write_new();
    archive_write_set_format_zip(a);
    if (archive_write_open_memory(a, buf.data(), buf.size(), &used) != ARCHIVE_OK) {
        archive_write_free(a);
        return "";
    }
    const std::string content(2000, 'z');
    struct archive_entry* e = archive_entry_new();
    archive_entry_set_pathname(e, "inner/readme.txt");
    archive_entry_set_size(e, (la_int64_t)content.size());
    archive_entry_set_filetype(e, AE_IFREG);
    archive_entry_set_perm(e, 0644);
    const bool ok = archive_write_header(a, e) == ARCHIVE_OK &&
                    archive_write_data(a, content.data(), content.size()) == (la_ssize_t)content.size();
    archive_entry_free(e);
    archive_write_close(a);
    archive_write_free(a);
    return ok ? std::string(buf.data(), used) : "";
}

// A 1x1 GIF: libmagic names its extension itself.
const std::string kGif("GIF89a\x01\x00\x01\x00\x80\x00\x00\x00\x00\x00\xff\xff\xff!\xf9\x04\x01\x00\x00\x00\x00,"
                       "\x00\x00\x00\x00\x01\x00\x01\x00\x00\x02\x02\x44\x01\x00;",
                       43);
const std::string kText = "Dear reader,\nthis is plain text in two lines.\n";

struct Entry {
    int top_rc = 12345;
    int files_scanned = -1;
    int results = -1;
    std::string error;
    int rc = 12345;
    std::string file_name, mime_type, mime_encoding, file_type, extension;
    int object_type = 0;
    int64_t file_size = -1;
};

std::string text_of(json_object* o, const char* key)
{
    json_object* v = nullptr;
    return o && json_object_object_get_ex(o, key, &v) ? json_object_get_string(v) : "";
}

int int_of(json_object* o, const char* key, int dflt)
{
    json_object* v = nullptr;
    return o && json_object_object_get_ex(o, key, &v) ? json_object_get_int(v) : dflt;
}

Entry read_reply(json_object* reply)
{
    Entry e;
    if (!reply)
        return e;
    e.top_rc = int_of(reply, "ReturnCode", 12345);
    e.error = text_of(reply, "Error");
    e.files_scanned = int_of(reply, "FilesScanned", -1);
    json_object* results = nullptr;
    if (!json_object_object_get_ex(reply, "Results", &results) || !json_object_is_type(results, json_type_array))
        return e;
    e.results = (int)json_object_array_length(results);
    json_object* first = json_object_array_get_idx(results, 0);
    e.rc = int_of(first, "ReturnCode", 12345);
    e.file_name = text_of(first, "File-name");
    e.mime_type = text_of(first, "MIME-type");
    e.mime_encoding = text_of(first, "MIME-encoding");
    e.file_type = text_of(first, "File-type");
    e.extension = text_of(first, "Extension");
    e.object_type = int_of(first, "Object-type", 0);
    json_object* size = nullptr;
    if (json_object_object_get_ex(first, "File-size", &size))
        e.file_size = json_object_get_int64(size);
    return e;
}

class PeerMimescan : public ::testing::Test {
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
        child = fqtest::spawn({kMimescan, "--broker", server->url(), "--threads", "4"}, dir->path());
        const bool up = fqtest::wait_for(
            [] {
                return fq_connection_simple_request(cfg, "fq-av-mimescan", "{\"Command\": 3}", 200, 0, nullptr) == 0;
            },
            10s);
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

    // The job as the worker forwards it, with the object staged beside it.
    static Entry scan(const std::string& name, const std::string& bytes, const std::string& object_len = "")
    {
        const std::string len = object_len.empty() ? std::to_string(bytes.size()) : object_len;
        const std::string job = "{\"Command\": 101, \"realmID\": \"realm\", \"SID\": \"SID\", \"Hostname\": "
                                "\"client.example\", \"EventID\": \"ev-1\", \"Services\": \"fq-av-mimescan\", "
                                "\"Recursion\": 0, \"ObjectName\": \"" +
                                name + "\", \"ObjectLen\": " + len + ", \"SCANTIMEOUT\": 5000}";
        fq_const_request_reply_t* rr = fq_const_request_reply_new();
        rr->request->json_txt = job.c_str();
        rr->request->data = reinterpret_cast<const unsigned char*>(bytes.data());
        rr->request->data_len = bytes.size();
        json_object* reply = fq_connection_send_recv_json_data(cfg, "fq-av-mimescan", rr, 5000, 0, 0, nullptr);
        fq_const_request_reply_free_structs(&rr);
        Entry e = read_reply(reply);
        json_object_put(reply);
        return e;
    }

    static Entry raw(const std::string& body)
    {
        json_object* reply = fq_connection_send_recv_json(cfg, "fq-av-mimescan", body.c_str(), 5000, 0, nullptr);
        Entry e = read_reply(reply);
        json_object_put(reply);
        return e;
    }
};

TEST_F(PeerMimescan, ReportsTextZipAndGifWithTheJobsObjectName)
{
    const Entry text = scan("Letters/Reader Note.TXT", kText);
    EXPECT_EQ(text.top_rc, 0);
    EXPECT_EQ(text.files_scanned, 1);
    EXPECT_EQ(text.results, 1);
    EXPECT_EQ(text.rc, 0);
    EXPECT_EQ(text.file_name, "Letters/Reader Note.TXT");
    EXPECT_EQ(text.mime_type, "text/plain");
    EXPECT_EQ(text.mime_encoding, "us-ascii");
    EXPECT_NE(text.file_type.find("text"), std::string::npos) << text.file_type;
    EXPECT_EQ(text.extension, "txt") << "libmagic has none for text: taken from the name";
    EXPECT_EQ(text.object_type, -1);
    EXPECT_EQ(text.file_size, (int64_t)kText.size());

    const std::string zip = make_zip();
    ASSERT_FALSE(zip.empty());
    const Entry z = scan("upload-4711.zip", zip);
    EXPECT_EQ(z.top_rc, 0);
    EXPECT_EQ(z.file_name, "upload-4711.zip");
    EXPECT_EQ(z.mime_type, "application/zip");
    EXPECT_EQ(z.mime_encoding, "binary");
    EXPECT_EQ(z.file_type.rfind("Zip archive data", 0), 0u) << z.file_type;
    EXPECT_EQ(z.extension, "zip");
    EXPECT_EQ(z.file_size, (int64_t)zip.size());

    // The name says png, the bytes say gif: libmagic's own extension comes first.
    const Entry gif = scan("holiday.png", kGif);
    EXPECT_EQ(gif.top_rc, 0);
    EXPECT_EQ(gif.mime_type, "image/gif");
    EXPECT_EQ(gif.extension, "gif");
    EXPECT_EQ(gif.file_name, "holiday.png");

    // Nothing to go on: no extension rather than a made-up one.
    EXPECT_EQ(scan("README", kText).extension, "");
    EXPECT_EQ(scan(".profile", kText).extension, "");
}

TEST_F(PeerMimescan, AnObjectItCannotLookAtIsNeverAnsweredClean)
{
    // Announced bytes that are not there.
    Entry e = raw("{\"Command\": 101, \"ObjectName\": \"gone.txt\", \"ObjectLen\": 10}");
    EXPECT_EQ(e.top_rc, -1000);
    EXPECT_NE(e.error.find("gone.txt"), std::string::npos) << e.error;
    EXPECT_EQ(e.results, -1);

    // Fewer bytes than announced.
    e = scan("short.txt", kText, std::to_string(kText.size() + 1));
    EXPECT_EQ(e.top_rc, -1000);
    EXPECT_FALSE(e.error.empty());

    // A staged object that has expired or was never there.
    e = raw("{\"Command\": 101, \"ObjectName\": \"x\", \"ObjectLen\": 4, \"_kv_key\": \"no-such-key\"}");
    EXPECT_EQ(e.top_rc, -1000);

    // No name to report it under.
    const std::string no_name = "{\"Command\": 101, \"ObjectLen\": 11}";
    fq_const_request_reply_t* rr = fq_const_request_reply_new();
    rr->request->json_txt = no_name.c_str();
    rr->request->data = reinterpret_cast<const unsigned char*>("hello world");
    rr->request->data_len = 11;
    json_object* reply = fq_connection_send_recv_json_data(cfg, "fq-av-mimescan", rr, 5000, 0, 0, nullptr);
    fq_const_request_reply_free_structs(&rr);
    e = read_reply(reply);
    json_object_put(reply);
    EXPECT_EQ(e.top_rc, -1000);
    EXPECT_NE(e.error.find("ObjectName"), std::string::npos) << e.error;

    EXPECT_EQ(raw("this is not JSON").top_rc, -1000);
    EXPECT_EQ(raw("[1, 2, 3]").top_rc, -1000);
    // The worker's ping.
    EXPECT_EQ(raw("{ \"Command\" : 3 }").top_rc, 0);
}

TEST_F(PeerMimescan, ConcurrentRequestsEachGetTheAnswerForTheirOwnObject)
{
    const std::string zip = make_zip();
    ASSERT_FALSE(zip.empty());
    std::atomic<int> wrong{0};
    std::vector<std::thread> clients;
    for (int t = 0; t < 4; ++t) {
        clients.emplace_back([&, t] {
            for (int i = 0; i < 12; ++i) {
                const std::string name = "obj-" + std::to_string(t) + "-" + std::to_string(i);
                const int kind = (t + i) % 3;
                const std::string& bytes = kind == 0 ? kText : kind == 1 ? zip : kGif;
                const char* want = kind == 0 ? "text/plain" : kind == 1 ? "application/zip" : "image/gif";
                const Entry e = scan(name, bytes);
                if (e.top_rc != 0 || e.mime_type != want || e.file_name != name ||
                    e.file_size != (int64_t)bytes.size())
                    ++wrong;
            }
        });
    }
    for (auto& c : clients)
        c.join();
    EXPECT_EQ(wrong.load(), 0);
}

TEST(PeerMimescanStart, UnloadableMagicDatabaseIsASetUpError)
{
    std::string out;
    EXPECT_EQ(fqtest::run_program({kMimescan, "--magic-file", "/nonexistent/magic.mgc", "--wait", "0"}, &out), 1);
    EXPECT_NE(out.find("magic"), std::string::npos) << out;
}

}  // namespace
