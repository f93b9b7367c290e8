#include <gtest/gtest.h>
#include <json-c/json.h>

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "fq_raii.h"
#include "fq_request_reply_types.h"
#include "fq_worker_scan_result.h"

namespace {

struct Entry {
    const char* name = "obj";
    int rc = 0;
    const char* reason = "";
    const char* error = "";
    size_t size = 0;
    const char* mime = "";
    const char* encoding = "";
    const char* type = "";
    const char* ext = "";
    int objecttype = -1;
};

void add(fq_worker_scan_result_t* r, const Entry& e)
{
    fq_worker_file_scan_result_t f{};
    f.rc = e.rc;
    f.filename = const_cast<char*>(e.name);
    f.filesize = e.size;
    f.mime_type = const_cast<char*>(e.mime);
    f.mime_encoding = const_cast<char*>(e.encoding);
    f.file_type = const_cast<char*>(e.type);
    f.extension = const_cast<char*>(e.ext);
    f.blocking_reason = const_cast<char*>(e.reason);
    f.error = const_cast<char*>(e.error);
    f.objecttype = e.objecttype;
    ASSERT_EQ(fq_worker_add_file_scan_result(r, &f), 0);
}

fq_scan_result_ptr with(int rc, const std::vector<Entry>& entries)
{
    fq_scan_result_ptr r(fq_worker_new_scan_result());
    r->rc = rc;
    for (const Entry& e : entries)
        add(r.get(), e);
    return r;
}

const fq_worker_file_scan_result_t* at(const fq_scan_result_ptr& r, int i)
{
    EXPECT_LT(i, r->no_of_files_scanned);
    return r->fileScanResults[i];
}

std::string describe(const fq_worker_file_scan_result_t* f)
{
    auto t = [](const char* s) { return std::string(s ? s : "(null)"); };
    return t(f->filename) + " " + std::to_string(f->rc) + " " + std::to_string(f->filesize) + " " + t(f->mime_type) +
           "|" + t(f->mime_encoding) + "|" + t(f->file_type) + "|" + t(f->extension) + "|" + t(f->blocking_reason) +
           "|" + t(f->error) + " " + std::to_string(f->objecttype);
}

std::string reply_of(fq_worker_scan_result_t* r)
{
    char* text = fq_worker_create_scan_reply(r);
    EXPECT_NE(text, nullptr);
    std::string s = text ? text : "";
    free(text);
    return s;
}

TEST(ScanResultRecords, NewFreeAndDeepCopy)
{
    fq_worker_file_scan_result_t* f = fq_worker_new_file_scan_result();
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->objecttype, VS_OT_UNKNOWN);
    fq_worker_free_file_scan_result(&f);
    EXPECT_EQ(f, nullptr);
    fq_worker_free_file_scan_result(&f);
    fq_worker_free_file_scan_result(nullptr);

    fq_worker_scan_result_t* raw = fq_worker_new_scan_result();
    ASSERT_NE(raw, nullptr);
    EXPECT_EQ(pthread_mutex_trylock(&raw->mutex), 0) << "the mutex is initialised and free";
    pthread_mutex_unlock(&raw->mutex);
    raw->error = strdup("owned");
    fq_worker_free_scan_result(&raw);
    EXPECT_EQ(raw, nullptr);
    fq_worker_free_scan_result(&raw);
    fq_worker_free_scan_result(nullptr);

    // Adding copies the record deeply and turns null texts into empty ones.
    fq_scan_result_ptr r(fq_worker_new_scan_result());
    char name[] = "file.txt";
    fq_worker_file_scan_result_t in{};
    in.rc = SCAN_VIRUS_FOUND;
    in.filename = name;
    in.filesize = 5000000000ull;
    in.objecttype = 7;
    ASSERT_EQ(fq_worker_add_file_scan_result(r.get(), &in), 0);
    name[0] = 'X';
    EXPECT_EQ(describe(at(r, 0)), "file.txt -210 5000000000 ||||| 7");
    EXPECT_EQ(fq_worker_add_file_scan_result(nullptr, &in), -1);
    EXPECT_EQ(fq_worker_add_file_scan_result(r.get(), nullptr), -1);
    EXPECT_EQ(r->no_of_files_scanned, 1);
}

TEST(Merge, SameFileKeepsWorstCodeAndFirstTexts)
{
    fq_scan_result_ptr consolidated = with(5, {});
    consolidated->error = strdup("kept");
    fq_scan_result_ptr parts[] = {
        with(0, {{.name = "doc.pdf", .mime = "application/pdf", .objecttype = 0}}),
        with(0, {{.name = "doc.pdf", .rc = SCAN_VIRUS_FOUND, .reason = "Eicar", .size = 1234, .mime = "text/plain",
                  .type = "PDF document", .ext = "pdf", .objecttype = 3}}),
        with(0, {{.name = "doc.pdf", .reason = "Other", .size = 99, .objecttype = 4}}),
    };
    for (fq_scan_result_ptr& p : parts)
        ASSERT_EQ(fq_worker_merge_scanresults(consolidated.get(), p.get()), 0);
    ASSERT_EQ(consolidated->no_of_files_scanned, 1);
    // A later clean verdict doesn't improve the code; the first text stays, an empty one is filled by a later
    // service; a size or type of 0 is filled, and the value then stays.
    EXPECT_EQ(describe(at(consolidated, 0)), "doc.pdf -210 1234 application/pdf||PDF document|pdf|Eicar| 3");
    // The record's own verdict is not the merge's business, and the caller keeps what it merged.
    EXPECT_EQ(consolidated->rc, 5);
    EXPECT_STREQ(consolidated->error, "kept");
    EXPECT_EQ(consolidated->blocking_reason, nullptr);
    ASSERT_EQ(parts[1]->no_of_files_scanned, 1);
    EXPECT_STREQ(at(parts[1], 0)->filename, "doc.pdf");
}

TEST(Merge, ExactNamesUnknownObjectTypeDuplicatesAndNulls)
{
    fq_scan_result_ptr consolidated = with(0, {});
    fq_scan_result_ptr a = with(0, {{.name = "A.txt", .objecttype = -1}, {.name = "b"}, {.name = "y"},
                           {.name = "b", .rc = SCAN_ACTIVE_CONTENT_FOUND, .reason = "Macro"}});
    fq_scan_result_ptr b = with(0, {{.name = "A.txt", .objecttype = 9}, {.name = "a.txt", .rc = SCAN_POLICY_VIOLATION},
                           {.name = "b ", .rc = SCAN_VIRUS_FOUND}});
    ASSERT_EQ(fq_worker_merge_scanresults(consolidated.get(), a.get()), 0);
    ASSERT_EQ(fq_worker_merge_scanresults(consolidated.get(), b.get()), 0);
    std::string names;
    for (int i = 0; i < consolidated->no_of_files_scanned; i++)
        names += std::string(at(consolidated, i)->filename) + "|";
    EXPECT_EQ(names, "A.txt|b|y|a.txt|b |");
    EXPECT_EQ(at(consolidated, 0)->objecttype, -1) << "an unknown type is a value, not a gap";
    // A duplicate within one result collapses into the first.
    EXPECT_EQ(at(consolidated, 1)->rc, SCAN_ACTIVE_CONTENT_FOUND);
    EXPECT_STREQ(at(consolidated, 1)->blocking_reason, "Macro");

    EXPECT_EQ(fq_worker_merge_scanresults(nullptr, a.get()), -1);
    EXPECT_EQ(fq_worker_merge_scanresults(a.get(), nullptr), -1);
    EXPECT_EQ(a->no_of_files_scanned, 4);
    EXPECT_EQ(pthread_mutex_trylock(&a->mutex), 0) << "refused without taking the lock";
    pthread_mutex_unlock(&a->mutex);
}

TEST(Summary, VerdictsWorkUpToParentsAndReasonsJoin)
{
    const int R = SCAN_RECURSIVE_OK, V = SCAN_VIRUS_FOUND, P = SCAN_POLICY_VIOLATION, N = SCAN_NOT_COMPLETED;
    struct Want {
        int index, rc;
        const char* reason;
    };
    const struct {
        const char* name;
        int rc;
        std::vector<Entry> entries;
        int want_rc;
        const char* want_reason;
        std::vector<Want> want_entries;  // entries the summary changed, or must not have
    } cases[] = {
        {"nested", R, {{.name = "a.zip"}, {.name = "a.zip/inner.exe", .rc = V, .reason = "V"}}, V, "V", {{0, V, "V"}}},
        {"two children: parent keeps the first reason", R,
         {{.name = "p"}, {.name = "p/1", .rc = P, .reason = "V"}, {.name = "p/2", .rc = V, .reason = "W"},
          {.name = "q"}},
         V, "V; W", {{0, V, "V"}, {3, 0, ""}}},
        // No separator is looked for: "x" counts as the parent of "x2".
        {"plain prefix", R, {{.name = "x"}, {.name = "x2", .rc = P, .reason = "P"}, {.name = "y"}}, P, "P",
         {{0, P, "P"}, {2, 0, ""}}},
        // The parent takes the worst code but keeps its own reason; visited after its child, it brings it in.
        {"parent behind its child", R,
         {{.name = "x/inner", .rc = V, .reason = "V"}, {.name = "x", .reason = "own"},
          {.name = "x/other", .rc = SCAN_ACTIVE_CONTENT_FOUND, .reason = "A"}},
         V, "V; own; A", {{1, V, "own"}}},
        {"reasons not repeated", R,
         {{.name = "a", .rc = V, .reason = "Eicar-Sig"}, {.name = "b", .rc = V, .reason = "Eicar-Sig"},
          {.name = "c", .rc = V, .reason = "Eicar"}, {.name = "d", .rc = P},
          {.name = "e", .rc = P, .reason = "Blocked"}},
         V, "Eicar-Sig; Blocked", {}},
        // A cleaned file neither adds a reason nor lowers the overall code.
        {"cleaned", R, {{.name = "a", .rc = SCAN_FILE_CLEANED, .reason = "Cleaned", .error = "e"}}, R, "", {}},
        // An incomplete scan lowers a clean result; against a virus its reason is still listed.
        {"incomplete", R, {{.name = "a"}, {.name = "b", .rc = N, .reason = "Encrypted"}}, N, "Encrypted", {}},
        {"incomplete beside a virus", V, {{.name = "b", .rc = N, .reason = "Encrypted"}}, V, "Encrypted", {}},
    };
    for (const auto& c : cases) {
        fq_scan_result_ptr r = with(c.rc, c.entries);
        ASSERT_EQ(fq_worker_create_scan_results_summary(r.get()), 0) << c.name;
        EXPECT_EQ(r->rc, c.want_rc) << c.name;
        EXPECT_STREQ(r->blocking_reason, c.want_reason) << c.name;
        if (c.want_rc == SCAN_RECURSIVE_OK) {
            EXPECT_EQ(r->error, nullptr) << c.name << ": a cleaned entry's error is not taken up";
        }
        for (const Want& w : c.want_entries) {
            EXPECT_EQ(at(r, w.index)->rc, w.rc) << c.name << " entry " << w.index;
            EXPECT_STREQ(at(r, w.index)->blocking_reason, w.reason) << c.name << " entry " << w.index;
        }
    }

    // The error is that of the most critical entry, the later one on equal codes.
    fq_scan_result_ptr failed = with(R, {{.name = "a", .rc = SERVICE_ERROR, .reason = "x", .error = "first failure"},
                                {.name = "b", .rc = V, .reason = "V", .error = "not this"},
                                {.name = "c", .rc = SERVICE_ERROR, .reason = "y", .error = "second failure"}});
    ASSERT_EQ(fq_worker_create_scan_results_summary(failed.get()), 0);
    EXPECT_EQ(failed->rc, SERVICE_ERROR);
    EXPECT_STREQ(failed->error, "second failure");

    // Nothing to summarise changes nothing.
    fq_scan_result_ptr none = with(P, {});
    none->blocking_reason = strdup("Maximum extraction depth reached");
    ASSERT_EQ(fq_worker_create_scan_results_summary(none.get()), 0);
    EXPECT_EQ(none->rc, P);
    EXPECT_STREQ(none->blocking_reason, "Maximum extraction depth reached");
    EXPECT_EQ(fq_worker_create_scan_results_summary(nullptr), -1);
}

TEST(Summary, ReasonsStopAt4096BytesOnACharacterBoundary)
{
    std::string accent;
    for (int k = 0; k < 1000; k++)
        accent += "\xc3\xa9";  // two bytes each
    // 2001 + 2 + 2002 + 2 + 2004 bytes: the cut at 4096 falls inside the third text's 43rd character.
    const std::string reasons[] = {"a" + accent, "bb" + accent, "cccc" + accent};
    fq_scan_result_ptr r = with(SCAN_RECURSIVE_OK, {});
    for (const std::string& reason : reasons)
        add(r.get(), {.name = reason.c_str(), .rc = SCAN_VIRUS_FOUND, .reason = reason.c_str()});
    ASSERT_EQ(fq_worker_create_scan_results_summary(r.get()), 0);
    const std::string got = r->blocking_reason;
    EXPECT_EQ(got.size(), static_cast<size_t>(FQ_SCAN_REASONS_MAX - 1));
    EXPECT_EQ(got.rfind(reasons[0] + "; " + reasons[1] + "; cccc", 0), 0u);
    EXPECT_EQ(static_cast<unsigned char>(got.back()), 0xa9) << "cut inside a character";
}

TEST(ScanReply, ExactTextOfVerdicts)
{
    fq_scan_result_ptr r = with(SCAN_VIRUS_FOUND, {{.name = "dir/a.zip", .rc = SCAN_VIRUS_FOUND, .reason = "Eicar",
                                           .size = 5000000000ull, .mime = "application/zip", .encoding = "binary",
                                           .type = "Zip archive", .ext = "zip"},
                                          {.name = "dir/a.zip/\"q\""}});
    r->blocking_reason = strdup("Eicar");
    // No reason at all is a blank in the reply; an empty one stays empty.
    free(r->fileScanResults[1]->blocking_reason);
    r->fileScanResults[1]->blocking_reason = nullptr;
    EXPECT_EQ(reply_of(r.get()),
              "{\n  \"ReturnCode\":-210,\n  \"Blocking-reason\":\"Eicar\",\n  \"FilesScanned\":2,\n  \"Results\":[\n"
              "    {\n      \"ReturnCode\":-210,\n      \"File-name\":\"dir/a.zip\",\n"
              "      \"File-size\":5000000000,\n      \"MIME-type\":\"application/zip\",\n"
              "      \"MIME-encoding\":\"binary\",\n      \"File-type\":\"Zip archive\",\n"
              "      \"Extension\":\"zip\",\n"
              "      \"Object-type\":-1,\n      \"Virusname\":\"Eicar\"\n    },\n"
              "    {\n      \"ReturnCode\":0,\n      \"File-name\":\"dir/a.zip/\\\"q\\\"\",\n      \"File-size\":0,\n"
              "      \"MIME-type\":\"\",\n      \"MIME-encoding\":\"\",\n      \"File-type\":\"\",\n"
              "      \"Extension\":\"\",\n      \"Object-type\":-1,\n      \"Virusname\":\" \"\n    }\n  ]\n}");

    fq_scan_result_ptr policy = with(SCAN_POLICY_VIOLATION, {});
    policy->blocking_reason = strdup("File too large");
    EXPECT_EQ(reply_of(policy.get()), "{\n  \"ReturnCode\":-200,\n  \"Blocking-reason\":\"File too large\",\n"
                                      "  \"FilesScanned\":0,\n  \"Results\":[\n  ]\n}");
    fq_scan_result_ptr clean = with(SCAN_RECURSIVE_OK, {});
    EXPECT_EQ(reply_of(clean.get()), "{\n  \"ReturnCode\":1,\n  \"FilesScanned\":0,\n  \"Results\":[\n  ]\n}");

    // After a summary with entries and nothing blocked the reason is there and empty, the entry's too.
    add(clean.get(), {.name = "a"});
    ASSERT_EQ(fq_worker_create_scan_results_summary(clean.get()), 0);
    EXPECT_NE(reply_of(clean.get()).find("\"Blocking-reason\":\"\","), std::string::npos);
    EXPECT_NE(reply_of(clean.get()).find("\"Virusname\":\"\"\n"), std::string::npos);
}

TEST(ScanReply, FailuresCarryErrorAndHostButNoFiles)
{
    const char* failure = "Failed to get reply from service x";
    fq_scan_result_ptr r = with(SCAN_RECURSIVE_OK, {{.name = "obj", .rc = SERVICE_ERROR, .reason = "boom", .error = failure},
                                           {.name = "obj2", .rc = SCAN_VIRUS_FOUND, .reason = "V"}});
    ASSERT_EQ(fq_worker_create_scan_results_summary(r.get()), 0);
    char host[256] = "";
    ASSERT_EQ(gethostname(host, sizeof(host) - 1), 0);
    EXPECT_EQ(reply_of(r.get()), std::string("{\n  \"ReturnCode\":-1000,\n"
                                             "  \"Error\":\"Failed to get reply from service x\",\n"
                                             "  \"WorkerHostname\":\"") +
                                     host + "\"\n}");
    // A failure without any text still says that nothing said why; a null record still gets an error reply.
    EXPECT_NE(reply_of(with(SERVICE_ERROR, {}).get()).find("\"Error\":\"" FQ_SCAN_ERROR_WITHOUT_TEXT "\","),
              std::string::npos);
    json_object* bare = json_tokener_parse(reply_of(nullptr).c_str());
    json_object *code = nullptr, *error = nullptr;
    EXPECT_TRUE(json_object_object_get_ex(bare, "ReturnCode", &code));
    EXPECT_TRUE(json_object_object_get_ex(bare, "Error", &error));
    EXPECT_EQ(json_object_get_int(code), SERVICE_ERROR);
    EXPECT_STREQ(json_object_get_string(error), "Worker could not assemble a scan result");
    json_object_put(bare);
}

}  // namespace
