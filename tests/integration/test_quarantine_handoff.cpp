// The quarantine hand-off on a real broker: jobs go through the worker's request handler to an
// in-test engine, non-clean objects on to the real fq-av-quarantine store, or to in-test
// quarantine services scripted for what the real store never answers.
#include <gtest/gtest.h>
#include <json-c/json.h>

#include <atomic>
#include <filesystem>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "fq_worker.h"
#include "fq_worker_scan_result.h"
#include "fq_worker_scanobject.h"
#include "fqscanproxy_quarantine.h"
#include "log.h"
#include "nats_server.h"
#include "process_util.h"
#include "stderr_capture.h"

using namespace std::chrono_literals;

namespace {

const std::string kQuarantine = std::string(FQ_BUILD_DIR) + "/fq-av-quarantine";
const std::string kObject = std::string("MZ\x90\x00 not really a program", 24);

std::string s_member(json_object* obj, const char* key)
{
    json_object* v = nullptr;
    return obj && json_object_object_get_ex(obj, key, &v) && v ? json_object_get_string(v) : "";
}

class QuarantineHandoff : public ::testing::Test {
protected:
    static inline fqtest::BrokerSuite suite;
    static inline fqtest::TempDir* dir = nullptr;
    static inline fqtest::Child store;
    static inline fq_worker_config_t config{};
    static inline fq_thread_global_params_t global{};
    static inline fq_worker_thread_t thread{};
    static inline std::unique_ptr<fqtest::Responder> engine;
    // What the engine answers: -210 with a finding, 0 clean, -1000 a failure of its own.
    static inline std::atomic<int> verdict{-210};

    static void SetUpTestSuite()
    {
        suite.start();
        ASSERT_TRUE(suite.error.empty()) << suite.error;
        config.connection_config = suite.cfg;
        config.quarantine_encryption_keys = zlist_new();
        global.config = &config;
        thread.global_parameters = &global;
        engine = std::make_unique<fqtest::Responder>(suite.peer, "fq-av-qengine", [](const std::string&) {
            switch (verdict.load()) {
            case 0:
                return std::optional<std::string>("{\"ReturnCode\": 0, \"FilesScanned\": 1, \"Results\": "
                                                  "[{\"ReturnCode\": 0, \"File-name\": \"invoice.exe\"}]}");
            case -1000:
                return std::optional<std::string>("{\"ReturnCode\": -1000, \"Error\": \"engine crashed\"}");
            default:
                return std::optional<std::string>(
                    "{\"ReturnCode\": -210, \"FilesScanned\": 1, \"Blocking-reason\": \"Virus found\", \"Results\": "
                    "[{\"ReturnCode\": -210, \"File-name\": \"invoice.exe\", \"Virusname\": \"Eicar-Test-Signature\"}]}");
            }
        });
        dir = new fqtest::TempDir();
        store = fqtest::spawn({kQuarantine, "--broker", suite.server->url(), "--key", "q1", "--directory", store_dir(),
                               "--threads", "2"},
                              dir->path());
        ASSERT_TRUE(fqtest::wait_until(
            [] { return fq_connection_simple_request(suite.cfg, "fq-av-quarantine.q1", "{\"Command\": 3}", 200, 0,
                                                     nullptr) == 0; },
            15s))
            << fqtest::read_file(store.stderr_path);
    }
    static void TearDownTestSuite()
    {
        if (store.pid > 0)
            fqtest::stop_process(store.pid);
        engine.reset();
        zlist_destroy(&config.quarantine_encryption_keys);
        suite.stop();
        delete dir;
    }
    void SetUp() override { verdict = -210; }

    static std::string store_dir() { return dir->path() + "/store"; }
    static std::set<std::string> stored_ids()
    {
        std::set<std::string> ids;
        for (const auto& e : std::filesystem::directory_iterator(store_dir()))
            if (e.path().extension() == ".json")
                ids.insert(e.path().stem().string());
        return ids;
    }
    // The one object stored since before, with its metadata.
    static std::pair<std::string, fq_json_ptr> new_object(const std::set<std::string>& before)
    {
        for (const std::string& id : stored_ids())
            if (!before.count(id))
                return {id, fq_json_ptr(json_tokener_parse(fqtest::read_file(store_dir() + "/" + id + ".json").c_str()))};
        return {"", nullptr};
    }

    static fq_json_ptr job(const std::string& cleanquarantine, size_t len)
    {
        fq_json_ptr j(json_tokener_parse(
            "{\"Command\": 101, \"ObjectName\": \"in/box/invoice.exe\", \"Services\": \"fq-av-qengine\", "
            "\"realmID\": \"realm-q\", \"EventID\": \"ev-q1\", \"Hostname\": \"client.example\", \"SID\": \"QAS\", "
            "\"Scan-Servers\": \"all\", \"XML_MODE\": \"XML\", \"SVG_MODE\": \"SVG\", \"EVENT_ID_DELIMITER\": \"#\", "
            "\"shmID\": \"0xffffffff\", \"HTMLDETECTION\": \"SAFE\", \"SCANTIMEOUT\": 5000, \"PID\": 4242, \"TID\": 17}"));
        json_object_object_add(j.get(), "ObjectLen", json_object_new_int64((int64_t)len));
        json_object_object_add(j.get(), "CLEANQUARANTINE",
                               json_object_new_string_len(cleanquarantine.data(), (int)cleanquarantine.size()));
        return j;
    }

    // One job through the worker's request handler; the reply as the client would parse it.
    static fq_json_ptr scan(const std::string& cleanquarantine, const std::string& bytes = kObject)
    {
        fq_json_ptr j = job(cleanquarantine, bytes.size());
        fq_const_message_t request{json_object_to_json_string(j.get()),
                                   reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), nullptr};
        fq_message_t reply{};
        fq_const_request_reply_t rr{&request, &reply};
        fq_worker_client_request_handler(&thread, &rr);
        fq_json_ptr parsed(reply.json_txt ? json_tokener_parse(reply.json_txt) : nullptr);
        free(reply.json_txt);
        return parsed;
    }

    // The hand-off alone, after a scan that found a virus: its result and failure text.
    static std::pair<int, std::string> hand_off(const std::string& cleanquarantine, const std::string& bytes)
    {
        fq_json_ptr j = job(cleanquarantine, bytes.size());
        fq_worker_scanobject_t* so = fq_worker_GetScanJobDetails(j.get(), nullptr);
        if (!so)
            return {12345, "no scan object"};
        fq_worker_scan_result_t* result = fq_worker_new_scan_result();
        so->ScanBuffer = reinterpret_cast<const unsigned char*>(bytes.data());
        result->rc = SCAN_VIRUS_FOUND;
        result->blocking_reason = strdup("Eicar-Test-Signature");
        char error[1024] = "";
        char* stored = nullptr;
        const int rc = fqscanproxy_quarantine(result, &config, so, &stored, error);
        free(stored);
        fq_worker_free_scan_result(&result);
        fq_worker_FreeScanObject(&so);
        return {rc, error};
    }
};

TEST_F(QuarantineHandoff, VirusGoesToTheStoreInPlainWithTheJobsMembersAndTheClientSeesItsVerdict)
{
    const auto before = stored_ids();
    fq_json_ptr reply = scan("q1");
    ASSERT_NE(reply, nullptr);
    json_object* rc = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(reply.get(), "ReturnCode", &rc));
    EXPECT_TRUE(json_object_is_type(rc, json_type_int));
    EXPECT_EQ(json_object_get_int(rc), -210);
    EXPECT_TRUE(json_object_object_get_ex(reply.get(), "Results", nullptr));

    auto [id, meta] = new_object(before);
    ASSERT_FALSE(id.empty()) << "nothing was stored";
    EXPECT_EQ(fqtest::read_file(store_dir() + "/" + id + ".bin"), kObject);
    const std::pair<const char*, std::string> want[] = {
        {"ObjectName", "in/box/invoice.exe"}, {"ObjectLen", std::to_string(kObject.size())}, {"realmID", "realm-q"},
        {"SID", "QAS"}, {"Hostname", "client.example"}, {"PID", "4242"}, {"TID", "17"}, {"EventID", "ev-q1"},
        {"ResultDescription", "Eicar-Test-Signature"}, {"Encrypted", "false"}, {"QuarantineKey", "q1"}};
    for (const auto& [key, value] : want)
        EXPECT_EQ(s_member(meta.get(), key), value) << key;
    EXPECT_FALSE(json_object_object_get_ex(meta.get(), "Nonce", nullptr));
}

TEST_F(QuarantineHandoff, WithAPassPhraseTheObjectIsSealedAndTheStoreRestoresTheOriginal)
{
    const int level = log_get_level();
    log_set_level(FQLOG_TRACE);
    fqtest::StderrCapture log;
    const auto before = stored_ids();
    // The pass phrase runs from the first colon to the end, colons and blanks included.
    fq_json_ptr reply = scan("q1:open: sesame");
    const std::string logged = log.stop();
    log_set_level(level);
    ASSERT_NE(logged.find("Quarantining file"), std::string::npos) << "nothing was captured";
    EXPECT_EQ(logged.find("sesame"), std::string::npos) << "the pass phrase reached the log";
    EXPECT_EQ(s_member(reply.get(), "ReturnCode"), "-210");

    auto [id, meta] = new_object(before);
    ASSERT_FALSE(id.empty());
    EXPECT_EQ(s_member(meta.get(), "Encrypted"), "true");
    EXPECT_EQ(s_member(meta.get(), "Nonce").size(), 48u);
    EXPECT_EQ(fqtest::read_file(store_dir() + "/" + id + ".bin").size(), kObject.size() + 16);
    // This store has no pass phrase: it keeps the object unopened, without a digest.
    EXPECT_FALSE(json_object_object_get_ex(meta.get(), "SHA256", nullptr));

    // The store's restore derives the key from the same pass phrase and gets the bytes back.
    fqtest::write_file(dir->path() + "/pass", "open: sesame\n");
    std::string out;
    ASSERT_EQ(fqtest::run_program({kQuarantine, "restore", id, "--directory", store_dir(), "--to",
                                   dir->path() + "/restored", "--passphrase-file", dir->path() + "/pass"},
                                  &out),
              0)
        << out;
    EXPECT_EQ(fqtest::read_file(dir->path() + "/restored"), kObject);
}

TEST_F(QuarantineHandoff, FailedScanIsQuarantinedWithItsFailureText)
{
    verdict = -1000;
    const auto before = stored_ids();
    fq_json_ptr reply = scan("q1");
    EXPECT_EQ(s_member(reply.get(), "ReturnCode"), "-1000");
    EXPECT_NE(s_member(reply.get(), "Error").find("engine crashed"), std::string::npos);
    auto [id, meta] = new_object(before);
    ASSERT_FALSE(id.empty()) << "a failed scan must be quarantined too";
    EXPECT_NE(s_member(meta.get(), "ResultDescription").find("engine crashed"), std::string::npos);
}

TEST_F(QuarantineHandoff, NothingIsHandedOverForACleanObjectOrWithoutTheMember)
{
    const auto before = stored_ids();
    verdict = 0;
    EXPECT_EQ(s_member(scan("q1").get(), "ReturnCode"), "1");
    verdict = -210;
    EXPECT_EQ(s_member(scan("").get(), "ReturnCode"), "-210");
    EXPECT_EQ(stored_ids(), before);
}

TEST_F(QuarantineHandoff, AnUnreachableOrUnusableQuarantineFailsTheReplyAndGetsNoObject)
{
    // Hears everything sent to any quarantine subject, and never answers.
    fqtest::Responder spy(suite.peer, "fq-av-quarantine.>", nullptr);
    ASSERT_TRUE(spy.ok());
    for (const char* key : {"a b", ".", ":pass", "a..b", "*", "x.>", "$SYS", "q1\r\nPUB x 1"}) {
        fq_json_ptr reply = scan(key);
        EXPECT_EQ(s_member(reply.get(), "ReturnCode"), "-1000") << key;
        EXPECT_NE(s_member(reply.get(), "Error").find("CLEANQUARANTINE"), std::string::npos) << key;
        EXPECT_TRUE(json_object_object_get_ex(reply.get(), "Results", nullptr)) << key;
    }
    EXPECT_EQ(spy.count(), 0) << "an invalid subject was used";

    fq_json_ptr reply = scan("absent:pass");
    json_object* rc = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(reply.get(), "ReturnCode", &rc));
    EXPECT_TRUE(json_object_is_type(rc, json_type_string));
    EXPECT_EQ(s_member(reply.get(), "Error"), "Quarantine service fq-av-quarantine.absent is not available");
    EXPECT_TRUE(json_object_object_get_ex(reply.get(), "Results", nullptr));
    // Two pings and nothing else.
    const auto bodies = spy.bodies();
    ASSERT_EQ(bodies.size(), 2u);
    for (const std::string& body : bodies) {
        fq_json_ptr b(json_tokener_parse(body.c_str()));
        EXPECT_EQ(s_member(b.get(), "Command"), "3") << body;
    }
}

TEST_F(QuarantineHandoff, ARefusalOrAReplyWithoutANameIsAFailure)
{
    std::atomic<const char*> answer{""};
    fqtest::Responder scripted(suite.peer, "fq-av-quarantine.scripted", [&](const std::string& body) {
        return std::optional<std::string>(body.find("\"Command\":600") != std::string::npos ? answer.load()
                                                                                            : "{\"ReturnCode\": 0}");
    });
    ASSERT_TRUE(scripted.ok());
    struct Case {
        const char* reply;
        int rc;
        const char* error;
    };
    for (const Case& c :
         {Case{"{\"ReturnCode\": 5, \"Error\": \"disk full\"}", 5,
               "Quarantine service fq-av-quarantine.scripted refused the object with ReturnCode 5: disk full"},
          Case{"{\"ReturnCode\": 0}", -1000, "Quarantine service fq-av-quarantine.scripted did not name the stored object"},
          Case{"{\"QuarantineFilename\": \"\"}", -1000, "did not name the stored object"},
          Case{"{\"ReturnCode\": \"0\", \"QuarantineFilename\": \"x.bin\"}", -1000, "without a readable ReturnCode"},
          Case{"{\"QuarantineFilename\": \"x.bin\"}", 0, ""}}) {
        answer = c.reply;
        const auto [rc, error] = hand_off("scripted", kObject);
        EXPECT_EQ(rc, c.rc) << c.reply;
        EXPECT_NE(error.find(c.error), std::string::npos) << c.reply << ": " << error;
    }
    answer = "{\"ReturnCode\": 5}";
    fq_json_ptr reply = scan("scripted");
    EXPECT_EQ(s_member(reply.get(), "ReturnCode"), "-1000");
    EXPECT_NE(s_member(reply.get(), "Error").find("ReturnCode 5"), std::string::npos);

    // An empty object cannot be sealed, and is then not sent in plain either.
    const int sent = scripted.count();
    EXPECT_EQ(hand_off("scripted:pass", ""), std::make_pair(-1000, std::string("Quarantine encryption failed")));
    EXPECT_EQ(scripted.count(), sent + 1) << "only the ping";
}

}  // namespace
