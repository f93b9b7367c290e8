#include <gtest/gtest.h>
#include <json-c/json.h>

#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "fq_request_reply_types.h"
#include "fq_worker_scan_result.h"

namespace {

struct ResultDeleter {
    void operator()(fq_worker_scan_result_t* r) const { fq_worker_free_scan_result(&r); }
};
using ResultPtr = std::unique_ptr<fq_worker_scan_result_t, ResultDeleter>;

ResultPtr new_result()
{
    ResultPtr r(fq_worker_new_scan_result());
    EXPECT_NE(r, nullptr);
    return r;
}

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

// A borrowed view of an Entry; fq_worker_add_file_scan_result copies it.
fq_worker_file_scan_result_t view(const Entry& e)
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
    return f;
}

void add(fq_worker_scan_result_t* r, const Entry& e)
{
    const fq_worker_file_scan_result_t f = view(e);
    ASSERT_EQ(fq_worker_add_file_scan_result(r, &f), 0);
}

const fq_worker_file_scan_result_t* at(const fq_worker_scan_result_t* r, int i)
{
    EXPECT_LT(i, r->no_of_files_scanned);
    return r->fileScanResults[i];
}

std::string reply_of(fq_worker_scan_result_t* r)
{
    char* text = fq_worker_create_scan_reply(r);
    EXPECT_NE(text, nullptr);
    std::string s = text ? text : "";
    free(text);
    return s;
}

// ---------------------------------------------------------------------------
// Records

TEST(ScanResultRecords, NewRecordsAreEmptyWithUnknownObjectType)
{
    fq_worker_file_scan_result_t* f = fq_worker_new_file_scan_result();
    ASSERT_NE(f, nullptr);
    EXPECT_EQ(f->rc, 0);
    EXPECT_EQ(f->filename, nullptr);
    EXPECT_EQ(f->blocking_reason, nullptr);
    EXPECT_EQ(f->filesize, 0u);
    EXPECT_EQ(f->objecttype, VS_OT_UNKNOWN);
    fq_worker_free_file_scan_result(&f);
    EXPECT_EQ(f, nullptr);
    fq_worker_free_file_scan_result(&f);
    fq_worker_free_file_scan_result(nullptr);

    fq_worker_scan_result_t* r = fq_worker_new_scan_result();
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(r->rc, 0);
    EXPECT_EQ(r->no_of_files_scanned, 0);
    EXPECT_EQ(r->fileScanResults, nullptr);
    EXPECT_EQ(r->blocking_reason, nullptr);
    // The mutex is initialised and free.
    EXPECT_EQ(pthread_mutex_trylock(&r->mutex), 0);
    pthread_mutex_unlock(&r->mutex);
    r->error = strdup("owned");
    r->blocking_reason = strdup("owned");
    fq_worker_free_scan_result(&r);
    EXPECT_EQ(r, nullptr);
    fq_worker_free_scan_result(&r);
    fq_worker_free_scan_result(nullptr);
}

TEST(ScanResultRecords, AddMakesADeepCopyWithoutNullTexts)
{
    ResultPtr r = new_result();
    char name[] = "file.txt";
    fq_worker_file_scan_result_t f{};
    f.rc = SCAN_VIRUS_FOUND;
    f.filename = name;
    f.filesize = 5000000000ull;
    f.objecttype = 7;
    ASSERT_EQ(fq_worker_add_file_scan_result(r.get(), &f), 0);
    name[0] = 'X';  // the caller keeps its record

    ASSERT_EQ(r->no_of_files_scanned, 1);
    const auto* c = at(r.get(), 0);
    EXPECT_NE(c, &f);
    EXPECT_STREQ(c->filename, "file.txt");
    EXPECT_EQ(c->rc, SCAN_VIRUS_FOUND);
    EXPECT_EQ(c->filesize, 5000000000ull);
    EXPECT_EQ(c->objecttype, 7);
    for (const char* t : {c->mime_type, c->mime_encoding, c->file_type, c->extension, c->blocking_reason, c->error}) {
        ASSERT_NE(t, nullptr);
        EXPECT_STREQ(t, "");
    }

    EXPECT_EQ(fq_worker_add_file_scan_result(nullptr, &f), -1);
    EXPECT_EQ(fq_worker_add_file_scan_result(r.get(), nullptr), -1);
    EXPECT_EQ(r->no_of_files_scanned, 1);
}

// ---------------------------------------------------------------------------
// Merge

TEST(Merge, SameFileFromTwoServicesKeepsWorstCodeAndFirstTexts)
{
    ResultPtr consolidated = new_result();
    consolidated->rc = 5;
    consolidated->error = strdup("kept");

    ResultPtr first = new_result();
    add(first.get(), {.name = "doc.pdf", .rc = 0, .size = 0, .mime = "application/pdf", .type = "", .objecttype = 0});
    ResultPtr second = new_result();
    add(second.get(), {.name = "doc.pdf", .rc = SCAN_VIRUS_FOUND, .reason = "Eicar", .size = 1234,
                       .mime = "text/plain", .type = "PDF document", .ext = "pdf", .objecttype = 3});
    ResultPtr third = new_result();
    add(third.get(), {.name = "doc.pdf", .rc = 0, .reason = "Other", .size = 99, .objecttype = 4});

    ASSERT_EQ(fq_worker_merge_scanresults(consolidated.get(), first.get()), 0);
    ASSERT_EQ(fq_worker_merge_scanresults(consolidated.get(), second.get()), 0);
    ASSERT_EQ(fq_worker_merge_scanresults(consolidated.get(), third.get()), 0);

    ASSERT_EQ(consolidated->no_of_files_scanned, 1);
    const auto* e = at(consolidated.get(), 0);
    EXPECT_EQ(e->rc, SCAN_VIRUS_FOUND) << "a later clean verdict must not improve the code";
    EXPECT_STREQ(e->mime_type, "application/pdf") << "the first text stays";
    EXPECT_STREQ(e->file_type, "PDF document") << "an empty text is filled by a later service";
    EXPECT_STREQ(e->extension, "pdf");
    EXPECT_STREQ(e->blocking_reason, "Eicar");
    EXPECT_EQ(e->filesize, 1234u);
    EXPECT_EQ(e->objecttype, 3) << "0 is filled, and the value then stays";

    // The record's own verdict is not the merge's business.
    EXPECT_EQ(consolidated->rc, 5);
    EXPECT_STREQ(consolidated->error, "kept");
    EXPECT_EQ(consolidated->blocking_reason, nullptr);
    // The caller keeps what it merged.
    EXPECT_EQ(second->no_of_files_scanned, 1);
    EXPECT_STREQ(at(second.get(), 0)->filename, "doc.pdf");
}

TEST(Merge, UnknownObjectTypeIsNotOverwrittenAndNamesMatchExactly)
{
    ResultPtr consolidated = new_result();
    ResultPtr a = new_result();
    add(a.get(), {.name = "A.txt", .objecttype = -1});
    add(a.get(), {.name = "b", .rc = 0});
    ResultPtr b = new_result();
    add(b.get(), {.name = "A.txt", .objecttype = 9});
    add(b.get(), {.name = "a.txt", .rc = SCAN_POLICY_VIOLATION});
    add(b.get(), {.name = "b ", .rc = SCAN_VIRUS_FOUND});

    ASSERT_EQ(fq_worker_merge_scanresults(consolidated.get(), a.get()), 0);
    ASSERT_EQ(fq_worker_merge_scanresults(consolidated.get(), b.get()), 0);
    ASSERT_EQ(consolidated->no_of_files_scanned, 4);
    EXPECT_STREQ(at(consolidated.get(), 0)->filename, "A.txt");
    EXPECT_EQ(at(consolidated.get(), 0)->objecttype, -1);
    EXPECT_STREQ(at(consolidated.get(), 1)->filename, "b");
    EXPECT_EQ(at(consolidated.get(), 1)->rc, 0);
    EXPECT_STREQ(at(consolidated.get(), 2)->filename, "a.txt");
    EXPECT_STREQ(at(consolidated.get(), 3)->filename, "b ");
}

TEST(Merge, DuplicatesWithinOneResultCollapseIntoTheFirst)
{
    ResultPtr consolidated = new_result();
    ResultPtr r = new_result();
    add(r.get(), {.name = "x", .rc = 0});
    add(r.get(), {.name = "y", .rc = 0});
    add(r.get(), {.name = "x", .rc = SCAN_ACTIVE_CONTENT_FOUND, .reason = "Macro"});
    ASSERT_EQ(fq_worker_merge_scanresults(consolidated.get(), r.get()), 0);
    ASSERT_EQ(consolidated->no_of_files_scanned, 2);
    EXPECT_EQ(at(consolidated.get(), 0)->rc, SCAN_ACTIVE_CONTENT_FOUND);
    EXPECT_STREQ(at(consolidated.get(), 0)->blocking_reason, "Macro");
}

TEST(Merge, NullArgumentsAreRefused)
{
    ResultPtr r = new_result();
    add(r.get(), {.name = "x"});
    EXPECT_EQ(fq_worker_merge_scanresults(nullptr, r.get()), -1);
    EXPECT_EQ(fq_worker_merge_scanresults(r.get(), nullptr), -1);
    EXPECT_EQ(r->no_of_files_scanned, 1);
    // Refused without taking the lock.
    EXPECT_EQ(pthread_mutex_trylock(&r->mutex), 0);
    pthread_mutex_unlock(&r->mutex);
}

TEST(Merge, ConcurrentMergesIntoOneRecordLoseNothing)
{
    constexpr int threads = 4;
    constexpr int per_thread = 300;
    ResultPtr consolidated = new_result();
    std::vector<ResultPtr> parts;
    for (int t = 0; t < threads; t++) {
        parts.push_back(new_result());
        for (int i = 0; i < per_thread; i++) {
            const std::string name = "t" + std::to_string(t) + "/f" + std::to_string(i);
            add(parts.back().get(), {.name = name.c_str(), .rc = -i});
        }
        // One name that every thread reports, with a different code.
        const std::string shared_rc = "shared";
        add(parts.back().get(), {.name = shared_rc.c_str(), .rc = -t});
    }
    std::vector<std::thread> workers;
    std::vector<int> rcs(threads, 1);
    for (int t = 0; t < threads; t++)
        workers.emplace_back([&, t] { rcs[t] = fq_worker_merge_scanresults(consolidated.get(), parts[t].get()); });
    for (auto& w : workers)
        w.join();
    for (int rc : rcs)
        EXPECT_EQ(rc, 0);
    ASSERT_EQ(consolidated->no_of_files_scanned, threads * per_thread + 1);
    int shared_seen = 0;
    for (int i = 0; i < consolidated->no_of_files_scanned; i++) {
        if (strcmp(at(consolidated.get(), i)->filename, "shared") == 0) {
            shared_seen++;
            EXPECT_EQ(at(consolidated.get(), i)->rc, -(threads - 1));
        }
    }
    EXPECT_EQ(shared_seen, 1);
}

// ---------------------------------------------------------------------------
// Summary

TEST(Summary, NestedVerdictWorksUpToTheArchive)
{
    ResultPtr r = new_result();
    r->rc = SCAN_RECURSIVE_OK;
    add(r.get(), {.name = "a.zip", .rc = 0});
    add(r.get(), {.name = "a.zip/inner.exe", .rc = SCAN_VIRUS_FOUND, .reason = "V"});
    ASSERT_EQ(fq_worker_create_scan_results_summary(r.get()), 0);
    EXPECT_EQ(at(r.get(), 0)->rc, SCAN_VIRUS_FOUND);
    EXPECT_STREQ(at(r.get(), 0)->blocking_reason, "V");
    EXPECT_STREQ(r->blocking_reason, "V");
    EXPECT_EQ(r->rc, SCAN_VIRUS_FOUND);
}

TEST(Summary, TwoChildrenJoinReasonsAndParentKeepsTheFirst)
{
    ResultPtr r = new_result();
    r->rc = SCAN_RECURSIVE_OK;
    add(r.get(), {.name = "p", .rc = 0});
    add(r.get(), {.name = "p/1", .rc = SCAN_POLICY_VIOLATION, .reason = "V"});
    add(r.get(), {.name = "p/2", .rc = SCAN_VIRUS_FOUND, .reason = "W"});
    add(r.get(), {.name = "q", .rc = 0});
    ASSERT_EQ(fq_worker_create_scan_results_summary(r.get()), 0);
    EXPECT_STREQ(r->blocking_reason, "V; W");
    EXPECT_EQ(at(r.get(), 0)->rc, SCAN_VIRUS_FOUND);
    EXPECT_STREQ(at(r.get(), 0)->blocking_reason, "V");
    EXPECT_EQ(at(r.get(), 3)->rc, 0) << "not a parent";
    EXPECT_STREQ(at(r.get(), 3)->blocking_reason, "");
    EXPECT_EQ(r->rc, SCAN_VIRUS_FOUND);
}

TEST(Summary, ParentIsAPlainPrefix)
{
    ResultPtr r = new_result();
    r->rc = SCAN_RECURSIVE_OK;
    add(r.get(), {.name = "x", .rc = 0});
    add(r.get(), {.name = "x2", .rc = SCAN_POLICY_VIOLATION, .reason = "P"});
    add(r.get(), {.name = "y", .rc = 0});
    ASSERT_EQ(fq_worker_create_scan_results_summary(r.get()), 0);
    // No separator is looked for: "x" counts as the parent of "x2".
    EXPECT_EQ(at(r.get(), 0)->rc, SCAN_POLICY_VIOLATION);
    EXPECT_STREQ(at(r.get(), 0)->blocking_reason, "P");
    EXPECT_EQ(at(r.get(), 2)->rc, 0);
    EXPECT_EQ(r->rc, SCAN_POLICY_VIOLATION);
}

TEST(Summary, ParentBehindItsChildIsVisitedWithItsNewCode)
{
    ResultPtr r = new_result();
    r->rc = SCAN_RECURSIVE_OK;
    add(r.get(), {.name = "x/inner", .rc = SCAN_VIRUS_FOUND, .reason = "V"});
    add(r.get(), {.name = "x", .rc = 0, .reason = "own"});
    add(r.get(), {.name = "x/other", .rc = SCAN_ACTIVE_CONTENT_FOUND, .reason = "A"});
    ASSERT_EQ(fq_worker_create_scan_results_summary(r.get()), 0);
    // The parent takes the worst code of its children but keeps a reason of its own.
    EXPECT_EQ(at(r.get(), 1)->rc, SCAN_VIRUS_FOUND);
    EXPECT_STREQ(at(r.get(), 1)->blocking_reason, "own");
    // Visited after its child, with the code it was given, it brings its reason in.
    EXPECT_STREQ(r->blocking_reason, "V; own; A");
    EXPECT_EQ(r->rc, SCAN_VIRUS_FOUND);
}

TEST(Summary, ReasonsAreNotRepeated)
{
    ResultPtr r = new_result();
    r->rc = SCAN_RECURSIVE_OK;
    add(r.get(), {.name = "a", .rc = SCAN_VIRUS_FOUND, .reason = "Eicar-Test-Signature"});
    add(r.get(), {.name = "b", .rc = SCAN_VIRUS_FOUND, .reason = "Eicar-Test-Signature"});
    add(r.get(), {.name = "c", .rc = SCAN_VIRUS_FOUND, .reason = "Eicar"});
    add(r.get(), {.name = "d", .rc = SCAN_POLICY_VIOLATION, .reason = ""});
    add(r.get(), {.name = "e", .rc = SCAN_POLICY_VIOLATION, .reason = "Blocked type"});
    ASSERT_EQ(fq_worker_create_scan_results_summary(r.get()), 0);
    EXPECT_STREQ(r->blocking_reason, "Eicar-Test-Signature; Blocked type");
}

TEST(Summary, CleanedAndIncompleteEntries)
{
    // A cleaned file neither adds a reason nor lowers the overall code.
    ResultPtr cleaned = new_result();
    cleaned->rc = SCAN_RECURSIVE_OK;
    add(cleaned.get(), {.name = "a", .rc = SCAN_FILE_CLEANED, .reason = "Cleaned", .error = "e"});
    ASSERT_EQ(fq_worker_create_scan_results_summary(cleaned.get()), 0);
    EXPECT_EQ(cleaned->rc, SCAN_RECURSIVE_OK);
    EXPECT_STREQ(cleaned->blocking_reason, "");
    EXPECT_EQ(cleaned->error, nullptr);

    // An incomplete scan lowers a clean result, whatever the driver decided.
    ResultPtr incomplete = new_result();
    incomplete->rc = SCAN_RECURSIVE_OK;
    add(incomplete.get(), {.name = "a", .rc = 0});
    add(incomplete.get(), {.name = "b", .rc = SCAN_NOT_COMPLETED, .reason = "Encrypted"});
    ASSERT_EQ(fq_worker_create_scan_results_summary(incomplete.get()), 0);
    EXPECT_EQ(incomplete->rc, SCAN_NOT_COMPLETED);
    EXPECT_STREQ(incomplete->blocking_reason, "Encrypted");

    // Against a virus it doesn't raise the code, but its reason is still listed.
    ResultPtr virus = new_result();
    virus->rc = SCAN_VIRUS_FOUND;
    add(virus.get(), {.name = "b", .rc = SCAN_NOT_COMPLETED, .reason = "Encrypted"});
    ASSERT_EQ(fq_worker_create_scan_results_summary(virus.get()), 0);
    EXPECT_EQ(virus->rc, SCAN_VIRUS_FOUND);
    EXPECT_STREQ(virus->blocking_reason, "Encrypted");
}

TEST(Summary, ErrorOfTheMostCriticalEntryAndLaterWinsOnEqualCodes)
{
    ResultPtr r = new_result();
    r->rc = SCAN_RECURSIVE_OK;
    r->error = static_cast<char*>(calloc(1, 1024));
    add(r.get(), {.name = "a", .rc = SERVICE_ERROR, .reason = "x", .error = "first failure"});
    add(r.get(), {.name = "b", .rc = SCAN_VIRUS_FOUND, .reason = "V", .error = "not this"});
    add(r.get(), {.name = "c", .rc = SERVICE_ERROR, .reason = "y", .error = "second failure"});
    ASSERT_EQ(fq_worker_create_scan_results_summary(r.get()), 0);
    EXPECT_EQ(r->rc, SERVICE_ERROR);
    EXPECT_STREQ(r->error, "second failure");
}

TEST(Summary, NothingToSummariseChangesNothing)
{
    ResultPtr r = new_result();
    r->rc = SCAN_POLICY_VIOLATION;
    r->blocking_reason = strdup("Maximum extraction depth reached");
    ASSERT_EQ(fq_worker_create_scan_results_summary(r.get()), 0);
    EXPECT_EQ(r->rc, SCAN_POLICY_VIOLATION);
    EXPECT_STREQ(r->blocking_reason, "Maximum extraction depth reached");
    EXPECT_EQ(fq_worker_create_scan_results_summary(nullptr), -1);
}

TEST(Summary, ReasonsStopAt4096BytesOnACharacterBoundary)
{
    ResultPtr r = new_result();
    r->rc = SCAN_RECURSIVE_OK;
    std::string accent;
    for (int k = 0; k < 1000; k++)
        accent += "\xc3\xa9";  // two bytes each
    // 2001 + 2 + 2002 + 2 + 2004 bytes: the cut at 4096 falls inside the third text's 43rd character.
    const std::string reasons[] = {"a" + accent, "bb" + accent, "cccc" + accent};
    for (const std::string& reason : reasons)
        add(r.get(), {.name = reason.c_str(), .rc = SCAN_VIRUS_FOUND, .reason = reason.c_str()});
    ASSERT_EQ(fq_worker_create_scan_results_summary(r.get()), 0);
    const std::string got = r->blocking_reason;
    EXPECT_EQ(got.size(), static_cast<size_t>(FQ_SCAN_REASONS_MAX - 1));
    EXPECT_EQ(got.rfind(reasons[0] + "; " + reasons[1] + "; cccc", 0), 0u);
    EXPECT_EQ(static_cast<unsigned char>(got.back()), 0xa9) << "cut inside a character";
}

// ---------------------------------------------------------------------------
// Reply text

TEST(ScanReply, ExactTextOfAVerdict)
{
    ResultPtr r = new_result();
    r->rc = SCAN_VIRUS_FOUND;
    r->blocking_reason = strdup("Eicar");
    add(r.get(), {.name = "dir/a.zip", .rc = SCAN_VIRUS_FOUND, .reason = "Eicar", .size = 5000000000ull,
                  .mime = "application/zip", .encoding = "binary", .type = "Zip archive", .ext = "zip",
                  .objecttype = -1});
    add(r.get(), {.name = "dir/a.zip/\"q\"", .rc = 0});
    // No reason at all is a blank in the reply; an empty one stays empty (see the clean reply below).
    free(r->fileScanResults[1]->blocking_reason);
    r->fileScanResults[1]->blocking_reason = nullptr;

    EXPECT_EQ(reply_of(r.get()),
              "{\n"
              "  \"ReturnCode\":-210,\n"
              "  \"Blocking-reason\":\"Eicar\",\n"
              "  \"FilesScanned\":2,\n"
              "  \"Results\":[\n"
              "    {\n"
              "      \"ReturnCode\":-210,\n"
              "      \"File-name\":\"dir/a.zip\",\n"
              "      \"File-size\":5000000000,\n"
              "      \"MIME-type\":\"application/zip\",\n"
              "      \"MIME-encoding\":\"binary\",\n"
              "      \"File-type\":\"Zip archive\",\n"
              "      \"Extension\":\"zip\",\n"
              "      \"Object-type\":-1,\n"
              "      \"Virusname\":\"Eicar\"\n"
              "    },\n"
              "    {\n"
              "      \"ReturnCode\":0,\n"
              "      \"File-name\":\"dir/a.zip/\\\"q\\\"\",\n"
              "      \"File-size\":0,\n"
              "      \"MIME-type\":\"\",\n"
              "      \"MIME-encoding\":\"\",\n"
              "      \"File-type\":\"\",\n"
              "      \"Extension\":\"\",\n"
              "      \"Object-type\":-1,\n"
              "      \"Virusname\":\" \"\n"
              "    }\n"
              "  ]\n"
              "}");
}

TEST(ScanReply, NoEntriesAndNoReason)
{
    ResultPtr r = new_result();
    r->rc = SCAN_POLICY_VIOLATION;
    r->blocking_reason = strdup("File too large");
    EXPECT_EQ(reply_of(r.get()),
              "{\n  \"ReturnCode\":-200,\n  \"Blocking-reason\":\"File too large\",\n  \"FilesScanned\":0,\n"
              "  \"Results\":[\n  ]\n}");

    ResultPtr clean = new_result();
    clean->rc = SCAN_RECURSIVE_OK;
    EXPECT_EQ(reply_of(clean.get()), "{\n  \"ReturnCode\":1,\n  \"FilesScanned\":0,\n  \"Results\":[\n  ]\n}");

    // After a summary with entries and nothing blocked the member is there, and empty.
    add(clean.get(), {.name = "a"});
    ASSERT_EQ(fq_worker_create_scan_results_summary(clean.get()), 0);
    json_object* parsed = json_tokener_parse(reply_of(clean.get()).c_str());
    ASSERT_NE(parsed, nullptr);
    json_object* reason = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(parsed, "Blocking-reason", &reason));
    EXPECT_STREQ(json_object_get_string(reason), "");
    // An entry's reason known to be empty is not the blank of a missing one.
    json_object* results = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(parsed, "Results", &results));
    json_object* virusname = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(json_object_array_get_idx(results, 0), "Virusname", &virusname));
    EXPECT_STREQ(json_object_get_string(virusname), "");
    json_object_put(parsed);
}

TEST(ScanReply, ServiceErrorCarriesErrorAndHostButNoFiles)
{
    ResultPtr r = new_result();
    r->rc = SCAN_RECURSIVE_OK;
    r->error = static_cast<char*>(calloc(1, 1024));
    add(r.get(), {.name = "obj", .rc = SERVICE_ERROR, .reason = "boom", .error = "Failed to get reply from service x"});
    add(r.get(), {.name = "obj2", .rc = SCAN_VIRUS_FOUND, .reason = "V"});
    ASSERT_EQ(fq_worker_create_scan_results_summary(r.get()), 0);

    char host[256] = "";
    ASSERT_EQ(gethostname(host, sizeof(host) - 1), 0);
    const std::string expected = std::string("{\n  \"ReturnCode\":-1000,\n"
                                             "  \"Error\":\"Failed to get reply from service x\",\n"
                                             "  \"WorkerHostname\":\"") +
                                 host + "\"\n}";
    EXPECT_EQ(reply_of(r.get()), expected);

    // A null error is an empty text.
    ResultPtr bare = new_result();
    bare->rc = SERVICE_ERROR;
    EXPECT_NE(reply_of(bare.get()).find("\"Error\":\"\","), std::string::npos);
}

TEST(ScanReply, NullRecordGivesAnErrorReply)
{
    char* text = fq_worker_create_scan_reply(nullptr);
    ASSERT_NE(text, nullptr);
    json_object* parsed = json_tokener_parse(text);
    free(text);
    ASSERT_NE(parsed, nullptr);
    json_object* v = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(parsed, "ReturnCode", &v));
    EXPECT_EQ(json_object_get_int(v), SERVICE_ERROR);
    ASSERT_TRUE(json_object_object_get_ex(parsed, "Error", &v));
    EXPECT_STREQ(json_object_get_string(v), "Worker could not assemble a scan result");
    json_object_put(parsed);
}

}  // namespace
