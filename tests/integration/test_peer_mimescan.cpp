// tools/fq-av-mimescan as a real process: objects staged in the KV store the way the worker
// stages them, and the result entry it answers with.
#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "broker_test.h"
#include "samples.h"

namespace {

using namespace fqtest;

// A 1x1 GIF: libmagic names its extension itself.
const std::string kGif("GIF89a\x01\x00\x01\x00\x80\x00\x00\x00\x00\x00\xff\xff\xff!\xf9\x04\x01\x00\x00\x00\x00,"
                       "\x00\x00\x00\x00\x01\x00\x01\x00\x00\x02\x02\x44\x01\x00;",
                       43);

class PeerMimescan : public BrokerTest {
protected:
    static void SetUpTestSuite()
    {
        BrokerTest::SetUpTestSuite();
        suite.start_program("fq-av-mimescan", {"--threads", "4"}, "fq-av-mimescan");
    }
    // The job as the worker forwards it, with the object staged beside it.
    static Json scan(const std::string& name, const std::string& bytes, size_t object_len)
    {
        return Json(suite.send("fq-av-mimescan",
                               "{\"Command\": 101, \"ObjectName\": \"" + name +
                                   "\", \"ObjectLen\": " + std::to_string(object_len) + ", \"SCANTIMEOUT\": 5000}",
                               bytes, 5000));
    }
    static Json scan(const std::string& name, const std::string& bytes) { return scan(name, bytes, bytes.size()); }
};

TEST_F(PeerMimescan, ReportsWhatTheObjectIsUnderTheJobsObjectName)
{
    const std::string zip = make_zip({{"inner/readme.txt", std::string(2000, 'z')}});
    const struct {
        std::string name, bytes, mime, encoding, type_start, extension;
    } cases[] = {
        // libmagic has no extension for text: it is taken from the name.
        {"Letters/Reader Note.TXT", kText, "text/plain", "us-ascii", "ASCII text", "txt"},
        {"upload-4711.zip", zip, "application/zip", "binary", "Zip archive data", "zip"},
        // The name says png, the bytes say gif: libmagic's own extension comes first.
        {"holiday.png", kGif, "image/gif", "binary", "GIF image data", "gif"},
        // Nothing to go on: no extension rather than a made-up one.
        {"README", kText, "text/plain", "us-ascii", "ASCII text", ""},
        {".profile", kText, "text/plain", "us-ascii", "ASCII text", ""},
    };
    for (const auto& c : cases) {
        const Json r = scan(c.name, c.bytes);
        EXPECT_EQ(r.rc(), 0) << c.name << ": " << r.text();
        EXPECT_EQ(r.num("FilesScanned"), 1) << c.name;
        ASSERT_EQ(r.list().size(), 1u) << c.name << ": " << r.text();
        const Json e = r.list()[0];
        EXPECT_EQ(e.rc(), 0) << c.name;
        EXPECT_EQ(e.str("File-name"), c.name);
        EXPECT_EQ(e.str("MIME-type"), c.mime) << c.name;
        EXPECT_EQ(e.str("MIME-encoding"), c.encoding) << c.name;
        EXPECT_EQ(e.str("File-type").rfind(c.type_start, 0), 0u) << c.name << ": " << e.str("File-type");
        EXPECT_EQ(e.str("Extension"), c.extension) << c.name;
        EXPECT_EQ(e.num("Object-type"), -1) << c.name;
        EXPECT_EQ(e.num("File-size"), (int64_t)c.bytes.size()) << c.name;
    }
}

TEST_F(PeerMimescan, AnObjectItCannotLookAtIsNeverAnsweredClean)
{
    const struct {
        std::string job, bytes, error_part;
        int rc;
    } cases[] = {
        // Announced bytes that are not there, fewer bytes than announced, a staging that is gone.
        {"{\"Command\": 101, \"ObjectName\": \"gone.txt\", \"ObjectLen\": 10}", "", "gone.txt", -1000},
        {"{\"Command\": 101, \"ObjectName\": \"short.txt\", \"ObjectLen\": 999}", kText, "", -1000},
        {"{\"Command\": 101, \"ObjectName\": \"x\", \"ObjectLen\": 4, \"_kv_key\": \"no-such-key\"}", "", "", -1000},
        // No name to report it under.
        {"{\"Command\": 101, \"ObjectLen\": 11}", "hello world", "ObjectName", -1000},
        {"this is not JSON", "", "", -1000},
        {"[1, 2, 3]", "", "", -1000},
        // The worker's ping.
        {"{ \"Command\" : 3 }", "", "", 0},
    };
    for (const auto& c : cases) {
        const Json r(suite.send("fq-av-mimescan", c.job, c.bytes, 5000));
        EXPECT_EQ(r.rc(), c.rc) << c.job;
        EXPECT_NE(r.str("Error").find(c.error_part), std::string::npos) << c.job << ": " << r.text();
        EXPECT_EQ(c.rc != 0, !r.str("Error").empty()) << c.job;
        EXPECT_FALSE(r.has("Results")) << c.job;
    }
}

TEST_F(PeerMimescan, ConcurrentRequestsEachGetTheAnswerForTheirOwnObject)
{
    const std::string zip = make_zip({{"inner/readme.txt", std::string(2000, 'z')}});
    std::atomic<int> wrong{0};
    std::vector<std::thread> clients;
    for (int t = 0; t < 4; ++t) {
        clients.emplace_back([&, t] {
            for (int i = 0; i < 12; ++i) {
                const std::string name = "obj-" + std::to_string(t) + "-" + std::to_string(i);
                const int kind = (t + i) % 3;
                const std::string& bytes = kind == 0 ? kText : kind == 1 ? zip : kGif;
                const auto entries = scan(name, bytes).list();
                const char* mime = kind == 0 ? "text/plain" : kind == 1 ? "application/zip" : "image/gif";
                if (entries.size() != 1 || entries[0].str("MIME-type") != mime ||
                    entries[0].str("File-name") != name || entries[0].num("File-size") != (int64_t)bytes.size())
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
    EXPECT_EQ(run_program({build_program("fq-av-mimescan"), "--magic-file", "/nonexistent/magic.mgc", "--wait", "0"},
                          &out),
              1);
    EXPECT_NE(out.find("magic"), std::string::npos) << out;
}

}  // namespace
