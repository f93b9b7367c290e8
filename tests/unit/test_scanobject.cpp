#include <gtest/gtest.h>

#include "stderr_capture.h"
#include <json-c/json.h>

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "fq_worker_scanobject.h"
#include "log.h"

namespace {

// A job with every member the parser reads, none of them at its default.
const char* const kFullJob = R"({
  "Command": 101,
  "ObjectName": "invoice.pdf",
  "ObjectLen": 1234,
  "Services": "fq-av-mimescan;fq-av-engine+",
  "Recursion": 3,
  "shmID": "0x1f",
  "CUST_CHECK_MIME_TYPE": 11,
  "CUST_ACTIVE_CONTENT": 12,
  "SCANEXTRACT": 13,
  "SCANEXTRACT_DEPTH": 14,
  "SCANEXTRACT_MAX_FILES": 5000000000,
  "SCANEXTRACT_SIZE": 6000000000,
  "SCAN_EXTENSION_MAX_LEN": 9,
  "SCANEXTRACT_RATIO": 77,
  "SCANEXTRACT_NO_VIRUSSCAN": 1,
  "ENFORCE_MIME_POLICY_IN_ARCHIVES": 0,
  "ENFORCE_ACTIVECONTENT_POLICY_IN_ARCHIVES": 0,
  "BLOCKEXTENSIONS": "exe,com",
  "SCANEXTENSIONS": "pdf",
  "BLOCKMIMETYPES": "application/x-dosexec",
  "SCANMIMETYPES": "application/pdf",
  "MIME-type": "text/plain",
  "File-type": "ASCII text",
  "Extension": "txt",
  "realmID": "realm-1",
  "EventID": "ev-42",
  "CLEANQUARANTINE": "fq-av-quarantine.k1:secret",
  "Hostname": "client.example.org",
  "SID": "S01",
  "PID": 4000000000,
  "TID": -7,
  "ENFORCE_MIME_EXTENSION_MATCH": 21,
  "REQUIRE_EXTENSION": 22,
  "BLOCKENCRYPTED": 23,
  "BLOCKHTML_IN_PDF": 24,
  "SCANBASE64": 25,
  "SCANUUENCODED": 26,
  "SCANXMLCONTENT": 27,
  "LONGMIMETYPES": 28,
  "SCAN_MIN_SIZE": 10,
  "SCAN_MAX_SIZE": 100000,
  "HTMLDETECTION": "restrictive",
  "SCANTIMEOUT": 30000,
  "SCANBANDWIDTH": 31
})";

// Only the mandatory members.
const char* const kMinimalJob = R"({
  "ObjectName": "a.txt", "Services": "fq-av-engine", "shmID": "0xffffffff", "realmID": "r",
  "EventID": "e", "Hostname": "h", "SID": "s", "HTMLDETECTION": "SAFE"
})";

// Mandatory members in the order the parser reads them.
const std::vector<std::string> kMandatory = {"ObjectName", "Services", "shmID", "realmID",
                                             "EventID",    "Hostname", "SID",   "HTMLDETECTION"};

const std::vector<std::string> kWarned = {
    "ObjectLen", "Recursion", "CUST_CHECK_MIME_TYPE", "CUST_ACTIVE_CONTENT", "SCANEXTRACT", "SCANEXTRACT_DEPTH",
    "SCANEXTRACT_MAX_FILES", "SCANEXTRACT_SIZE", "SCANEXTRACT_RATIO", "ENFORCE_MIME_POLICY_IN_ARCHIVES",
    "ENFORCE_ACTIVECONTENT_POLICY_IN_ARCHIVES", "PID", "TID", "ENFORCE_MIME_EXTENSION_MATCH", "REQUIRE_EXTENSION",
    "BLOCKENCRYPTED", "BLOCKHTML_IN_PDF", "SCANBASE64", "SCANUUENCODED", "SCANXMLCONTENT", "LONGMIMETYPES",
    "SCAN_MIN_SIZE", "SCAN_MAX_SIZE", "SCANTIMEOUT", "SCANBANDWIDTH"};

const std::vector<std::string> kSilent = {"SCAN_EXTENSION_MAX_LEN", "SCANEXTRACT_NO_VIRUSSCAN", "BLOCKEXTENSIONS",
                                          "SCANEXTENSIONS",         "BLOCKMIMETYPES",           "SCANMIMETYPES",
                                          "MIME-type",              "File-type",                "Extension",
                                          "CLEANQUARANTINE"};

struct JsonDeleter {
    void operator()(json_object* o) const { json_object_put(o); }
};
using Json = std::unique_ptr<json_object, JsonDeleter>;

struct ScanObjectDeleter {
    void operator()(fq_worker_scanobject_t* p) const { fq_worker_FreeScanObject(&p); }
};
using ScanObject = std::unique_ptr<fq_worker_scanobject_t, ScanObjectDeleter>;

Json parse(const char* text)
{
    Json j(json_tokener_parse(text));
    EXPECT_NE(nullptr, j.get()) << text;
    return j;
}

// Sets key to the JSON value written in value_json (or removes it when value_json is null).
void set(json_object* job, const std::string& key, const char* value_json)
{
    if (!value_json) {
        json_object_object_del(job, key.c_str());
        return;
    }
    json_object* v = json_tokener_parse(value_json);
    ASSERT_TRUE(v || strcmp(value_json, "null") == 0) << value_json;
    json_object_object_add(job, key.c_str(), v);
}

struct Parsed {
    ScanObject so;
    std::string err;
};

Parsed get(json_object* job)
{
    char err[1024] = "untouched";
    Parsed p{ScanObject(fq_worker_GetScanJobDetails(job, err)), err};
    return p;
}

// The job's minimal form with one member replaced.
Parsed get_minimal_with(const std::string& key, const char* value_json)
{
    Json job = parse(kMinimalJob);
    set(job.get(), key, value_json);
    return get(job.get());
}


// Collects what the log writes to stderr while it lives.

size_t count(const std::string& hay, const std::string& needle)
{
    size_t n = 0;
    for (size_t pos = hay.find(needle); pos != std::string::npos; pos = hay.find(needle, pos + 1))
        ++n;
    return n;
}

TEST(ScanJobParse, FullJobFillsEveryFieldWithCopiesAndLeavesTheJobAlone)
{
    Json job = parse(kFullJob);
    const std::string before = json_object_to_json_string_ext(job.get(), JSON_C_TO_STRING_PLAIN);
    Parsed p = get(job.get());
    ASSERT_NE(nullptr, p.so) << p.err;
    const fq_worker_scanobject_t* so = p.so.get();

    EXPECT_EQ(job.get(), so->scanjob_json);
    EXPECT_STREQ("invoice.pdf", so->ObjectName);
    EXPECT_EQ(1234u, so->ObjectLen);
    EXPECT_STREQ("fq-av-mimescan;fq-av-engine+", so->services);
    EXPECT_EQ(3, so->recursion_level);
    EXPECT_EQ(0x1f, so->shmid);
    EXPECT_EQ(11, so->CheckMime);
    EXPECT_EQ(12, so->BlockActiveContent);
    EXPECT_EQ(13, so->RecurseIntoArchives);
    EXPECT_EQ(14, so->SCANEXTRACT_DEPTH);
    EXPECT_EQ(5000000000LL, so->SCANEXTRACT_MAX_FILES);
    EXPECT_EQ(6000000000ULL, so->SCANEXTRACT_SIZE);
    EXPECT_EQ(9u, so->SCAN_EXTENSION_MAX_LEN);
    EXPECT_EQ(77, so->SCANEXTRACT_RATIO);
    EXPECT_TRUE(so->SCANEXTRACT_NO_VIRUSSCAN);
    EXPECT_EQ(0, so->enforce_mime_policy_in_archives);
    EXPECT_EQ(0, so->enforce_activecontent_policy_in_archives);
    EXPECT_STREQ("exe,com", so->BLOCKEXTENSIONS);
    EXPECT_STREQ("pdf", so->SCANEXTENSIONS);
    EXPECT_STREQ("application/x-dosexec", so->BLOCKMIMETYPES);
    EXPECT_STREQ("application/pdf", so->SCANMIMETYPES);
    EXPECT_STREQ("text/plain", so->MIMEtype);
    EXPECT_STREQ("ASCII text", so->Filetype);
    EXPECT_STREQ("txt", so->extension);
    EXPECT_STREQ("realm-1", so->realmID);
    EXPECT_STREQ("ev-42", so->eventID);
    EXPECT_STREQ("fq-av-quarantine.k1:secret", so->CLEANQUARANTINE);
    EXPECT_STREQ("client.example.org", so->CLIENT_HOSTNAME_FQDN);
    EXPECT_STREQ("S01", so->SID);
    EXPECT_EQ(4000000000LL, so->PID);
    EXPECT_EQ(-7, so->TID);
    const fq_scan_config* cfg = so->ScanConfig;
    ASSERT_NE(nullptr, cfg);
    EXPECT_EQ(21, cfg->ENFORCE_MIME_EXTENSION_MATCH);
    EXPECT_EQ(22, cfg->REQUIRE_EXTENSION);
    EXPECT_EQ(23, cfg->BLOCKENCRYPTED);
    EXPECT_EQ(24, cfg->BLOCKHTML_IN_PDF);
    EXPECT_EQ(25, cfg->SCANBASE64);
    EXPECT_EQ(26, cfg->SCANUUENCODED);
    EXPECT_EQ(27, cfg->SCANXMLCONTENT);
    EXPECT_EQ(28, cfg->LONGMIMETYPES);
    EXPECT_EQ(10u, cfg->SCAN_MIN_SIZE);
    EXPECT_EQ(100000u, cfg->SCAN_MAX_SIZE);
    EXPECT_EQ(RESTRICTIVE, cfg->HTMLDETECTION);
    EXPECT_EQ(30000, cfg->ScanTimeout);
    EXPECT_EQ(31, cfg->ScanBandwidth);

    // The texts are the record's own: they outlive a change of the job.
    json_object* name = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(job.get(), "ObjectName", &name));
    EXPECT_NE(json_object_get_string(name), so->ObjectName);
    EXPECT_EQ(before, json_object_to_json_string_ext(job.get(), JSON_C_TO_STRING_PLAIN));
    json_object_object_add(job.get(), "ObjectName", json_object_new_string("other"));
    EXPECT_STREQ("invoice.pdf", so->ObjectName);
}

TEST(ScanJobParse, MinimalJobKeepsEveryDefaultAndWarnsOnlyForWarnedMembers)
{
    log_reset_start_state();
    fqtest::StderrCapture cap;
    Json job = parse(kMinimalJob);
    Parsed p = get(job.get());
    const std::string log = cap.stop();
    ASSERT_NE(nullptr, p.so) << p.err;
    const fq_worker_scanobject_t* so = p.so.get();

    EXPECT_EQ(0u, so->ObjectLen);
    EXPECT_EQ(0, so->recursion_level);
    EXPECT_EQ(-1, so->shmid);
    EXPECT_EQ(0, so->CheckMime);
    EXPECT_EQ(0, so->BlockActiveContent);
    EXPECT_EQ(0, so->RecurseIntoArchives);
    EXPECT_EQ(20, so->SCANEXTRACT_DEPTH);
    EXPECT_EQ(0, so->SCANEXTRACT_MAX_FILES);
    EXPECT_EQ(0u, so->SCANEXTRACT_SIZE);
    EXPECT_EQ(5u, so->SCAN_EXTENSION_MAX_LEN);
    EXPECT_EQ(1032, so->SCANEXTRACT_RATIO);
    EXPECT_FALSE(so->SCANEXTRACT_NO_VIRUSSCAN);
    EXPECT_EQ(1, so->enforce_mime_policy_in_archives);
    EXPECT_EQ(1, so->enforce_activecontent_policy_in_archives);
    for (const char* text : {so->BLOCKEXTENSIONS, so->SCANEXTENSIONS, so->BLOCKMIMETYPES, so->SCANMIMETYPES,
                             so->MIMEtype, so->Filetype, so->extension, so->CLEANQUARANTINE}) {
        ASSERT_NE(nullptr, text);
        EXPECT_STREQ("", text);
    }
    EXPECT_EQ(0, so->PID);
    EXPECT_EQ(0, so->TID);
    EXPECT_EQ(SAFE, so->ScanConfig->HTMLDETECTION);
    EXPECT_EQ(0, so->ScanConfig->ScanTimeout);
    EXPECT_EQ(0, so->ScanConfig->ScanBandwidth);
    EXPECT_EQ(0u, so->ScanConfig->SCAN_MIN_SIZE);
    EXPECT_EQ(0u, so->ScanConfig->SCAN_MAX_SIZE);
    EXPECT_EQ(0, so->ScanConfig->REQUIRE_EXTENSION);
    EXPECT_EQ(XML_HTML, so->ScanConfig->XML_MODE);
    EXPECT_EQ(TEXT_HTML, so->ScanConfig->SVG_MODE);
    EXPECT_EQ(0u, so->ScanConfig->SCAN_MAX_EXTENSION_LEN);
    EXPECT_EQ(nullptr, so->ScanBuffer);
    EXPECT_EQ(nullptr, so->worker_config);

    // No member fills the active-content record.
    ASSERT_NE(nullptr, so->ActiveContent);
    fq_worker_active_content_t zero{};
    EXPECT_EQ(0, memcmp(&zero, so->ActiveContent, sizeof(zero)));

    for (const std::string& key : kWarned) {
        EXPECT_EQ(1u, count(log, "(): Object " + key + " not found ")) << key;
    }
    for (const std::string& key : kSilent) {
        EXPECT_EQ(0u, count(log, key)) << key;
    }
    EXPECT_EQ(kWarned.size(), count(log, " not found"));
}

TEST(ScanJobParse, MandatoryMembersFailWhenAbsentEmptyOrNull)
{
    for (const std::string& key : kMandatory) {
        Parsed absent = get_minimal_with(key, nullptr);
        EXPECT_EQ(nullptr, absent.so) << key;
        EXPECT_EQ("Failed to read " + key + " from JSON", absent.err);

        Parsed empty = get_minimal_with(key, "\"\"");
        EXPECT_EQ(nullptr, empty.so) << key;
        EXPECT_EQ("Key " + key + " found, but value is empty", empty.err);

        Parsed null = get_minimal_with(key, "null");
        EXPECT_EQ(nullptr, null.so) << key;
        EXPECT_EQ("Key " + key + " found, but value is empty", null.err);
    }
}

TEST(ScanJobParse, FirstMandatoryFaultInReadingOrderIsReported)
{
    // For every pair of mandatory members, the one read first is named.
    for (size_t i = 0; i < kMandatory.size(); ++i) {
        for (size_t j = i + 1; j < kMandatory.size(); ++j) {
            Json job = parse(kMinimalJob);
            set(job.get(), kMandatory[j], nullptr);
            set(job.get(), kMandatory[i], "\"\"");
            Parsed p = get(job.get());
            EXPECT_EQ(nullptr, p.so);
            EXPECT_EQ("Key " + kMandatory[i] + " found, but value is empty", p.err)
                << kMandatory[i] << " before " << kMandatory[j];
        }
    }
}

TEST(ScanJobParse, NoJobOrAJobThatIsNoObjectFails)
{
    Parsed none = get(nullptr);
    EXPECT_EQ(nullptr, none.so);
    EXPECT_EQ("Failed to read ObjectName from JSON", none.err);

    Json array = parse("[1, 2]");
    Parsed p = get(array.get());
    EXPECT_EQ(nullptr, p.so);
    EXPECT_EQ("Failed to read ObjectName from JSON", p.err);

    // A null error buffer is allowed.
    EXPECT_EQ(nullptr, fq_worker_GetScanJobDetails(array.get(), nullptr));
}

TEST(ScanJobParse, HtmlDetectionTextsMapToTheEnumeration)
{
    const struct {
        const char* json;
        HTMLDETECTION want;
    } cases[] = {
        {"\"OFF\"", OFF},   {"\"off\"", OFF},   {"\"oFf\"", OFF},      {"\"SAFE\"", SAFE},
        {"\"safe\"", SAFE}, {"\"whatever\"", SAFE}, {"\"OFFLINE\"", SAFE}, {"5", SAFE},
        {"true", SAFE},     {"\"RESTRICTIVE\"", RESTRICTIVE},  {"\"Restrictive\"", RESTRICTIVE},
        {"\"SVG\"", SVG},   {"\"svg\"", SVG},   {"\" svg\"", SAFE},
    };
    for (const auto& c : cases) {
        Parsed p = get_minimal_with("HTMLDETECTION", c.json);
        ASSERT_NE(nullptr, p.so) << c.json << ": " << p.err;
        EXPECT_EQ(c.want, p.so->ScanConfig->HTMLDETECTION) << c.json;
    }
    EXPECT_EQ(SAFE, fq_worker_htmldetection_from_text(nullptr));
}

TEST(ScanJobParse, ShmIdIsHexWithTheLowThirtyTwoBitsKept)
{
    const struct {
        const char* json;
        int32_t want;
    } cases[] = {
        {"\"0xffffffff\"", -1},
        {"\"0XFFFFFFFF\"", -1},
        {"\"ff\"", 255},
        {"\"0x7fffffff\"", INT32_MAX},
        {"\"0x80000000\"", INT32_MIN},
        {"\"0x100000001\"", 1},
        {"\"-1\"", -1},
        {"\"zz\"", 0},
        {"\"none\"", 0},
        // Beyond a long: strtol saturates, and the low half of LONG_MAX is all ones.
        {"\"0xfffffffffffffffffffff\"", -1},
        // A number is read as its text, and that text as hex.
        {"255", 0x255},
    };
    for (const auto& c : cases) {
        Parsed p = get_minimal_with("shmID", c.json);
        ASSERT_NE(nullptr, p.so) << c.json << ": " << p.err;
        EXPECT_EQ(c.want, p.so->shmid) << c.json;
    }
    EXPECT_EQ(0, fq_worker_shmid_from_text(nullptr));
}

TEST(ScanJobParse, SilentNumbersFollowTheirOwnRules)
{
    const struct {
        const char* json;
        size_t want;
    } ext_len[] = {{"0", 5}, {"-3", 5}, {"7", 7}, {"\"12\"", 12}, {"null", 5}, {"1e12", 2147483647}, {nullptr, 5}};
    for (const auto& c : ext_len) {
        Parsed p = get_minimal_with("SCAN_EXTENSION_MAX_LEN", c.json);
        ASSERT_NE(nullptr, p.so) << p.err;
        EXPECT_EQ(c.want, p.so->SCAN_EXTENSION_MAX_LEN) << (c.json ? c.json : "absent");
    }

    const struct {
        const char* json;
        bool want;
    } no_virusscan[] = {{"1", true}, {"\"1\"", true}, {"true", true}, {"1.7", true}, {"2", false},
                        {"0", false}, {"-1", false}, {"\"yes\"", false}, {nullptr, false}};
    for (const auto& c : no_virusscan) {
        Parsed p = get_minimal_with("SCANEXTRACT_NO_VIRUSSCAN", c.json);
        ASSERT_NE(nullptr, p.so) << p.err;
        EXPECT_EQ(c.want, p.so->SCANEXTRACT_NO_VIRUSSCAN) << (c.json ? c.json : "absent");
    }

    // A value that is there replaces a non-zero default, even with 0.
    Parsed depth0 = get_minimal_with("SCANEXTRACT_DEPTH", "0");
    ASSERT_NE(nullptr, depth0.so);
    EXPECT_EQ(0, depth0.so->SCANEXTRACT_DEPTH);
    Parsed ratio0 = get_minimal_with("SCANEXTRACT_RATIO", "0");
    ASSERT_NE(nullptr, ratio0.so);
    EXPECT_EQ(0, ratio0.so->SCANEXTRACT_RATIO);
    Parsed enforce0 = get_minimal_with("ENFORCE_MIME_POLICY_IN_ARCHIVES", "0");
    ASSERT_NE(nullptr, enforce0.so);
    EXPECT_EQ(0, enforce0.so->enforce_mime_policy_in_archives);
    EXPECT_EQ(1, enforce0.so->enforce_activecontent_policy_in_archives);
}

TEST(ScanJobParse, NumbersAreReadLenientlyAndSaturate)
{
    const struct {
        const char* key;
        const char* json;
        int64_t want;
    } cases[] = {
        {"ObjectLen", "\"12\"", 12},
        {"ObjectLen", "3.9", 3},
        {"ObjectLen", "true", 1},
        {"ObjectLen", "[1]", 0},
        {"ObjectLen", "{\"a\": 1}", 0},
        {"ObjectLen", "\"abc\"", 0},
        {"ObjectLen", "NaN", 0},
        {"ObjectLen", "null", 0},
        {"ObjectLen", "1e20", INT32_MAX},
        {"ObjectLen", "99999999999999999999999", INT32_MAX},
        {"Recursion", "Infinity", INT32_MAX},
        {"SCANTIMEOUT", "4294967296", INT32_MAX},
        {"SCANTIMEOUT", "NaN", 0},
        // Integer 64 members keep what an int64 holds and saturate beyond.
        {"PID", "9223372036854775807", INT64_MAX},
        {"PID", "18446744073709551615", INT64_MAX},
        {"PID", "-9223372036854775809", INT64_MIN},
        {"PID", "NaN", 0},
        {"TID", "\"123456789012\"", 123456789012LL},
    };
    for (const auto& c : cases) {
        Parsed p = get_minimal_with(c.key, c.json);
        ASSERT_NE(nullptr, p.so) << c.key << "=" << c.json << ": " << p.err;
        int64_t got = 0;
        const std::string key = c.key;
        if (key == "ObjectLen")
            got = static_cast<int64_t>(p.so->ObjectLen);
        else if (key == "Recursion")
            got = p.so->recursion_level;
        else if (key == "SCANTIMEOUT")
            got = p.so->ScanConfig->ScanTimeout;
        else if (key == "PID")
            got = p.so->PID;
        else
            got = p.so->TID;
        EXPECT_EQ(c.want, got) << c.key << "=" << c.json;
    }
}

TEST(ScanJobParse, SizeFieldsWidenWithTheirSign)
{
    Json job = parse(kMinimalJob);
    set(job.get(), "SCANEXTRACT_SIZE", "-1");
    set(job.get(), "SCAN_MIN_SIZE", "-2");
    set(job.get(), "SCAN_MAX_SIZE", "3000000000");
    Parsed p = get(job.get());
    ASSERT_NE(nullptr, p.so) << p.err;
    EXPECT_EQ(SIZE_MAX, p.so->SCANEXTRACT_SIZE);
    EXPECT_EQ(SIZE_MAX - 1, p.so->ScanConfig->SCAN_MIN_SIZE);
    // SCAN_MAX_SIZE is a 32-bit member of the job.
    EXPECT_EQ(static_cast<size_t>(INT32_MAX), p.so->ScanConfig->SCAN_MAX_SIZE);
}

TEST(ScanJobParse, NegativeLengthDepthOrBudgetFailsTheJob)
{
    for (const char* key : {"ObjectLen", "Recursion", "SCANTIMEOUT"}) {
        for (const char* value : {"-1", "-2147483648", "-1e30", "\"-5\""}) {
            Parsed p = get_minimal_with(key, value);
            EXPECT_EQ(nullptr, p.so) << key << "=" << value;
            EXPECT_EQ(0u, p.err.find(std::string("Key ") + key + " found, but value -")) << p.err;
        }
    }
    Parsed len = get_minimal_with("ObjectLen", "-1");
    EXPECT_EQ("Key ObjectLen found, but value -1 is negative", len.err);
    // ObjectLen is read before Services.
    Json job = parse(kMinimalJob);
    set(job.get(), "ObjectLen", "-1");
    set(job.get(), "Services", nullptr);
    EXPECT_EQ("Key ObjectLen found, but value -1 is negative", get(job.get()).err);
}

TEST(ScanJobParse, TextsOfAnyTypeAndLengthAreCopied)
{
    Parsed num = get_minimal_with("ObjectName", "42");
    ASSERT_NE(nullptr, num.so);
    EXPECT_STREQ("42", num.so->ObjectName);

    Parsed obj = get_minimal_with("BLOCKEXTENSIONS", "{\"a\":[1,2]}");
    ASSERT_NE(nullptr, obj.so);
    EXPECT_STREQ("{ \"a\": [ 1, 2 ] }", obj.so->BLOCKEXTENSIONS);

    Parsed null = get_minimal_with("CLEANQUARANTINE", "null");
    ASSERT_NE(nullptr, null.so);
    EXPECT_STREQ("", null.so->CLEANQUARANTINE);

    const std::string big(1 << 20, 'x');
    Json job = parse(kMinimalJob);
    json_object_object_add(job.get(), "Services", json_object_new_string(big.c_str()));
    json_object_object_add(job.get(), "SCANMIMETYPES", json_object_new_string(big.c_str()));
    Parsed p = get(job.get());
    ASSERT_NE(nullptr, p.so);
    EXPECT_EQ(big, p.so->services);
    EXPECT_EQ(big, p.so->SCANMIMETYPES);
}

TEST(ScanJobParse, HostileValuesInEveryMemberNeverCrash)
{
    const char* values[] = {"null", "[]", "{}", "[{\"x\": [1, {\"y\": null}]}]", "NaN", "-Infinity", "1e308",
                            "-1e308", "\"\"", "true", "false", "-9223372036854775808", "18446744073709551615",
                            "\"0x\"", "\"\\u0000abc\""};
    Json full = parse(kFullJob);
    std::vector<std::string> keys;
    json_object_object_foreach(full.get(), key, val)
    {
        (void)val;
        keys.push_back(key);
    }
    ASSERT_EQ(44u, keys.size());
    size_t accepted = 0;
    for (const std::string& key : keys) {
        for (const char* v : values) {
            Json job = parse(kFullJob);
            set(job.get(), key, v);
            Parsed p = get(job.get());
            if (p.so) {
                ++accepted;
                // Every text of an accepted record is there.
                EXPECT_NE(nullptr, p.so->ObjectName);
                EXPECT_NE(nullptr, p.so->CLEANQUARANTINE);
                EXPECT_NE(nullptr, p.so->extension);
                EXPECT_GE(p.so->recursion_level, 0);
                EXPECT_GE(p.so->ScanConfig->ScanTimeout, 0);
            } else {
                EXPECT_NE("untouched", p.err) << key << "=" << v;
                EXPECT_FALSE(p.err.empty()) << key << "=" << v;
            }
        }
    }
    EXPECT_GT(accepted, 0u);
}

TEST(ScanJobFree, ReleasesEverythingAndNullsThePointer)
{
    fq_worker_FreeScanObject(nullptr);
    fq_worker_scanobject_t* none = nullptr;
    fq_worker_FreeScanObject(&none);
    EXPECT_EQ(nullptr, none);

    Json job = parse(kFullJob);
    fq_worker_scanobject_t* so = fq_worker_GetScanJobDetails(job.get(), nullptr);
    ASSERT_NE(nullptr, so);
    // Set the way a later step could: the free takes these along (the leak checker sees if not).
    so->ActiveContent->CSV_injection_regex = strdup("^[=+-@]");
    so->sid = strdup("sid");
    fq_worker_FreeScanObject(&so);
    EXPECT_EQ(nullptr, so);
    // The borrowed job is still whole.
    json_object* name = nullptr;
    EXPECT_TRUE(json_object_object_get_ex(job.get(), "ObjectName", &name));
    EXPECT_STREQ("invoice.pdf", json_object_get_string(name));

    // A record with only some parts, as a failed read leaves it.
    auto* partial = static_cast<fq_worker_scanobject_t*>(calloc(1, sizeof(fq_worker_scanobject_t)));
    partial->ObjectName = strdup("x");
    fq_worker_FreeScanObject(&partial);
    EXPECT_EQ(nullptr, partial);
}

}  // namespace
