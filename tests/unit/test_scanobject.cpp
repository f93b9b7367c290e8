#include <gtest/gtest.h>
#include <json-c/json.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "fq_raii.h"
#include "fq_worker_scanobject.h"
#include "log.h"
#include "stderr_capture.h"

namespace {

// Only the mandatory members.
const char* const kMinimalJob = R"({
  "ObjectName": "a.txt", "Services": "fq-av-engine", "shmID": "0xffffffff", "realmID": "r",
  "EventID": "e", "Hostname": "h", "SID": "s", "HTMLDETECTION": "SAFE"
})";

// Mandatory members in the order the parser reads them.
const std::vector<std::string> kMandatory = {"ObjectName", "Services", "shmID", "realmID",
                                             "EventID",    "Hostname", "SID",   "HTMLDETECTION"};

struct Parsed {
    fq_json_ptr job;
    fq_scanobject_ptr so;
    std::string err;
};

// The minimal job with members set to the JSON values given (null: removed), parsed.
Parsed parse_with(const std::vector<std::pair<std::string, const char*>>& members)
{
    Parsed p{fq_json_ptr(json_tokener_parse(kMinimalJob)), nullptr, ""};
    for (const auto& [key, value] : members) {
        if (value)
            json_object_object_add(p.job.get(), key.c_str(), json_tokener_parse(value));
        else
            json_object_object_del(p.job.get(), key.c_str());
    }
    char err[1024] = "untouched";
    p.so.reset(fq_worker_GetScanJobDetails(p.job.get(), err));
    p.err = err;
    return p;
}

TEST(ScanJobParse, MandatoryMembersFailWhenAbsentEmptyOrNullAndTheFirstInReadingOrderIsNamed)
{
    for (const std::string& key : kMandatory) {
        for (const char* value : {static_cast<const char*>(nullptr), "\"\"", "null"}) {
            Parsed p = parse_with({{key, value}});
            EXPECT_EQ(nullptr, p.so) << key;
            EXPECT_EQ(value ? "Key " + key + " found, but value is empty" : "Failed to read " + key + " from JSON",
                      p.err);
        }
    }
    for (size_t i = 0; i < kMandatory.size(); ++i)
        for (size_t j = i + 1; j < kMandatory.size(); ++j)
            EXPECT_EQ("Key " + kMandatory[i] + " found, but value is empty",
                      parse_with({{kMandatory[j], nullptr}, {kMandatory[i], "\"\""}}).err)
                << kMandatory[i] << " before " << kMandatory[j];
    // No job, or one that is no object, fails on the first member; a null error buffer is allowed.
    char err[1024] = "";
    EXPECT_EQ(nullptr, fq_worker_GetScanJobDetails(nullptr, err));
    EXPECT_STREQ("Failed to read ObjectName from JSON", err);
    fq_json_ptr array(json_tokener_parse("[1, 2]"));
    EXPECT_EQ(nullptr, fq_worker_GetScanJobDetails(array.get(), nullptr));
}

// The members the scan reads from the record: numbers of any type, saturating at their width;
// a negative length, depth or budget fails the job, and ObjectLen is read before Services.
TEST(ScanJobParse, LengthDepthAndBudgetAreReadLenientlyButNeverNegative)
{
    auto field = [](const fq_worker_scanobject_t* so, const std::string& key) -> int64_t {
        return key == "ObjectLen"   ? static_cast<int64_t>(so->ObjectLen)
               : key == "Recursion" ? so->recursion_level
               : key == "SCANTIMEOUT" ? so->ScanConfig->ScanTimeout
                                      : so->SCANEXTRACT_DEPTH;
    };
    const struct {
        const char* key;
        const char* json;
        int64_t want;
    } cases[] = {
        {"ObjectLen", nullptr, 0}, {"ObjectLen", "\"12\"", 12}, {"ObjectLen", "3.9", 3}, {"ObjectLen", "true", 1},
        {"ObjectLen", "[1]", 0}, {"ObjectLen", "\"abc\"", 0}, {"ObjectLen", "NaN", 0}, {"ObjectLen", "null", 0},
        {"ObjectLen", "1e20", INT32_MAX}, {"ObjectLen", "99999999999999999999999", INT32_MAX},
        {"Recursion", "Infinity", INT32_MAX}, {"SCANTIMEOUT", "4294967296", INT32_MAX}, {"SCANTIMEOUT", "NaN", 0},
        // The depth has a default of its own, and a value that is there replaces it, even 0.
        {"SCANEXTRACT_DEPTH", nullptr, 20}, {"SCANEXTRACT_DEPTH", "0", 0}, {"SCANEXTRACT_DEPTH", "\"7\"", 7},
    };
    for (const auto& c : cases) {
        Parsed p = parse_with({{c.key, c.json}});
        ASSERT_NE(nullptr, p.so) << c.key << "=" << (c.json ? c.json : "absent") << ": " << p.err;
        EXPECT_EQ(c.want, field(p.so.get(), c.key)) << c.key << "=" << (c.json ? c.json : "absent");
    }
    for (const char* key : {"ObjectLen", "Recursion", "SCANTIMEOUT"}) {
        for (const char* value : {"-1", "-2147483648", "-1e30", "\"-5\""}) {
            Parsed p = parse_with({{key, value}});
            EXPECT_EQ(nullptr, p.so) << key << "=" << value;
            EXPECT_EQ(0u, p.err.find(std::string("Key ") + key + " found, but value -")) << p.err;
        }
    }
    EXPECT_EQ("Key ObjectLen found, but value -1 is negative", parse_with({{"ObjectLen", "-1"}, {"Services", nullptr}}).err);

    EXPECT_EQ(RESTRICTIVE, fq_worker_htmldetection_from_text("Restrictive"));
    EXPECT_EQ(SAFE, fq_worker_htmldetection_from_text(" svg"));
    EXPECT_EQ(SAFE, fq_worker_htmldetection_from_text(nullptr));
    EXPECT_EQ(-1, fq_worker_shmid_from_text("0XFFFFFFFF"));
    EXPECT_EQ(1, fq_worker_shmid_from_text("0x100000001"));
    EXPECT_EQ(0, fq_worker_shmid_from_text(nullptr));
}

TEST(ScanJobParse, TextsAreCopiesOfAnyValueAndTheJobIsLeftAlone)
{
    const std::string big(1 << 20, 'x');
    Parsed p = parse_with({{"ObjectName", "42"}, {"CLEANQUARANTINE", "{\"a\":[1,2]}"}});
    ASSERT_NE(nullptr, p.so) << p.err;
    EXPECT_STREQ("42", p.so->ObjectName);
    EXPECT_STREQ("{ \"a\": [ 1, 2 ] }", p.so->CLEANQUARANTINE);
    EXPECT_EQ(p.job.get(), p.so->scanjob_json);
    // A copy outlives a change of the job.
    json_object_object_add(p.job.get(), "ObjectName", json_object_new_string(big.c_str()));
    EXPECT_STREQ("42", p.so->ObjectName);
    EXPECT_STREQ("", parse_with({}).so->CLEANQUARANTINE);
    EXPECT_STREQ("", parse_with({{"CLEANQUARANTINE", "null"}}).so->CLEANQUARANTINE);
}

TEST(ScanJobParse, AbsentNumbersAreWarnedAboutAndAbsentTextsAreNot)
{
    log_reset_start_state();
    fqtest::StderrCapture cap;
    Parsed p = parse_with({});
    cap.stop();
    ASSERT_NE(nullptr, p.so) << p.err;
    for (const char* key : {"ObjectLen", "Recursion", "SCANEXTRACT_DEPTH", "SCANTIMEOUT", "PID"})
        EXPECT_EQ(1, cap.count(std::string("(): Object ") + key + " not found ")) << key;
    for (const char* key : {"CLEANQUARANTINE", "BLOCKEXTENSIONS", "MIME-type", "SCAN_EXTENSION_MAX_LEN"})
        EXPECT_EQ(0, cap.count(key)) << key;
}

TEST(ScanJobParse, HostileValuesInEveryMemberNeverCrash)
{
    const char* values[] = {"null", "[]", "{}", "[{\"x\": [1, {\"y\": null}]}]", "NaN", "-Infinity", "1e308",
                            "\"\"", "true", "-9223372036854775808", "18446744073709551615", "\"\\u0000abc\""};
    const char* keys[] = {"ObjectName", "ObjectLen", "Services", "Recursion", "shmID", "SCANEXTRACT_DEPTH",
                          "SCANEXTRACT_SIZE", "SCAN_EXTENSION_MAX_LEN", "BLOCKEXTENSIONS", "realmID", "CLEANQUARANTINE",
                          "PID", "SCAN_MAX_SIZE", "HTMLDETECTION", "SCANTIMEOUT", "SCANBANDWIDTH"};
    size_t accepted = 0;
    for (const char* key : keys) {
        for (const char* v : values) {
            Parsed p = parse_with({{key, v}});
            if (!p.so) {
                EXPECT_NE("untouched", p.err) << key << "=" << v;
                continue;
            }
            ++accepted;
            // Every text of an accepted record is there, and no budget went negative.
            EXPECT_NE(nullptr, p.so->ObjectName);
            EXPECT_NE(nullptr, p.so->CLEANQUARANTINE);
            EXPECT_GE(p.so->recursion_level, 0);
            EXPECT_GE(p.so->ScanConfig->ScanTimeout, 0);
        }
    }
    EXPECT_GT(accepted, 0u);
}

TEST(ScanJobFree, ReleasesEverythingAndNullsThePointer)
{
    fq_worker_FreeScanObject(nullptr);
    fq_worker_scanobject_t* so = nullptr;
    fq_worker_FreeScanObject(&so);
    Parsed p = parse_with({});
    so = p.so.release();
    // Set the way a later step could: the free takes these along (the leak checker sees if not).
    so->ActiveContent->CSV_injection_regex = strdup("^[=+-@]");
    so->sid = strdup("sid");
    fq_worker_FreeScanObject(&so);
    EXPECT_EQ(nullptr, so);
    // A record with only some parts, as a failed read leaves it.
    so = static_cast<fq_worker_scanobject_t*>(calloc(1, sizeof(fq_worker_scanobject_t)));
    so->ObjectName = strdup("x");
    fq_worker_FreeScanObject(&so);
    EXPECT_EQ(nullptr, so);
}

}  // namespace
