#include <gtest/gtest.h>
#include <json-c/json.h>

#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fq_request_reply_types.h"
#include "fq_worker_RecursiveScan.h"
#include "fq_worker_scan_result.h"

namespace {

struct ResultDeleter {
    void operator()(fq_worker_scan_result_t* r) const { fq_worker_free_scan_result(&r); }
};
using ResultPtr = std::unique_ptr<fq_worker_scan_result_t, ResultDeleter>;

struct JsonDeleter {
    void operator()(json_object* o) const { json_object_put(o); }
};
using JsonPtr = std::unique_ptr<json_object, JsonDeleter>;

std::vector<std::string> tokens_of(const char* services)
{
    std::vector<char> copy(services, services + strlen(services) + 1);
    char** list = fq_worker_tokenize_services(copy.data());
    EXPECT_NE(list, nullptr);
    std::vector<std::string> out;
    for (char** p = list; p && *p; p++)
        out.emplace_back(*p);
    fq_worker_free_services_list(&list);
    EXPECT_EQ(list, nullptr);
    return out;
}

// A per-service result that already holds something, as the second link of a chain finds it.
ResultPtr prefilled()
{
    ResultPtr r(fq_worker_new_scan_result());
    r->rc = 7;
    r->error = strdup("earlier error");
    r->blocking_reason = strdup("earlier reason");
    fq_worker_file_scan_result_t f{};
    f.filename = const_cast<char*>("earlier.bin");
    f.rc = SCAN_POLICY_VIOLATION;
    EXPECT_EQ(fq_worker_add_file_scan_result(r.get(), &f), 0);
    return r;
}

// Everything a caller can see in a result, to tell whether it changed.
std::string snapshot(const fq_worker_scan_result_t* r)
{
    std::string s = "rc=" + std::to_string(r->rc) + " error=" + (r->error ? r->error : "(null)") +
                    " reason=" + (r->blocking_reason ? r->blocking_reason : "(null)") +
                    " n=" + std::to_string(r->no_of_files_scanned);
    for (int i = 0; i < r->no_of_files_scanned; i++) {
        const auto* f = r->fileScanResults[i];
        s += " [" + std::string(f->filename ? f->filename : "(null)") + " " + std::to_string(f->rc) + "]";
    }
    return s;
}

int parse(const std::string& text, fq_worker_scan_result_t* r, char* error)
{
    JsonPtr reply(json_tokener_parse(text.c_str()));
    return fq_worker_parse_scanresult_json(reply.get(), r, error);
}

std::string entries_json(int n)
{
    std::string s = "[";
    for (int i = 0; i < n; i++)
        s += std::string(i ? "," : "") + "{\"ReturnCode\":0,\"Object-type\":-1,\"File-size\":1,\"File-name\":\"f" +
             std::to_string(i) + "\"}";
    return s + "]";
}

// Replies no service may get away with: each is a failure and changes nothing.
const std::vector<std::string>& hostile_replies()
{
    static const std::vector<std::string> replies = {
        "[]",
        "42",
        "\"ReturnCode\"",
        "{}",
        R"({"FilesScanned":1,"Results":[{"File-name":"a"}]})",
        R"({"ReturnCode":"abc"})",
        R"({"ReturnCode":"0 but not really"})",
        R"({"ReturnCode":true})",
        R"({"ReturnCode":null})",
        R"({"ReturnCode":{}})",
        R"({"ReturnCode":[0]})",
        R"({"ReturnCode":0.5})",
        R"({"ReturnCode":-1000})",
        R"({"ReturnCode":-1000,"Error":""})",
        R"({"ReturnCode":-1000,"Error":null})",
        R"({"ReturnCode":0,"FilesScanned":2147483647,"Results":[{"File-name":"a"}]})",
        R"({"ReturnCode":0,"FilesScanned":9223372036854775807,"Results":[]})",
        R"({"ReturnCode":0,"FilesScanned":-1,"Results":[]})",
        R"({"ReturnCode":0,"FilesScanned":"many","Results":[]})",
        R"({"ReturnCode":0,"FilesScanned":1})",
        R"({"ReturnCode":0,"FilesScanned":1,"Results":{"File-name":"a"}})",
        R"({"ReturnCode":0,"FilesScanned":2,"Results":[{"File-name":"a"}]})",
        R"({"ReturnCode":0,"FilesScanned":1,"Results":[1]})",
        R"({"ReturnCode":0,"FilesScanned":1,"Results":["a"]})",
        R"({"ReturnCode":0,"FilesScanned":1,"Results":[null]})",
        R"({"ReturnCode":0,"FilesScanned":1,"Results":[[{"File-name":"a"}]]})",
        R"({"ReturnCode":-210,"FilesScanned":2,"Results":[{"File-name":"a","ReturnCode":-210},{"ReturnCode":0}]})",
        R"({"ReturnCode":0,"FilesScanned":1,"Results":[{"File-name":""}]})",
        R"({"ReturnCode":0,"FilesScanned":1,"Results":[{"File-name":null}]})",
        R"({"ReturnCode":0,"FilesScanned":1,"Results":[{"File-name":"a","ReturnCode":"clean"}]})",
        R"({"ReturnCode":0,"FilesScanned":1,"Results":[{"File-name":"a","File-size":-1}]})",
        R"({"ReturnCode":0,"FilesScanned":1,"Results":[{"File-name":"a","File-size":"big"}]})",
        R"({"ReturnCode":0,"FilesScanned":1,"Results":[{"File-name":"a","Object-type":[]}]})",
        R"({"ReturnCode":0,"FilesScanned":1,"Results":[{"File-name":")" +
            std::string(FQ_SERVICE_REPLY_MAX_TEXT + 1, 'n') + R"("}]})",
        R"({"ReturnCode":0,"FilesScanned":1,"Results":[{"File-name":"a","Virusname":")" +
            std::string(FQ_SERVICE_REPLY_MAX_TEXT + 1, 'v') + R"("}]})",
        R"({"ReturnCode":0,"FilesScanned":)" + std::to_string(FQ_SERVICE_REPLY_MAX_ENTRIES + 1) +
            R"(,"Results":)" + entries_json(FQ_SERVICE_REPLY_MAX_ENTRIES + 1) + "}",
    };
    return replies;
}

// ---------------------------------------------------------------------------
// Service tokens

TEST(ServiceTokens, SeparatorsAndOwnNames)
{
    EXPECT_EQ(tokens_of("a;;b;"), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(tokens_of(";fq-av-mimescan;fq-av-engine+"),
              (std::vector<std::string>{"fq-av-mimescan", "fq-av-engine+"}));
    // Blanks and case stay.
    EXPECT_EQ(tokens_of(" fq-av-A ;b"), (std::vector<std::string>{" fq-av-A ", "b"}));
    // The worker never asks itself or the cloud scan service, in any case; a chain is not such a name.
    EXPECT_EQ(tokens_of("FQ-AV-CloudScan;fq-av-scanproxy;Fq-Av-ScanProxy;x"), (std::vector<std::string>{"x"}));
    EXPECT_EQ(tokens_of("fq-av-cloudscan;FQ-AV-SCANPROXY"), std::vector<std::string>{});
    EXPECT_EQ(tokens_of("fq-av-cloudscan+mimescan"), (std::vector<std::string>{"fq-av-cloudscan+mimescan"}));
    EXPECT_EQ(tokens_of(""), std::vector<std::string>{});
    EXPECT_EQ(tokens_of(";;;"), std::vector<std::string>{});

    char** list = fq_worker_tokenize_services(nullptr);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list[0], nullptr);
    fq_worker_free_services_list(&list);
    fq_worker_free_services_list(&list);
    fq_worker_free_services_list(nullptr);
}

// ---------------------------------------------------------------------------
// Reading a reply

TEST(ServiceReplyParse, ReadsEveryMemberOfEveryAnnouncedEntry)
{
    ResultPtr r = prefilled();
    char error[1024] = "";
    ASSERT_EQ(parse(R"({"ReturnCode":"-210","Blocking-reason":"ignored here","FilesScanned":2,"Results":[
        {"ReturnCode":0,"File-name":"a.zip","MIME-type":"application/zip","MIME-encoding":"binary",
         "File-type":"Zip archive","Extension":"zip","Virusname":"","Object-type":4,"File-size":5000000000},
        {"ReturnCode":-210,"File-name":"a.zip/x.exe","Virusname":"Eicar","MIME-type":5,"File-size":"68"},
        {"ReturnCode":-1000,"File-name":"not announced"}]})",
                    r.get(), error),
              0)
        << error;
    EXPECT_EQ(r->rc, SCAN_VIRUS_FOUND);
    // The reply replaces the entries that were there; the reason is the mapping's business.
    ASSERT_EQ(r->no_of_files_scanned, 2);
    EXPECT_STREQ(r->blocking_reason, "earlier reason");
    EXPECT_STREQ(r->error, "earlier error");

    const auto* a = r->fileScanResults[0];
    EXPECT_STREQ(a->filename, "a.zip");
    EXPECT_EQ(a->rc, 0);
    EXPECT_STREQ(a->mime_type, "application/zip");
    EXPECT_STREQ(a->mime_encoding, "binary");
    EXPECT_STREQ(a->file_type, "Zip archive");
    EXPECT_STREQ(a->extension, "zip");
    EXPECT_STREQ(a->blocking_reason, "");
    EXPECT_EQ(a->objecttype, 4);
    EXPECT_EQ(a->filesize, 5000000000ull) << "sizes beyond 2 GiB are read whole";

    const auto* x = r->fileScanResults[1];
    EXPECT_STREQ(x->filename, "a.zip/x.exe");
    EXPECT_EQ(x->rc, SCAN_VIRUS_FOUND);
    EXPECT_STREQ(x->blocking_reason, "Eicar");
    EXPECT_STREQ(x->mime_type, "5") << "a text member takes any value's JSON text";
    EXPECT_EQ(x->filesize, 68u);
    EXPECT_EQ(x->objecttype, VS_OT_UNKNOWN);
    for (const char* t : {x->mime_encoding, x->file_type, x->extension, x->error}) {
        ASSERT_NE(t, nullptr);
        EXPECT_STREQ(t, "");
    }
}

TEST(ServiceReplyParse, ValidRepliesWithoutFiles)
{
    char error[1024] = "";
    ResultPtr r = prefilled();
    ASSERT_EQ(parse(R"({"ReturnCode":0,"FilesScanned":0})", r.get(), error), 0) << error;
    EXPECT_EQ(r->rc, 0);
    EXPECT_EQ(r->no_of_files_scanned, 0);
    EXPECT_EQ(r->fileScanResults, nullptr);

    r = prefilled();
    ASSERT_EQ(parse(R"({"ReturnCode":-200})", r.get(), error), 0) << error;
    EXPECT_EQ(r->rc, SCAN_POLICY_VIOLATION);
    EXPECT_EQ(r->no_of_files_scanned, 0);

    // A service failure: its text, and nothing of its list is read.
    r = prefilled();
    ASSERT_EQ(parse(R"({"ReturnCode":"-1000","Error":"engine down","FilesScanned":1,"Results":[{"File-name":"a"}]})",
                    r.get(), error),
              0)
        << error;
    EXPECT_EQ(r->rc, SERVICE_ERROR);
    EXPECT_STREQ(r->error, "engine down");
    EXPECT_EQ(r->no_of_files_scanned, 0);

    // An endless error text is cut, not refused: the verdict is a failure either way.
    r = prefilled();
    const std::string long_error(100000, 'e');
    ASSERT_EQ(parse(R"({"ReturnCode":-1000,"Error":")" + long_error + "\"}", r.get(), error), 0) << error;
    EXPECT_EQ(strlen(r->error), static_cast<size_t>(FQ_SERVICE_REPLY_MAX_ERROR));
}

TEST(ServiceReplyParse, TextsUpToTheLimitAndEntriesUpToTheLimit)
{
    char error[1024] = "";
    ResultPtr r = prefilled();
    const std::string name(FQ_SERVICE_REPLY_MAX_TEXT, 'n');
    ASSERT_EQ(parse(R"({"ReturnCode":0,"FilesScanned":1,"Results":[{"File-name":")" + name + "\"}]}", r.get(), error),
              0)
        << error;
    EXPECT_EQ(strlen(r->fileScanResults[0]->filename), name.size());

    const std::string many = R"({"ReturnCode":0,"FilesScanned":)" + std::to_string(FQ_SERVICE_REPLY_MAX_ENTRIES) +
                             R"(,"Results":)" + entries_json(FQ_SERVICE_REPLY_MAX_ENTRIES) + "}";
    ASSERT_EQ(parse(many, r.get(), error), 0) << error;
    EXPECT_EQ(r->no_of_files_scanned, FQ_SERVICE_REPLY_MAX_ENTRIES);
}

TEST(ServiceReplyParse, HostileRepliesFailAndChangeNothing)
{
    for (const std::string& text : hostile_replies()) {
        ResultPtr r = prefilled();
        const std::string before = snapshot(r.get());
        char error[1024] = "";
        EXPECT_NE(parse(text, r.get(), error), 0) << text.substr(0, 200);
        EXPECT_NE(error[0], '\0') << "no reason given for " << text.substr(0, 200);
        EXPECT_EQ(snapshot(r.get()), before) << text.substr(0, 200);
    }
    // No reply object at all, and no record.
    ResultPtr r = prefilled();
    char error[1024] = "";
    EXPECT_NE(fq_worker_parse_scanresult_json(nullptr, r.get(), error), 0);
    JsonPtr ok(json_tokener_parse(R"({"ReturnCode":0})"));
    EXPECT_NE(fq_worker_parse_scanresult_json(ok.get(), nullptr, nullptr), 0);
}

TEST(ServiceReplyParse, FaultTextsNameTheProblem)
{
    struct Case {
        std::string reply;
        const char* text;
    } cases[] = {
        {R"({"ReturnCode":-1000})", "Failed to read Error from JSON"},
        {R"({"ReturnCode":-1000,"Error":""})", "Key Error found, but value is empty"},
        {R"({"ReturnCode":0,"FilesScanned":1,"Results":[{"MIME-type":"x"}]})", "Failed to read File-name from JSON"},
        {R"({"ReturnCode":0,"FilesScanned":1,"Results":[{"File-name":""}]})",
         "Key File-name found, but value is empty"},
        {R"({"ReturnCode":0,"FilesScanned":3,"Results":[]})", "Results holds 0 entries, FilesScanned announces 3"},
        {"[1]", "Reply is not a JSON object"},
    };
    for (const Case& c : cases) {
        ResultPtr r = prefilled();
        char error[1024] = "";
        EXPECT_NE(parse(c.reply, r.get(), error), 0);
        EXPECT_STREQ(error, c.text) << c.reply;
    }
}

// ---------------------------------------------------------------------------
// What a reply code means for the walk

struct Mapped {
    int rc;
    ResultPtr result;
    std::string errormessage;
};

Mapped map(int code, const char* reason, const char* errormessage_before = "", const char* service_error = nullptr)
{
    Mapped m;
    m.result = prefilled();
    m.result->rc = code;
    free(m.result->blocking_reason);
    m.result->blocking_reason = nullptr;
    free(m.result->error);
    m.result->error = service_error ? strdup(service_error) : nullptr;
    char errormessage[1024];
    snprintf(errormessage, sizeof(errormessage), "%s", errormessage_before);
    m.rc = fq_worker_map_service_rc("fq-av-x", m.result.get(), reason, errormessage);
    m.errormessage = errormessage;
    return m;
}

TEST(VerdictMapping, BlockingCodesCarryTheirReasonOrADefault)
{
    const struct {
        int code;
        const char* fallback;
    } rows[] = {
        {SCAN_FILE_CLEANED, "Virus found"},
        {SCAN_POLICY_VIOLATION, "Policy Violation"},
        {SCAN_ACTIVE_CONTENT_FOUND, "Active content found"},
        {SCAN_VIRUS_FOUND, "Virus found"},
    };
    for (const auto& row : rows) {
        Mapped given = map(row.code, "Eicar");
        EXPECT_EQ(given.rc, row.code);
        EXPECT_STREQ(given.result->blocking_reason, "Eicar");
        EXPECT_EQ(given.errormessage, "");
        EXPECT_EQ(given.result->no_of_files_scanned, 1) << "the service's entries stay";

        for (const char* none : {static_cast<const char*>(nullptr), ""}) {
            Mapped missing = map(row.code, none);
            EXPECT_EQ(missing.rc, row.code);
            EXPECT_STREQ(missing.result->blocking_reason, row.fallback);
        }
    }
}

TEST(VerdictMapping, CleanAndNotCompleted)
{
    Mapped clean = map(SCAN_OK, "whatever");
    EXPECT_EQ(clean.rc, SCAN_OK);
    EXPECT_EQ(clean.result->blocking_reason, nullptr);
    EXPECT_EQ(clean.errormessage, "");

    Mapped reason = map(SCAN_NOT_COMPLETED, "Encrypted archive");
    EXPECT_EQ(reason.rc, SCAN_NOT_COMPLETED);
    EXPECT_STREQ(reason.result->blocking_reason, "Encrypted archive");
    EXPECT_EQ(reason.errormessage, "Encrypted archive");

    Mapped none = map(SCAN_NOT_COMPLETED, "", "kept");
    EXPECT_EQ(none.rc, SCAN_NOT_COMPLETED);
    EXPECT_STREQ(none.result->blocking_reason, "Scan could not be completed");
    EXPECT_EQ(none.errormessage, "kept");
}

TEST(VerdictMapping, ServiceErrorPassesItsTextOn)
{
    Mapped m = map(SERVICE_ERROR, "", "", "engine down");
    EXPECT_EQ(m.rc, SERVICE_ERROR);
    EXPECT_EQ(m.errormessage, "engine down");
    EXPECT_STREQ(m.result->error, "engine down");
    EXPECT_EQ(m.result->no_of_files_scanned, 0) << "a failed service leaves no verdicts";

    Mapped earlier = map(SERVICE_ERROR, "", "earlier text", "engine down");
    EXPECT_EQ(earlier.errormessage, "earlier text");

    Mapped bare = map(SERVICE_ERROR, "", "", nullptr);
    EXPECT_EQ(bare.rc, SERVICE_ERROR);
    EXPECT_NE(bare.errormessage, "");
}

TEST(VerdictMapping, EveryOtherCodeIsAFailure)
{
    for (int code : {static_cast<int>(SCAN_RECURSIVE_OK), static_cast<int>(SCAN_RESULT_BLOCK),
                     static_cast<int>(SERVICE_NO_DATA), static_cast<int>(NOT_SET), 2, -1, -99, -102, -201, -999, -1001,
                     INT_MIN, INT_MAX}) {
        Mapped m = map(code, "Eicar");
        const std::string text = "Invalid reply code " + std::to_string(code) + " received from service fq-av-x";
        EXPECT_EQ(m.rc, SERVICE_ERROR) << code;
        EXPECT_EQ(m.errormessage, text);
        EXPECT_STREQ(m.result->error, text.c_str());
        EXPECT_EQ(m.result->rc, SERVICE_ERROR);
        EXPECT_EQ(m.result->no_of_files_scanned, 0) << "entries of an invalid reply must not be merged";
    }
}

// ---------------------------------------------------------------------------
// One service call, over a scripted transport

struct Call {
    std::string service;
    uint64_t timeout_ms;
    std::string json;
    std::string data;
    std::string key;
};

struct Transport {
    // Reply text per service; a service not listed doesn't answer.
    std::map<std::string, std::string> replies;
    std::string failure_text;  // what the transport writes when there is no reply
    std::vector<Call> calls;
};

json_object* scripted_send(void* ctx, const char* service, fq_const_request_reply_t* rr, uint64_t timeout_ms,
                           char* errormessage)
{
    auto* t = static_cast<Transport*>(ctx);
    const fq_const_message_t* req = rr->request;
    t->calls.push_back({service, timeout_ms, req->json_txt ? req->json_txt : "",
                        req->data ? std::string(reinterpret_cast<const char*>(req->data), req->data_len) : "",
                        req->staged_data_key ? req->staged_data_key : ""});
    auto found = t->replies.find(service);
    if (found == t->replies.end()) {
        if (!t->failure_text.empty())
            snprintf(errormessage, 1024, "%s", t->failure_text.c_str());
        return nullptr;
    }
    return json_tokener_parse(found->second.c_str());
}

struct Scan {
    int rc;
    ResultPtr result;
    std::string errormessage;
};

Scan scan(Transport& t, const char* token)
{
    Scan s;
    s.result.reset(fq_worker_new_scan_result());
    char errormessage[1024] = "";
    s.rc = fq_worker_scan_with_service(scripted_send, &t, token, "{\"Command\":101}", "EICAR", 5, 4321, s.result.get(),
                                       errormessage, nullptr);
    s.errormessage = errormessage;
    return s;
}

std::string reply(int code, const char* reason, const char* file)
{
    return "{\"ReturnCode\":" + std::to_string(code) + ",\"Blocking-reason\":\"" + reason +
           "\",\"FilesScanned\":1,\"Results\":[{\"ReturnCode\":" + std::to_string(code) + ",\"File-name\":\"" + file +
           "\"}]}";
}

TEST(ServiceCall, OneRequestWithTheJobAndThePayload)
{
    Transport t;
    t.replies["fq-av-engine"] = reply(0, "", "obj");
    Scan s = scan(t, "fq-av-engine");
    EXPECT_EQ(s.rc, SCAN_OK);
    ASSERT_EQ(t.calls.size(), 1u);
    EXPECT_EQ(t.calls[0].service, "fq-av-engine");
    EXPECT_EQ(t.calls[0].timeout_ms, 4321u);
    EXPECT_EQ(t.calls[0].json, "{\"Command\":101}");
    EXPECT_EQ(t.calls[0].data, "EICAR");
    ASSERT_EQ(s.result->no_of_files_scanned, 1);
    EXPECT_STREQ(s.result->fileScanResults[0]->filename, "obj");

    // With a staged payload only the key goes along.
    ResultPtr r(fq_worker_new_scan_result());
    char errormessage[1024] = "";
    EXPECT_EQ(fq_worker_scan_with_service(scripted_send, &t, "fq-av-engine", "{}", nullptr, 0, 10, r.get(),
                                          errormessage, "kv-key-1"),
              SCAN_OK);
    EXPECT_EQ(t.calls.back().key, "kv-key-1");
    EXPECT_EQ(t.calls.back().data, "");
}

TEST(ServiceCall, NoReplyIsAFailureWhateverTheToken)
{
    Transport t;
    Scan plain = scan(t, "fq-av-engine");
    EXPECT_EQ(plain.rc, SERVICE_ERROR);
    EXPECT_EQ(plain.errormessage, "Failed to get reply from service fq-av-engine");
    EXPECT_STREQ(plain.result->error, plain.errormessage.c_str());
    EXPECT_STREQ(plain.result->blocking_reason, plain.errormessage.c_str());
    EXPECT_EQ(plain.result->no_of_files_scanned, 0);

    // The transport's own text is kept, and a "+" asks no second service.
    t.failure_text = "NATS: request to fq-av-engine timed out";
    Scan chained = scan(t, "fq-av-engine+mimescan");
    EXPECT_EQ(chained.rc, SERVICE_ERROR);
    EXPECT_EQ(chained.errormessage, t.failure_text);
    EXPECT_EQ(t.calls.size(), 2u);

    // Text that is no JSON reaches this layer as no reply.
    t.replies["fq-av-engine"] = "this is not JSON";
    EXPECT_EQ(scan(t, "fq-av-engine").rc, SERVICE_ERROR);
}

TEST(ServiceCall, HostileRepliesFailWithTheReasonAndLeaveNoVerdicts)
{
    for (const std::string& text : hostile_replies()) {
        Transport t;
        t.replies["fq-av-engine"] = text;
        Scan s = scan(t, "fq-av-engine");
        EXPECT_EQ(s.rc, SERVICE_ERROR) << text.substr(0, 200);
        EXPECT_EQ(s.errormessage.rfind("Failed to parse JSON reply from service fq-av-engine: ", 0), 0u)
            << s.errormessage;
        EXPECT_GT(s.errormessage.size(), strlen("Failed to parse JSON reply from service fq-av-engine: "));
        EXPECT_EQ(s.result->rc, SERVICE_ERROR);
        EXPECT_STREQ(s.result->error, s.errormessage.c_str());
        EXPECT_EQ(s.result->no_of_files_scanned, 0) << text.substr(0, 200);
    }
}

TEST(ServiceCall, InvalidAndErrorCodes)
{
    Transport t;
    t.replies["fq-av-engine"] = reply(1, "", "obj");
    Scan one = scan(t, "fq-av-engine");
    EXPECT_EQ(one.rc, SERVICE_ERROR);
    EXPECT_EQ(one.errormessage, "Invalid reply code 1 received from service fq-av-engine");
    EXPECT_EQ(one.result->no_of_files_scanned, 0);

    t.replies["fq-av-engine"] = R"({"ReturnCode":99999999999})";
    EXPECT_EQ(scan(t, "fq-av-engine").rc, SERVICE_ERROR);

    t.replies["fq-av-engine"] = R"({"ReturnCode":"-1000","Error":"engine down"})";
    Scan down = scan(t, "fq-av-engine+");
    EXPECT_EQ(down.rc, SERVICE_ERROR);
    EXPECT_EQ(down.errormessage, "engine down");
    EXPECT_STREQ(down.result->error, "engine down");

    // A reply without a verdict is no clean verdict.
    t.replies["fq-av-engine"] = R"({"FilesScanned":0})";
    EXPECT_EQ(scan(t, "fq-av-engine").rc, SERVICE_ERROR);
}

TEST(ServiceCall, PlusOnlyOverridesNotCompleted)
{
    for (int code : {static_cast<int>(SCAN_FILE_CLEANED), static_cast<int>(SCAN_POLICY_VIOLATION),
                     static_cast<int>(SCAN_ACTIVE_CONTENT_FOUND), static_cast<int>(SCAN_VIRUS_FOUND)}) {
        Transport t;
        t.replies["fq-av-a"] = reply(code, "R", "obj");
        t.replies["fq-av-b"] = reply(0, "", "obj");
        Scan s = scan(t, "fq-av-a+b");
        EXPECT_EQ(s.rc, code);
        EXPECT_EQ(t.calls.size(), 1u) << code;
        EXPECT_STREQ(s.result->blocking_reason, "R");
    }

    // A "+" with nothing behind it: go on with the next token, the code stays in the result.
    Transport t;
    t.replies["fq-av-mimescan"] = reply(SCAN_NOT_COMPLETED, "Encrypted", "obj");
    Scan s = scan(t, "fq-av-mimescan+");
    EXPECT_EQ(s.rc, SCAN_OK);
    EXPECT_EQ(t.calls.size(), 1u);
    EXPECT_EQ(s.result->rc, SCAN_NOT_COMPLETED);
    EXPECT_STREQ(s.result->blocking_reason, "Encrypted");
    EXPECT_EQ(s.result->no_of_files_scanned, 1);

    // Without a "+" the incomplete scan ends the walk.
    Scan plain = scan(t, "fq-av-mimescan");
    EXPECT_EQ(plain.rc, SCAN_NOT_COMPLETED);
    EXPECT_EQ(plain.errormessage, "Encrypted");
}

TEST(ServiceCall, ChainAsksEachSecondaryWithTheSameBudget)
{
    Transport t;
    t.replies["fq-av-a"] = reply(SCAN_NOT_COMPLETED, "ra", "from-a");
    t.replies["fq-av-b"] = reply(SCAN_NOT_COMPLETED, "rb", "from-b");
    t.replies["fq-av-c"] = reply(SCAN_NOT_COMPLETED, "rc", "from-c");
    Scan s = scan(t, "fq-av-a+b+c");
    EXPECT_EQ(s.rc, SCAN_NOT_COMPLETED) << "the last link has no '+'";
    ASSERT_EQ(t.calls.size(), 3u);
    EXPECT_EQ(t.calls[0].service, "fq-av-a");
    EXPECT_EQ(t.calls[1].service, "fq-av-b");
    EXPECT_EQ(t.calls[2].service, "fq-av-c");
    for (const Call& c : t.calls) {
        EXPECT_EQ(c.timeout_ms, 4321u);
        EXPECT_EQ(c.data, "EICAR");
    }
    EXPECT_EQ(s.errormessage, "rc");
    EXPECT_STREQ(s.result->blocking_reason, "rc");
    // The last link's entries replace the earlier ones.
    ASSERT_EQ(s.result->no_of_files_scanned, 1);
    EXPECT_STREQ(s.result->fileScanResults[0]->filename, "from-c");

    // A secondary that finds something decides.
    t.calls.clear();
    t.replies["fq-av-b"] = reply(SCAN_VIRUS_FOUND, "Eicar", "from-b");
    Scan virus = scan(t, "fq-av-a+b+c");
    EXPECT_EQ(virus.rc, SCAN_VIRUS_FOUND);
    EXPECT_EQ(t.calls.size(), 2u);

    // A secondary that doesn't answer fails the token, and the primary's verdicts go with it.
    t.calls.clear();
    t.replies.erase("fq-av-b");
    Scan silent = scan(t, "fq-av-a+b");
    EXPECT_EQ(silent.rc, SERVICE_ERROR);
    EXPECT_EQ(silent.errormessage, "Failed to get reply from service fq-av-b");
    EXPECT_EQ(silent.result->no_of_files_scanned, 0);
}

TEST(ServiceCall, UnusableArguments)
{
    Transport t;
    t.replies["fq-av-a"] = reply(0, "", "obj");
    // An empty primary name asks nobody.
    for (const char* token : {"", "+a", "+"}) {
        Scan s = scan(t, token);
        EXPECT_EQ(s.rc, SERVICE_ERROR) << token;
        EXPECT_NE(s.errormessage, "");
    }
    EXPECT_TRUE(t.calls.empty());
    // No error buffer of the caller's, and no record.
    ResultPtr r(fq_worker_new_scan_result());
    EXPECT_EQ(fq_worker_scan_with_service(scripted_send, &t, "fq-av-a", "{}", nullptr, 0, 1, r.get(), nullptr, nullptr),
              SCAN_OK);
    EXPECT_EQ(fq_worker_scan_with_service(scripted_send, &t, "fq-av-a", "{}", nullptr, 0, 1, nullptr, nullptr, nullptr),
              SERVICE_ERROR);
    EXPECT_EQ(fq_worker_scan_with_service(nullptr, &t, "fq-av-a", "{}", nullptr, 0, 1, r.get(), nullptr, nullptr),
              SERVICE_ERROR);
}

}  // namespace
