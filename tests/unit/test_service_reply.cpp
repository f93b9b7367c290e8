#include <gtest/gtest.h>
#include <json-c/json.h>

#include <limits.h>
#include <stdlib.h>
#include <string.h>

#include <map>
#include <string>
#include <vector>

#include "fq_raii.h"
#include "fq_request_reply_types.h"
#include "fq_worker_RecursiveScan.h"
#include "fq_worker_scan_result.h"

namespace {

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
fq_scan_result_ptr prefilled()
{
    fq_scan_result_ptr r(fq_worker_new_scan_result());
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
    auto t = [](const char* s) { return std::string(s ? s : "(null)"); };
    std::string s = "rc=" + std::to_string(r->rc) + " error=" + t(r->error) + " reason=" + t(r->blocking_reason);
    for (int i = 0; i < r->no_of_files_scanned; i++) {
        const auto* f = r->fileScanResults[i];
        s += " [" + t(f->filename) + " " + std::to_string(f->rc) + " " + std::to_string(f->filesize) + " " +
             t(f->mime_type) + "|" + t(f->mime_encoding) + "|" + t(f->file_type) + "|" + t(f->extension) + "|" +
             t(f->blocking_reason) + "|" + t(f->error) + " " + std::to_string(f->objecttype) + "]";
    }
    return s;
}

int parse(const std::string& text, fq_worker_scan_result_t* r, char* error)
{
    json_object* reply = json_tokener_parse(text.c_str());
    const int rc = fq_worker_parse_scanresult_json(reply, r, error);
    json_object_put(reply);
    return rc;
}

std::string with_entries(int n)
{
    std::string s = R"({"ReturnCode":0,"FilesScanned":)" + std::to_string(n) + R"(,"Results":[)";
    for (int i = 0; i < n; i++)
        s += std::string(i ? "," : "") + R"({"ReturnCode":0,"File-size":1,"File-name":"f)" + std::to_string(i) + "\"}";
    return s + "]}";
}

std::string with_name(const std::string& name)
{
    return R"({"ReturnCode":0,"FilesScanned":1,"Results":[{"File-name":")" + name + "\"}]}";
}

// Replies no service may get away with: each is a failure and changes nothing. Where the reader
// promises a text, it is given.
struct Hostile {
    std::string reply;
    const char* text = nullptr;
};
const std::vector<Hostile>& hostile_replies()
{
    static const std::vector<Hostile> replies = [] {
        std::vector<Hostile> v = {
            {"[1]", "Reply is not a JSON object"}, {"42"}, {"\"ReturnCode\""}, {"{}"},
            {R"({"FilesScanned":1,"Results":[{"File-name":"a"}]})"},
            {R"({"ReturnCode":-1000})", "Failed to read Error from JSON"},
            {R"({"ReturnCode":-1000,"Error":""})", "Key Error found, but value is empty"},
            {R"({"ReturnCode":-1000,"Error":null})"},
            {R"({"ReturnCode":0,"FilesScanned":2147483647,"Results":[{"File-name":"a"}]})"},
            {R"({"ReturnCode":0,"FilesScanned":2,"Results":[{"File-name":"a"}]})"},
            {R"({"ReturnCode":0,"FilesScanned":3,"Results":[]})", "Results holds 0 entries, FilesScanned announces 3"},
            {R"({"ReturnCode":0,"FilesScanned":1})"},
            {R"({"ReturnCode":-210,"FilesScanned":2,"Results":[{"File-name":"a"},{"ReturnCode":0}]})"},
            {R"({"ReturnCode":0,"FilesScanned":1,"Results":[{"MIME-type":"x"}]})",
             "Failed to read File-name from JSON"},
            {with_name(""), "Key File-name found, but value is empty"},
            {with_name(std::string(FQ_SERVICE_REPLY_MAX_TEXT + 1, 'n'))},
            {with_name(R"(a","Virusname":")" + std::string(FQ_SERVICE_REPLY_MAX_TEXT + 1, 'v'))},
            {with_entries(FQ_SERVICE_REPLY_MAX_ENTRIES + 1)},
        };
        for (const char* code : {R"("abc")", R"("0 but not really")", "true", "null", "{}", "[0]", "0.5"})
            v.push_back({std::string(R"({"ReturnCode":)") + code + "}"});
        for (const char* n : {"9223372036854775807", "-1", R"("many")"})
            v.push_back({std::string(R"({"ReturnCode":0,"Results":[],"FilesScanned":)") + n + "}"});
        for (const char* e : {"1", R"("a")", "null", R"([{"File-name":"a"}])", R"({"File-name":null})",
                              R"({"File-name":"a","ReturnCode":"clean"})", R"({"File-name":"a","File-size":-1})",
                              R"({"File-name":"a","File-size":"big"})", R"({"File-name":"a","Object-type":[]})"})
            v.push_back({std::string(R"({"ReturnCode":0,"FilesScanned":1,"Results":[)") + e + "]}"});
        v.push_back({R"({"ReturnCode":0,"FilesScanned":1,"Results":{"File-name":"a"}})"});
        return v;
    }();
    return replies;
}

TEST(ServiceTokens, SeparatorsAndOwnNames)
{
    using V = std::vector<std::string>;
    const struct {
        const char* in;
        V out;
    } cases[] = {
        {"a;;b;", {"a", "b"}},
        {";fq-av-mimescan;fq-av-engine+", {"fq-av-mimescan", "fq-av-engine+"}},
        {" fq-av-A ;b", {" fq-av-A ", "b"}},  // blanks and case stay
        // The worker never asks itself or the cloud scan service, in any case; a chain is not such a name.
        {"FQ-AV-CloudScan;fq-av-scanproxy;Fq-Av-ScanProxy;x", {"x"}},
        {"fq-av-cloudscan+mimescan", {"fq-av-cloudscan+mimescan"}},
        {"", {}},
        {";;;", {}},
    };
    for (const auto& c : cases)
        EXPECT_EQ(tokens_of(c.in), c.out) << c.in;

    char** list = fq_worker_tokenize_services(nullptr);
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(list[0], nullptr);
    fq_worker_free_services_list(&list);
    fq_worker_free_services_list(&list);
    fq_worker_free_services_list(nullptr);
}

TEST(ServiceReplyParse, ReadsEveryMemberOfEveryAnnouncedEntry)
{
    fq_scan_result_ptr r = prefilled();
    char error[1024] = "";
    ASSERT_EQ(parse(R"({"ReturnCode":"-210","Blocking-reason":"ignored here","FilesScanned":2,"Results":[
        {"ReturnCode":0,"File-name":"a.zip","MIME-type":"application/zip","MIME-encoding":"binary",
         "File-type":"Zip archive","Extension":"zip","Virusname":"","Object-type":4,"File-size":5000000000},
        {"ReturnCode":-210,"File-name":"a.zip/x.exe","Virusname":"Eicar","MIME-type":5,"File-size":"68"},
        {"ReturnCode":-1000,"File-name":"not announced"}]})",
                    r.get(), error),
              0)
        << error;
    // The reply replaces the entries that were there; reason and error are the mapping's business. Sizes
    // beyond 2 GiB are read whole, a text member takes any value's JSON text, and missing texts are empty.
    EXPECT_EQ(snapshot(r.get()), "rc=-210 error=earlier error reason=earlier reason "
                                 "[a.zip 0 5000000000 application/zip|binary|Zip archive|zip|| 4] "
                                 "[a.zip/x.exe -210 68 5||||Eicar| -1]");
}

TEST(ServiceReplyParse, ValidRepliesAndTheirLimits)
{
    const struct {
        std::string reply;
        int rc;
        int entries;
        std::string error;  // the result's error afterwards
    } cases[] = {
        {R"({"ReturnCode":0,"FilesScanned":0})", SCAN_OK, 0, "earlier error"},
        {R"({"ReturnCode":-200})", SCAN_POLICY_VIOLATION, 0, "earlier error"},
        // A service failure: its text, and nothing of its list is read.
        {R"({"ReturnCode":"-1000","Error":"engine down","FilesScanned":1,"Results":[{"File-name":"a"}]})",
         SERVICE_ERROR, 0, "engine down"},
        // An endless error text is cut, not refused: the verdict is a failure either way.
        {R"({"ReturnCode":-1000,"Error":")" + std::string(100000, 'e') + "\"}", SERVICE_ERROR, 0,
         std::string(FQ_SERVICE_REPLY_MAX_ERROR, 'e')},
        {with_name(std::string(FQ_SERVICE_REPLY_MAX_TEXT, 'n')), SCAN_OK, 1, "earlier error"},
        {with_entries(FQ_SERVICE_REPLY_MAX_ENTRIES), SCAN_OK, FQ_SERVICE_REPLY_MAX_ENTRIES, "earlier error"},
    };
    for (const auto& c : cases) {
        fq_scan_result_ptr r = prefilled();
        char error[1024] = "";
        ASSERT_EQ(parse(c.reply, r.get(), error), 0) << error << " for " << c.reply.substr(0, 100);
        EXPECT_EQ(r->rc, c.rc);
        EXPECT_EQ(r->no_of_files_scanned, c.entries) << c.reply.substr(0, 100);
        EXPECT_EQ(r->error, c.error) << c.reply.substr(0, 100);
    }
}

// What a reply code means for the walk: the result as the reader left it, mapped.
struct Mapped {
    int rc;
    fq_scan_result_ptr result;
    std::string errormessage;
};
Mapped map(int code, const char* reason, const char* errormessage_before = "", const char* service_error = nullptr)
{
    Mapped m{0, prefilled(), ""};
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

TEST(VerdictMapping, EachCodeSetsReasonAndText)
{
    // The code stays; reason, the caller's text and the entries left as the code calls for.
    const struct {
        int code;
        const char *reason, *before, *service_error, *want_reason, *want_message;
        int entries;
    } cases[] = {
        {SCAN_FILE_CLEANED, "Eicar", "", nullptr, "Eicar", "", 1},
        {SCAN_FILE_CLEANED, nullptr, "", nullptr, "Virus found", "", 1},
        {SCAN_POLICY_VIOLATION, "", "", nullptr, "Policy Violation", "", 1},
        {SCAN_ACTIVE_CONTENT_FOUND, nullptr, "", nullptr, "Active content found", "", 1},
        {SCAN_VIRUS_FOUND, "", "", nullptr, "Virus found", "", 1},
        {SCAN_VIRUS_FOUND, "Eicar", "", nullptr, "Eicar", "", 1},
        {SCAN_OK, "whatever", "", nullptr, nullptr, "", 1},
        {SCAN_NOT_COMPLETED, "Encrypted archive", "", nullptr, "Encrypted archive", "Encrypted archive", 1},
        {SCAN_NOT_COMPLETED, "", "kept", nullptr, "Scan could not be completed", "kept", 1},
        // A failed service passes its text on, unless the caller already has one, and leaves no verdicts.
        {SERVICE_ERROR, "", "", "engine down", nullptr, "engine down", 0},
        {SERVICE_ERROR, "", "earlier text", "engine down", nullptr, "earlier text", 0},
    };
    for (const auto& c : cases) {
        Mapped m = map(c.code, c.reason, c.before, c.service_error);
        const std::string label = std::to_string(c.code) + " reason " + (c.reason ? c.reason : "(null)");
        EXPECT_EQ(m.rc, c.code) << label;
        if (c.want_reason) {
            EXPECT_STREQ(m.result->blocking_reason, c.want_reason) << label;
        } else if (c.code == SCAN_OK) {
            EXPECT_EQ(m.result->blocking_reason, nullptr) << label;
        }
        EXPECT_EQ(m.errormessage, c.want_message) << label;
        EXPECT_EQ(m.result->no_of_files_scanned, c.entries) << label;
    }
    EXPECT_STREQ(map(SERVICE_ERROR, "", "", "engine down").result->error, "engine down");
    EXPECT_NE(map(SERVICE_ERROR, "", "", nullptr).errormessage, "") << "a failure without text still gets one";

    // Every other code is a failure, and the entries of such a reply must not be merged.
    for (int code : {int(SCAN_RECURSIVE_OK), int(SCAN_RESULT_BLOCK), int(SERVICE_NO_DATA), int(NOT_SET), 2, -1, -99,
                     -102, -201, -999, -1001, INT_MIN, INT_MAX}) {
        Mapped m = map(code, "Eicar");
        const std::string text = "Invalid reply code " + std::to_string(code) + " received from service fq-av-x";
        EXPECT_EQ(m.rc, SERVICE_ERROR) << code;
        EXPECT_EQ(m.errormessage, text);
        EXPECT_STREQ(m.result->error, text.c_str());
        EXPECT_EQ(m.result->rc, SERVICE_ERROR);
        EXPECT_EQ(m.result->no_of_files_scanned, 0) << code;
    }
}

// One service call, over a scripted transport.
struct Call {
    std::string service;
    uint64_t timeout_ms;
    std::string json, data, key;
};
struct Transport {
    std::map<std::string, std::string> replies;  // a service not listed doesn't answer
    std::string failure_text;                    // what the transport writes when there is no reply
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
    if (found != t->replies.end())
        return json_tokener_parse(found->second.c_str());
    if (!t->failure_text.empty())
        snprintf(errormessage, 1024, "%s", t->failure_text.c_str());
    return nullptr;
}

struct Scan {
    int rc;
    fq_scan_result_ptr result;
    std::string errormessage;
};
Scan scan(Transport& t, const char* token)
{
    Scan s{0, fq_scan_result_ptr(fq_worker_new_scan_result()), ""};
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

TEST(ServiceCall, RequestCarriesJobPayloadOrKeyAndEveryLinkTheSameBudget)
{
    Transport t;
    for (const char* s : {"fq-av-a", "fq-av-b", "fq-av-c"})
        t.replies[s] = reply(SCAN_NOT_COMPLETED, s + 6, s);
    Scan s = scan(t, "fq-av-a+b+c");
    EXPECT_EQ(s.rc, SCAN_NOT_COMPLETED) << "the last link has no '+'";
    ASSERT_EQ(t.calls.size(), 3u);
    for (size_t i = 0; i < 3; i++) {
        EXPECT_EQ(t.calls[i].service, std::string("fq-av-") + char('a' + i));
        EXPECT_EQ(t.calls[i].timeout_ms, 4321u);
        EXPECT_EQ(t.calls[i].json, "{\"Command\":101}");
        EXPECT_EQ(t.calls[i].data, "EICAR");
    }
    // The last link's entries and reason replace the earlier ones.
    EXPECT_EQ(s.errormessage, "c");
    EXPECT_STREQ(s.result->blocking_reason, "c");
    ASSERT_EQ(s.result->no_of_files_scanned, 1);
    EXPECT_STREQ(s.result->fileScanResults[0]->filename, "fq-av-c");

    // With a staged payload only the key goes along.
    char errormessage[1024] = "";
    t.replies["fq-av-a"] = reply(0, "", "obj");
    EXPECT_EQ(fq_worker_scan_with_service(scripted_send, &t, "fq-av-a", "{}", nullptr, 0, 10, s.result.get(),
                                          errormessage, "kv-key-1"),
              SCAN_OK);
    EXPECT_EQ(t.calls.back().key, "kv-key-1");
    EXPECT_EQ(t.calls.back().data, "");
}

TEST(ServiceCall, OutcomesOfATokenAndItsChain)
{
    const std::string nc = reply(SCAN_NOT_COMPLETED, "Encrypted", "obj"), ok = reply(0, "", "obj");
    struct Case {
        const char* name;
        std::map<std::string, std::string> replies;
        const char *failure_text, *token;
        int rc;
        const char* message;  // null: not checked
        size_t calls;
        int entries;
    };
    std::vector<Case> cases = {
        {"no reply", {}, "", "fq-av-a", SERVICE_ERROR, "Failed to get reply from service fq-av-a", 1, 0},
        // The transport's own text is kept, and a "+" asks no second service.
        {"no reply, chained", {}, "NATS: timed out", "fq-av-a+b", SERVICE_ERROR, "NATS: timed out", 1, 0},
        {"not JSON", {{"fq-av-a", "this is not JSON"}}, "", "fq-av-a", SERVICE_ERROR, nullptr, 1, 0},
        {"invalid code", {{"fq-av-a", reply(1, "", "obj")}}, "", "fq-av-a", SERVICE_ERROR,
         "Invalid reply code 1 received from service fq-av-a", 1, 0},
        {"code beyond int", {{"fq-av-a", R"({"ReturnCode":99999999999})"}}, "", "fq-av-a", SERVICE_ERROR, nullptr, 1,
         0},
        {"service error", {{"fq-av-a", R"({"ReturnCode":"-1000","Error":"engine down"})"}}, "", "fq-av-a+",
         SERVICE_ERROR, "engine down", 1, 0},
        // A reply without a verdict is no clean verdict.
        {"no code", {{"fq-av-a", R"({"FilesScanned":0})"}}, "", "fq-av-a", SERVICE_ERROR, nullptr, 1, 0},
        // An empty primary name asks nobody.
        {"empty", {{"fq-av-a", ok}}, "", "", SERVICE_ERROR, nullptr, 0, 0},
        {"empty primary", {{"fq-av-a", ok}}, "", "+a", SERVICE_ERROR, nullptr, 0, 0},
        {"lone plus", {{"fq-av-a", ok}}, "", "+", SERVICE_ERROR, nullptr, 0, 0},
        // A "+" with nothing behind it: go on with the next token.
        {"trailing plus", {{"fq-av-a", nc}}, "", "fq-av-a+", SCAN_OK, "", 1, 1},
        // Without a "+" the incomplete scan ends the walk.
        {"no plus", {{"fq-av-a", nc}}, "", "fq-av-a", SCAN_NOT_COMPLETED, "Encrypted", 1, 1},
        // A secondary that finds something decides.
        {"secondary finds", {{"fq-av-a", nc}, {"fq-av-b", reply(SCAN_VIRUS_FOUND, "Eicar", "b")}, {"fq-av-c", nc}}, "",
         "fq-av-a+b+c", SCAN_VIRUS_FOUND, "", 2, 1},
        // A secondary that doesn't answer fails the token, and the primary's verdicts go with it.
        {"silent secondary", {{"fq-av-a", nc}}, "", "fq-av-a+b", SERVICE_ERROR,
         "Failed to get reply from service fq-av-b", 2, 0},
    };
    // A "+" only overrides an incomplete scan.
    for (int code : {SCAN_FILE_CLEANED, SCAN_POLICY_VIOLATION, SCAN_ACTIVE_CONTENT_FOUND, SCAN_VIRUS_FOUND})
        cases.push_back({"plus after a finding", {{"fq-av-a", reply(code, "R", "a")}, {"fq-av-b", ok}}, "",
                         "fq-av-a+b", code, "", 1, 1});
    for (const auto& c : cases) {
        Transport t{c.replies, c.failure_text, {}};
        Scan s = scan(t, c.token);
        EXPECT_EQ(s.rc, c.rc) << c.name;
        if (c.message) {
            EXPECT_EQ(s.errormessage, c.message) << c.name;
        }
        if (c.rc == SERVICE_ERROR) {
            EXPECT_NE(s.errormessage, "") << c.name;
            EXPECT_EQ(s.result->rc, SERVICE_ERROR) << c.name;
            ASSERT_NE(s.result->error, nullptr) << c.name;
            EXPECT_EQ(s.result->error, s.errormessage) << c.name;
        }
        EXPECT_EQ(t.calls.size(), c.calls) << c.name;
        EXPECT_EQ(s.result->no_of_files_scanned, c.entries) << c.name;
    }
    // No reply: the text is the verdict's reason too. A "+" keeps the code it overrode in the result.
    Transport t;
    EXPECT_STREQ(scan(t, "fq-av-a").result->blocking_reason, "Failed to get reply from service fq-av-a");
    t.replies["fq-av-a"] = nc;
    Scan plus = scan(t, "fq-av-a+");
    EXPECT_EQ(plus.result->rc, SCAN_NOT_COMPLETED);
    EXPECT_STREQ(plus.result->blocking_reason, "Encrypted");

    // Without an error buffer of the caller's it still works; without a record or transport it fails.
    t.replies["fq-av-a"] = ok;
    fq_scan_result_ptr r(fq_worker_new_scan_result());
    EXPECT_EQ(fq_worker_scan_with_service(scripted_send, &t, "fq-av-a", "{}", nullptr, 0, 1, r.get(), nullptr, nullptr),
              SCAN_OK);
    EXPECT_EQ(fq_worker_scan_with_service(scripted_send, &t, "fq-av-a", "{}", nullptr, 0, 1, nullptr, nullptr, nullptr),
              SERVICE_ERROR);
    EXPECT_EQ(fq_worker_scan_with_service(nullptr, &t, "fq-av-a", "{}", nullptr, 0, 1, r.get(), nullptr, nullptr),
              SERVICE_ERROR);
}

TEST(ServiceReplyParse, HostileRepliesFailChangeNothingAndLeaveNoVerdicts)
{
    const std::string prefix = "Failed to parse JSON reply from service fq-av-a: ";
    for (const Hostile& h : hostile_replies()) {
        const std::string label = h.reply.substr(0, 200);
        fq_scan_result_ptr r = prefilled();
        const std::string before = snapshot(r.get());
        char error[1024] = "";
        EXPECT_NE(parse(h.reply, r.get(), error), 0) << label;
        EXPECT_EQ(snapshot(r.get()), before) << label;
        if (h.text) {
            EXPECT_STREQ(error, h.text) << label;
        }
        EXPECT_NE(error[0], '\0') << "no reason given for " << label;

        // Through a service call the reader's reason follows the service's name.
        Transport t;
        t.replies["fq-av-a"] = h.reply;
        Scan s = scan(t, "fq-av-a");
        EXPECT_EQ(s.rc, SERVICE_ERROR) << label;
        EXPECT_EQ(s.errormessage, prefix + error) << label;
        EXPECT_EQ(s.result->rc, SERVICE_ERROR);
        EXPECT_STREQ(s.result->error, s.errormessage.c_str());
        EXPECT_EQ(s.result->no_of_files_scanned, 0) << label;
    }
    // No reply object at all, and no record.
    fq_scan_result_ptr r = prefilled();
    char error[1024] = "";
    EXPECT_NE(fq_worker_parse_scanresult_json(nullptr, r.get(), error), 0);
    json_object* ok = json_tokener_parse(R"({"ReturnCode":0})");
    EXPECT_NE(fq_worker_parse_scanresult_json(ok, nullptr, nullptr), 0);
    json_object_put(ok);
}

}  // namespace
