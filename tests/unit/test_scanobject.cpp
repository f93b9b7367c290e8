#include <gtest/gtest.h>
#include <json-c/json.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fq_raii.h"
#include "fq_worker_scanobject.h"
#include "log.h"
#include "stderr_capture.h"

namespace {

// A job with every member the parser reads, none of them at its default.
const char* const kFullJob = R"({
  "Command": 101, "ObjectName": "invoice.pdf", "ObjectLen": 1234, "Services": "fq-av-mimescan;fq-av-engine+",
  "Recursion": 3, "shmID": "0x1f", "CUST_CHECK_MIME_TYPE": 11, "CUST_ACTIVE_CONTENT": 12, "SCANEXTRACT": 13,
  "SCANEXTRACT_DEPTH": 14, "SCANEXTRACT_MAX_FILES": 5000000000, "SCANEXTRACT_SIZE": 6000000000,
  "SCAN_EXTENSION_MAX_LEN": 9, "SCANEXTRACT_RATIO": 77, "SCANEXTRACT_NO_VIRUSSCAN": 1,
  "ENFORCE_MIME_POLICY_IN_ARCHIVES": 0, "ENFORCE_ACTIVECONTENT_POLICY_IN_ARCHIVES": 0, "BLOCKEXTENSIONS": "exe,com",
  "SCANEXTENSIONS": "pdf", "BLOCKMIMETYPES": "application/x-dosexec", "SCANMIMETYPES": "application/pdf",
  "MIME-type": "text/plain", "File-type": "ASCII text", "Extension": "txt", "realmID": "realm-1", "EventID": "ev-42",
  "CLEANQUARANTINE": "fq-av-quarantine.k1:secret", "Hostname": "client.example.org", "SID": "S01",
  "PID": 4000000000, "TID": -7, "ENFORCE_MIME_EXTENSION_MATCH": 21, "REQUIRE_EXTENSION": 22, "BLOCKENCRYPTED": 23,
  "BLOCKHTML_IN_PDF": 24, "SCANBASE64": 25, "SCANUUENCODED": 26, "SCANXMLCONTENT": 27, "LONGMIMETYPES": 28,
  "SCAN_MIN_SIZE": 10, "SCAN_MAX_SIZE": 100000, "HTMLDETECTION": "restrictive", "SCANTIMEOUT": 30000,
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
const std::vector<std::string> kSilentTexts = {"BLOCKEXTENSIONS", "SCANEXTENSIONS", "BLOCKMIMETYPES", "SCANMIMETYPES",
                                               "MIME-type",       "File-type",      "Extension",      "CLEANQUARANTINE"};


fq_json_ptr parse(const char* text)
{
    fq_json_ptr j(json_tokener_parse(text));
    EXPECT_NE(nullptr, j.get()) << text;
    return j;
}

// Sets key to the JSON value written in value_json (or removes it when value_json is null).
void set(json_object* job, const std::string& key, const char* value_json)
{
    if (!value_json)
        return json_object_object_del(job, key.c_str());
    json_object* v = json_tokener_parse(value_json);
    ASSERT_TRUE(v || strcmp(value_json, "null") == 0) << value_json;
    json_object_object_add(job, key.c_str(), v);
}

struct Parsed {
    fq_scanobject_ptr so;
    std::string err;
};

Parsed get(json_object* job)
{
    char err[1024] = "untouched";
    return Parsed{fq_scanobject_ptr(fq_worker_GetScanJobDetails(job, err)), err};
}

// The job's minimal form with one member replaced.
Parsed get_minimal_with(const std::string& key, const char* value_json)
{
    fq_json_ptr job = parse(kMinimalJob);
    set(job.get(), key, value_json);
    return get(job.get());
}

// The record's field read from the job's numeric member key (size fields as their bits: SIZE_MAX is -1).
int64_t field(const fq_worker_scanobject_t* so, const std::string& key)
{
    const fq_scan_config* c = so->ScanConfig;
    const std::pair<const char*, int64_t> fields[] = {
        {"ObjectLen", static_cast<int64_t>(so->ObjectLen)}, {"Recursion", so->recursion_level}, {"shmID", so->shmid},
        {"CUST_CHECK_MIME_TYPE", so->CheckMime}, {"CUST_ACTIVE_CONTENT", so->BlockActiveContent},
        {"SCANEXTRACT", so->RecurseIntoArchives}, {"SCANEXTRACT_DEPTH", so->SCANEXTRACT_DEPTH},
        {"SCANEXTRACT_MAX_FILES", so->SCANEXTRACT_MAX_FILES},
        {"SCANEXTRACT_SIZE", static_cast<int64_t>(so->SCANEXTRACT_SIZE)},
        {"SCAN_EXTENSION_MAX_LEN", static_cast<int64_t>(so->SCAN_EXTENSION_MAX_LEN)},
        {"SCANEXTRACT_RATIO", so->SCANEXTRACT_RATIO}, {"SCANEXTRACT_NO_VIRUSSCAN", so->SCANEXTRACT_NO_VIRUSSCAN},
        {"ENFORCE_MIME_POLICY_IN_ARCHIVES", so->enforce_mime_policy_in_archives},
        {"ENFORCE_ACTIVECONTENT_POLICY_IN_ARCHIVES", so->enforce_activecontent_policy_in_archives},
        {"PID", so->PID}, {"TID", so->TID}, {"ENFORCE_MIME_EXTENSION_MATCH", c->ENFORCE_MIME_EXTENSION_MATCH},
        {"REQUIRE_EXTENSION", c->REQUIRE_EXTENSION}, {"BLOCKENCRYPTED", c->BLOCKENCRYPTED},
        {"BLOCKHTML_IN_PDF", c->BLOCKHTML_IN_PDF}, {"SCANBASE64", c->SCANBASE64}, {"SCANUUENCODED", c->SCANUUENCODED},
        {"SCANXMLCONTENT", c->SCANXMLCONTENT}, {"LONGMIMETYPES", c->LONGMIMETYPES},
        {"SCAN_MIN_SIZE", static_cast<int64_t>(c->SCAN_MIN_SIZE)},
        {"SCAN_MAX_SIZE", static_cast<int64_t>(c->SCAN_MAX_SIZE)}, {"HTMLDETECTION", c->HTMLDETECTION},
        {"SCANTIMEOUT", c->ScanTimeout}, {"SCANBANDWIDTH", c->ScanBandwidth}};
    for (const auto& f : fields)
        if (key == f.first)
            return f.second;
    ADD_FAILURE() << "no field for " << key;
    return INT64_MIN + 1;
}

// The record's copy of the job's text member key.
const char* text(const fq_worker_scanobject_t* so, const std::string& key)
{
    const std::pair<const char*, const char*> texts[] = {
        {"ObjectName", so->ObjectName},        {"Services", so->services},          {"SCANEXTENSIONS", so->SCANEXTENSIONS},
        {"SCANMIMETYPES", so->SCANMIMETYPES},  {"BLOCKEXTENSIONS", so->BLOCKEXTENSIONS},
        {"BLOCKMIMETYPES", so->BLOCKMIMETYPES}, {"CLEANQUARANTINE", so->CLEANQUARANTINE},
        {"Hostname", so->CLIENT_HOSTNAME_FQDN}, {"SID", so->SID},                    {"MIME-type", so->MIMEtype},
        {"File-type", so->Filetype},           {"Extension", so->extension},        {"realmID", so->realmID},
        {"EventID", so->eventID}};
    for (const auto& t : texts)
        if (key == t.first)
            return t.second;
    return nullptr;
}

TEST(ScanJobParse, FullJobFillsEveryFieldWithCopiesAndLeavesTheJobAlone)
{
    fq_json_ptr job = parse(kFullJob);
    const std::string before = json_object_to_json_string_ext(job.get(), JSON_C_TO_STRING_PLAIN);
    Parsed p = get(job.get());
    ASSERT_NE(nullptr, p.so) << p.err;
    const fq_worker_scanobject_t* so = p.so.get();
    EXPECT_EQ(job.get(), so->scanjob_json);

    EXPECT_EQ(0x1f, so->shmid);
    EXPECT_EQ(RESTRICTIVE, so->ScanConfig->HTMLDETECTION);
    // Every number (all in range) is taken as it is; every text is copied and outlives a change of the job.
    int checked = 0;
    json_object_object_foreach(job.get(), key, val)
    {
        if (!strcmp(key, "Command") || !strcmp(key, "shmID") || !strcmp(key, "HTMLDETECTION"))
            continue;
        ++checked;
        if (json_object_is_type(val, json_type_int)) {
            EXPECT_EQ(json_object_get_int64(val), field(so, key)) << key;
            continue;
        }
        ASSERT_NE(nullptr, text(so, key)) << key;
        EXPECT_STREQ(json_object_get_string(val), text(so, key)) << key;
        EXPECT_NE(json_object_get_string(val), text(so, key)) << key;
    }
    EXPECT_EQ(41, checked);
    EXPECT_EQ(before, json_object_to_json_string_ext(job.get(), JSON_C_TO_STRING_PLAIN));
    json_object_object_add(job.get(), "ObjectName", json_object_new_string("other"));
    EXPECT_STREQ("invoice.pdf", so->ObjectName);
}

TEST(ScanJobParse, MinimalJobKeepsEveryDefaultAndWarnsOnlyForWarnedMembers)
{
    log_reset_start_state();
    fqtest::StderrCapture cap;
    fq_json_ptr job = parse(kMinimalJob);
    Parsed p = get(job.get());
    cap.stop();
    ASSERT_NE(nullptr, p.so) << p.err;
    const fq_worker_scanobject_t* so = p.so.get();

    // Absent numbers are 0, but for these.
    const std::map<std::string, int64_t> defaults = {
        {"SCANEXTRACT_DEPTH", 20}, {"SCAN_EXTENSION_MAX_LEN", 5}, {"SCANEXTRACT_RATIO", 1032},
        {"ENFORCE_MIME_POLICY_IN_ARCHIVES", 1}, {"ENFORCE_ACTIVECONTENT_POLICY_IN_ARCHIVES", 1}, {"HTMLDETECTION", SAFE}};
    std::vector<std::string> numbers = kWarned;
    numbers.insert(numbers.end(), {"SCAN_EXTENSION_MAX_LEN", "HTMLDETECTION", "SCANEXTRACT_NO_VIRUSSCAN"});
    for (const std::string& key : numbers) {
        const auto d = defaults.find(key);
        EXPECT_EQ(d == defaults.end() ? 0 : d->second, field(so, key)) << key;
    }
    for (const std::string& key : kSilentTexts) {
        ASSERT_NE(nullptr, text(so, key)) << key;
        EXPECT_STREQ("", text(so, key)) << key;
    }
    // No member fills the active-content record.
    ASSERT_NE(nullptr, so->ActiveContent);
    fq_worker_active_content_t zero{};
    EXPECT_EQ(0, memcmp(&zero, so->ActiveContent, sizeof(zero)));

    for (const std::string& key : kWarned)
        EXPECT_EQ(1, cap.count("(): Object " + key + " not found ")) << key;
    for (const std::string& key : kSilentTexts)
        EXPECT_EQ(0, cap.count(key)) << key;
    EXPECT_EQ(0, cap.count("SCAN_EXTENSION_MAX_LEN"));
    EXPECT_EQ(0, cap.count("SCANEXTRACT_NO_VIRUSSCAN"));
    EXPECT_EQ(static_cast<int>(kWarned.size()), cap.count(" not found"));
}

TEST(ScanJobParse, MandatoryMembersFailWhenAbsentEmptyOrNullAndTheFirstInReadingOrderIsNamed)
{
    for (const std::string& key : kMandatory) {
        for (const char* value : {static_cast<const char*>(nullptr), "\"\"", "null"}) {
            Parsed p = get_minimal_with(key, value);
            EXPECT_EQ(nullptr, p.so) << key;
            EXPECT_EQ(value ? "Key " + key + " found, but value is empty" : "Failed to read " + key + " from JSON",
                      p.err);
        }
    }
    // For every pair of mandatory members, the one read first is named.
    for (size_t i = 0; i < kMandatory.size(); ++i) {
        for (size_t j = i + 1; j < kMandatory.size(); ++j) {
            fq_json_ptr job = parse(kMinimalJob);
            set(job.get(), kMandatory[j], nullptr);
            set(job.get(), kMandatory[i], "\"\"");
            Parsed p = get(job.get());
            EXPECT_EQ(nullptr, p.so);
            EXPECT_EQ("Key " + kMandatory[i] + " found, but value is empty", p.err)
                << kMandatory[i] << " before " << kMandatory[j];
        }
    }
    // No job, or one that is no object, fails on the first member; a null error buffer is allowed.
    EXPECT_EQ("Failed to read ObjectName from JSON", get(nullptr).err);
    fq_json_ptr array = parse("[1, 2]");
    EXPECT_EQ("Failed to read ObjectName from JSON", get(array.get()).err);
    EXPECT_EQ(nullptr, fq_worker_GetScanJobDetails(array.get(), nullptr));
}

TEST(ScanJobParse, MembersAreReadLenientlyByTheirOwnRules)
{
    const struct {
        const char* key;
        const char* json;
        int64_t want;
    } cases[] = {
        // HTMLDETECTION: three words in any case, everything else SAFE.
        {"HTMLDETECTION", "\"oFf\"", OFF}, {"HTMLDETECTION", "\"OFFLINE\"", SAFE},
        {"HTMLDETECTION", "\"whatever\"", SAFE}, {"HTMLDETECTION", "5", SAFE},
        {"HTMLDETECTION", "\"Restrictive\"", RESTRICTIVE}, {"HTMLDETECTION", "\"svg\"", SVG},
        {"HTMLDETECTION", "\" svg\"", SAFE},
        // shmID: hex with the low 32 bits kept.
        {"shmID", "\"0XFFFFFFFF\"", -1}, {"shmID", "\"ff\"", 255}, {"shmID", "\"0x7fffffff\"", INT32_MAX},
        {"shmID", "\"0x80000000\"", INT32_MIN}, {"shmID", "\"0x100000001\"", 1}, {"shmID", "\"-1\"", -1},
        {"shmID", "\"zz\"", 0},
        // Beyond a long: strtol saturates, and the low half of LONG_MAX is all ones.
        {"shmID", "\"0xfffffffffffffffffffff\"", -1},
        // A number is read as its text, and that text as hex.
        {"shmID", "255", 0x255},
        // Below 1 (or unreadable) the extension length keeps its default.
        {"SCAN_EXTENSION_MAX_LEN", "0", 5}, {"SCAN_EXTENSION_MAX_LEN", "-3", 5}, {"SCAN_EXTENSION_MAX_LEN", "null", 5},
        {"SCAN_EXTENSION_MAX_LEN", "7", 7}, {"SCAN_EXTENSION_MAX_LEN", "\"12\"", 12},
        {"SCAN_EXTENSION_MAX_LEN", "1e12", INT32_MAX},
        // Only a value that reads as 1 turns the virus scan of extracted files off.
        {"SCANEXTRACT_NO_VIRUSSCAN", "\"1\"", 1}, {"SCANEXTRACT_NO_VIRUSSCAN", "true", 1},
        {"SCANEXTRACT_NO_VIRUSSCAN", "1.7", 1}, {"SCANEXTRACT_NO_VIRUSSCAN", "2", 0},
        {"SCANEXTRACT_NO_VIRUSSCAN", "-1", 0}, {"SCANEXTRACT_NO_VIRUSSCAN", "\"yes\"", 0},
        // A value that is there replaces a non-zero default, even with 0.
        {"SCANEXTRACT_DEPTH", "0", 0}, {"SCANEXTRACT_RATIO", "0", 0}, {"ENFORCE_MIME_POLICY_IN_ARCHIVES", "0", 0},
        // Numbers of any type, saturating at their width.
        {"ObjectLen", "\"12\"", 12}, {"ObjectLen", "3.9", 3}, {"ObjectLen", "true", 1}, {"ObjectLen", "[1]", 0},
        {"ObjectLen", "{\"a\": 1}", 0}, {"ObjectLen", "\"abc\"", 0}, {"ObjectLen", "NaN", 0}, {"ObjectLen", "null", 0},
        {"ObjectLen", "1e20", INT32_MAX}, {"ObjectLen", "99999999999999999999999", INT32_MAX},
        {"Recursion", "Infinity", INT32_MAX}, {"SCANTIMEOUT", "4294967296", INT32_MAX}, {"SCANTIMEOUT", "NaN", 0},
        {"PID", "9223372036854775807", INT64_MAX}, {"PID", "18446744073709551615", INT64_MAX},
        {"PID", "-9223372036854775809", INT64_MIN}, {"PID", "NaN", 0}, {"TID", "\"123456789012\"", 123456789012LL},
        // Size fields widen with their sign; SCAN_MAX_SIZE is a 32-bit member of the job.
        {"SCANEXTRACT_SIZE", "-1", static_cast<int64_t>(SIZE_MAX)},
        {"SCAN_MIN_SIZE", "-2", static_cast<int64_t>(SIZE_MAX - 1)}, {"SCAN_MAX_SIZE", "3000000000", INT32_MAX},
    };
    for (const auto& c : cases) {
        Parsed p = get_minimal_with(c.key, c.json);
        ASSERT_NE(nullptr, p.so) << c.key << "=" << c.json << ": " << p.err;
        EXPECT_EQ(c.want, field(p.so.get(), c.key)) << c.key << "=" << c.json;
    }
    Parsed mime0 = get_minimal_with("ENFORCE_MIME_POLICY_IN_ARCHIVES", "0");
    ASSERT_NE(nullptr, mime0.so);
    EXPECT_EQ(1, mime0.so->enforce_activecontent_policy_in_archives);
    EXPECT_EQ(SAFE, fq_worker_htmldetection_from_text(nullptr));
    EXPECT_EQ(0, fq_worker_shmid_from_text(nullptr));
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
    // ObjectLen is read before Services.
    fq_json_ptr job = parse(kMinimalJob);
    set(job.get(), "ObjectLen", "-1");
    set(job.get(), "Services", nullptr);
    EXPECT_EQ("Key ObjectLen found, but value -1 is negative", get(job.get()).err);
}

TEST(ScanJobParse, TextsOfAnyTypeAndLengthAreCopied)
{
    const struct {
        const char *key, *json, *want;
    } cases[] = {{"ObjectName", "42", "42"},
                 {"BLOCKEXTENSIONS", "{\"a\":[1,2]}", "{ \"a\": [ 1, 2 ] }"},
                 {"CLEANQUARANTINE", "null", ""}};
    for (const auto& c : cases) {
        Parsed p = get_minimal_with(c.key, c.json);
        ASSERT_NE(nullptr, p.so) << c.key;
        EXPECT_STREQ(c.want, text(p.so.get(), c.key)) << c.key;
    }

    const std::string big(1 << 20, 'x');
    fq_json_ptr job = parse(kMinimalJob);
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
    fq_json_ptr full = parse(kFullJob);
    size_t keys = 0, accepted = 0;
    json_object_object_foreach(full.get(), key, val)
    {
        (void)val;
        ++keys;
        for (const char* v : values) {
            fq_json_ptr job = parse(kFullJob);
            set(job.get(), key, v);
            Parsed p = get(job.get());
            if (p.so) {
                ++accepted;
                // Every text of an accepted record is there, and no budget went negative.
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
    EXPECT_EQ(44u, keys);
    EXPECT_GT(accepted, 0u);
}

TEST(ScanJobFree, ReleasesEverythingAndNullsThePointer)
{
    fq_worker_FreeScanObject(nullptr);
    fq_worker_scanobject_t* none = nullptr;
    fq_worker_FreeScanObject(&none);
    EXPECT_EQ(nullptr, none);

    fq_json_ptr job = parse(kFullJob);
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
