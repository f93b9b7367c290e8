#include <gtest/gtest.h>
#include <json-c/json.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <string>
#include <vector>

#include "fq_raii.h"
#include "fq_request_reply_types.h"
#include "fq_worker_forward_job.h"
#include "fq_worker_scanobject.h"
#include "log.h"
#include "json_util.h"
#include "stderr_capture.h"

namespace {

// Members in an order unlike the forwarded one, with members that must not be carried over.
const char* const kFullJob = R"({
  "Unknown": "x", "SCAN_EXTENSION_MAX_LEN": -3, "SCAN_MAX_SIZE": 100000, "SCAN_MIN_SIZE": "10",
  "SCANEXTRACT_NO_VIRUSSCAN": 2, "SCANEXTRACT_RATIO": 77, "SCANEXTRACT_SIZE": 6000000000,
  "SCANEXTRACT_MAX_FILES": 5000000000, "SCANEXTRACT_DEPTH": 14, "SCANEXTRACT": 13, "SCANALLFILES": 1,
  "SCANBESTEFFORT": 0, "EVENT_ID_DELIMITER": "|", "INCLUDE_EVENT_ID_IN_MESSAGE": 1,
  "CLEANQUARANTINE": "fq-av-quarantine.k1:secret", "LONGMIMETYPES": 28, "SVG_MODE": "TEXT", "XML_MODE": "XML",
  "HTMLDETECTION": "Restrictive", "SCANXMLCONTENT": 27, "SCANUUENCODED": 26, "SCANBASE64": 25,
  "BLOCKHTML_IN_PDF": 24, "BLOCKENCRYPTED": 23, "BLOCKEXTENSIONS": "exe,com", "SCANEXTENSIONS": "pdf",
  "BLOCKMIMETYPES": "application/x-dosexec", "SCANMIMETYPES": "application/pdf", "CUST_CLEAN": 1,
  "CUST_ACTIVE_CONTENT": 12, "ENFORCE_MIME_EXTENSION_MATCH": 21, "CUST_CHECK_MIME_TYPE": 11,
  "ENFORCE_ACTIVECONTENT_POLICY_IN_ARCHIVES": 3, "ENFORCE_MIME_POLICY_IN_ARCHIVES": 2, "SCANBANDWIDTH": 31,
  "SCANTIMEOUT": 30000, "SCANALLEMBEDDED": 1, "ObjectLen": 4, "ObjectName": "client-name.pdf", "shmID": "0x1f",
  "Recursion": 2, "Scan-Servers": "nats://10.0.0.1:4222", "Services": "fq-av-mimescan;fq-av-scanproxy;fq-av-engine+",
  "EventID": "ev-42", "Hostname": "client.example.org", "SID": "S01", "realmID": "realm-1", "Command": 102,
  "PID": 77, "TID": 78, "REQUIRE_EXTENSION": 1, "MIME-type": "text/plain", "File-type": "ASCII text",
  "Extension": "txt"
})";

// The forwarded text of kFullJob: pretty, one member per line in the fixed order, "/" escaped.
const std::string kFullForwarded =
    "{\n  \"Command\":102,\n  \"realmID\":\"realm-1\",\n  \"SID\":\"S01\",\n  \"Hostname\":\"client.example.org\",\n"
    "  \"EventID\":\"ev-42\",\n  \"Services\":\"fq-av-mimescan;fq-av-scanproxy;fq-av-engine+\",\n"
    "  \"Scan-Servers\":\"nats:\\/\\/10.0.0.1:4222\",\n  \"Recursion\":2,\n  \"shmID\":\"0xffffffff\",\n"
    "  \"ObjectName\":\"dir\\/invoice.pdf\",\n  \"ObjectLen\":5000000000,\n  \"SCANALLEMBEDDED\":1,\n"
    "  \"SCANTIMEOUT\":30000,\n  \"SCANBANDWIDTH\":31,\n  \"ENFORCE_MIME_POLICY_IN_ARCHIVES\":2,\n"
    "  \"ENFORCE_ACTIVECONTENT_POLICY_IN_ARCHIVES\":3,\n  \"CUST_CHECK_MIME_TYPE\":11,\n"
    "  \"ENFORCE_MIME_EXTENSION_MATCH\":21,\n  \"CUST_ACTIVE_CONTENT\":12,\n  \"CUST_CLEAN\":1,\n"
    "  \"SCANMIMETYPES\":\"application\\/pdf\",\n  \"BLOCKMIMETYPES\":\"application\\/x-dosexec\",\n"
    "  \"SCANEXTENSIONS\":\"pdf\",\n  \"BLOCKEXTENSIONS\":\"exe,com\",\n  \"BLOCKENCRYPTED\":23,\n"
    "  \"BLOCKHTML_IN_PDF\":24,\n  \"SCANBASE64\":25,\n  \"SCANUUENCODED\":26,\n  \"SCANXMLCONTENT\":27,\n"
    "  \"HTMLDETECTION\":\"Restrictive\",\n  \"XML_MODE\":\"XML\",\n  \"SVG_MODE\":\"TEXT\",\n"
    "  \"LONGMIMETYPES\":28,\n  \"CLEANQUARANTINE\":\"fq-av-quarantine.k1:secret\",\n"
    "  \"INCLUDE_EVENT_ID_IN_MESSAGE\":1,\n  \"EVENT_ID_DELIMITER\":\"|\",\n  \"SCANBESTEFFORT\":0,\n"
    "  \"SCANALLFILES\":1,\n  \"SCANEXTRACT\":13,\n  \"SCANEXTRACT_DEPTH\":14,\n"
    "  \"SCANEXTRACT_MAX_FILES\":2147483647,\n  \"SCANEXTRACT_SIZE\":2147483647,\n  \"SCANEXTRACT_RATIO\":77,\n"
    "  \"SCANEXTRACT_NO_VIRUSSCAN\":2,\n  \"SCAN_MIN_SIZE\":10,\n  \"SCAN_MAX_SIZE\":100000,\n"
    "  \"SCAN_EXTENSION_MAX_LEN\":-3\n}";

// What parsing and forwarding need, and nothing else.
const char* const kSparseJob = R"({
  "ObjectName": "a.txt", "Services": "fq-av-engine", "shmID": "1", "realmID": "r", "EventID": "e",
  "Hostname": "h", "SID": "s", "HTMLDETECTION": "off", "Scan-Servers": "srv", "XML_MODE": "x",
  "SVG_MODE": "v", "EVENT_ID_DELIMITER": ";"
})";

// A client's job, parsed and prepared the way request handling hands it to the driver.
struct Job {
    fq_json_ptr json;
    fq_scanobject_ptr so;

    explicit Job(const char* text) : json(json_tokener_parse(text)) { EXPECT_NE(nullptr, json.get()) << text; }
    // Sets key to the JSON value written in value_json (or removes it when value_json is null).
    void with(const std::string& key, const char* value_json)
    {
        json_object* v = value_json ? json_tokener_parse(value_json) : nullptr;
        EXPECT_TRUE(!value_json || v || strcmp(value_json, "null") == 0) << value_json;
        if (value_json)
            json_object_object_add(json.get(), key.c_str(), v);
        else
            json_object_object_del(json.get(), key.c_str());
    }
    fq_worker_scanobject_t* parsed()
    {
        char err[1024] = "";
        so.reset(fq_worker_GetScanJobDetails(json.get(), err));
        EXPECT_NE(nullptr, so.get()) << err;
        if (so)
            so->recursion_level--;
        return so.get();
    }
};

struct Encoded {
    int rc = 0;
    fq_json_ptr json{json_object_new_object()};
    std::string text, err;
    bool text_set = false;
};

Encoded encode(const fq_worker_scanobject_t* so, const char* filename = "a.txt", size_t len = 0, int shmid = -1)
{
    Encoded e;
    const char* txt = nullptr;
    char err[1024] = "";
    e.rc = fq_worker_encodescanjobtoJSON(e.json.get(), so, filename, len, &txt, shmid, err);
    e.err = err;
    e.text_set = txt != nullptr;
    e.text = txt ? txt : "";
    return e;
}

json_object* member(const Encoded& e, const char* key)
{
    json_object* v = nullptr;
    return json_object_object_get_ex(e.json.get(), key, &v) ? v : nullptr;
}

TEST(ForwardJob, FullJobGivesTheWholeTextInItsOwnOrder)
{
    Job job(kFullJob);
    fq_worker_scanobject_t* so = job.parsed();
    ASSERT_NE(nullptr, so);
    // The record kept its own readings; the forwarded job carries the client's values.
    EXPECT_EQ(5u, so->SCAN_EXTENSION_MAX_LEN);
    EXPECT_FALSE(so->SCANEXTRACT_NO_VIRUSSCAN);
    const std::string before = json_object_to_json_string_ext(job.json.get(), JSON_C_TO_STRING_PLAIN);

    Encoded e = encode(so, "dir/invoice.pdf", 5000000000ULL);
    ASSERT_EQ(0, e.rc) << e.err;
    EXPECT_EQ(kFullForwarded, e.text);
    EXPECT_EQ(before, json_object_to_json_string_ext(job.json.get(), JSON_C_TO_STRING_PLAIN));
}

TEST(ForwardJob, AbsentMembersGoOutAsZeroOrEmptyWithoutTheRecordDefaultsAndWarnings)
{
    Job full(kFullJob);
    Job job(kSparseJob);
    fq_worker_scanobject_t* so = job.parsed();
    ASSERT_NE(nullptr, so);
    EXPECT_EQ(20, so->SCANEXTRACT_DEPTH);

    log_reset_start_state();
    fqtest::StderrCapture cap;
    Encoded e = encode(so);
    cap.stop();
    ASSERT_EQ(0, e.rc) << e.err;
    // The members of a full job but the optional one, in the same order.
    std::vector<std::string> keys = fqtest::Json(encode(full.parsed()).text).keys();
    keys.erase(std::find(keys.begin(), keys.end(), "SCAN_EXTENSION_MAX_LEN"));
    const fqtest::Json out(e.text);
    ASSERT_EQ(keys, out.keys());
    const fqtest::Json in(kSparseJob);
    for (const std::string& key : keys) {
        json_object* v = out.get(key.c_str());
        if (in.has(key.c_str()) || key == "shmID" || key == "ObjectName")
            continue;
        if (json_object_is_type(v, json_type_int)) {
            EXPECT_EQ(0, json_object_get_int64(v)) << key;
            // Absent numbers are worth a warning, except the ones the driver works out.
            if (key != "Recursion" && key != "ObjectLen") {
                EXPECT_TRUE(cap.contains("(): Object " + key + " not found ")) << key;
            }
        } else {
            EXPECT_STREQ("", json_object_get_string(v)) << key;
            EXPECT_FALSE(cap.contains(key)) << key;
        }
    }
}

TEST(ForwardJob, MandatoryForwardingMembersFailInTheirOrder)
{
    const std::vector<std::string> mandatory = {"realmID",  "SID",           "Hostname", "EventID",  "Services",
                                                "Scan-Servers", "HTMLDETECTION", "XML_MODE", "SVG_MODE",
                                                "EVENT_ID_DELIMITER"};
    for (const std::string& key : mandatory) {
        for (const char* value : {static_cast<const char*>(nullptr), "\"\"", "null"}) {
            Job job(kFullJob);
            fq_worker_scanobject_t* so = job.parsed();
            ASSERT_NE(nullptr, so);
            // Taken away after parsing, as a later reader of the job would see it.
            job.with(key, value);
            Encoded e = encode(so);
            EXPECT_EQ(SERVICE_ERROR, e.rc) << key;
            EXPECT_FALSE(e.text_set) << key;
            EXPECT_EQ(value ? "Key " + key + " found, but value is empty" : "Failed to read " + key + " from JSON",
                      e.err);
            // What came before stays in the object; the failed member and the rest are not there.
            EXPECT_NE(nullptr, member(e, "Command")) << key;
            EXPECT_EQ(nullptr, member(e, key.c_str())) << key;
            EXPECT_EQ(nullptr, member(e, "SCAN_MAX_SIZE")) << key;
        }
    }
}

TEST(ForwardJob, NumbersSaturateToThirtyTwoBits)
{
    const struct {
        const char* json;
        int32_t want;
    } cases[] = {
        {"2147483647", INT32_MAX}, {"2147483648", INT32_MAX},        {"-2147483648", INT32_MIN},
        {"-2147483649", INT32_MIN}, {"18446744073709551615", INT32_MAX}, {"-9223372036854775808", INT32_MIN},
        {"\"3000000000\"", INT32_MAX}, {"\"-3000000000\"", INT32_MIN}, {"1e20", INT32_MAX},
        {"-1e20", INT32_MIN},       {"Infinity", INT32_MAX},         {"NaN", 0},
        {"2.9", 2},                 {"true", 1},                     {"\"abc\"", 0},
        {"[5]", 0},                 {"null", 0},
    };
    for (const char* key : {"SCANEXTRACT_SIZE", "Command", "SCAN_EXTENSION_MAX_LEN"}) {
        for (const auto& c : cases) {
            Job job(kFullJob);
            job.with(key, c.json);
            Encoded e = encode(job.parsed());
            ASSERT_EQ(0, e.rc) << e.err;
            json_object* v = member(e, key);
            ASSERT_NE(nullptr, v) << key << "=" << c.json;
            EXPECT_TRUE(json_object_is_type(v, json_type_int)) << key << "=" << c.json;
            EXPECT_EQ(c.want, json_object_get_int64(v)) << key << "=" << c.json;
        }
    }
}

TEST(ForwardJob, WorkedOutMembers)
{
    // Whatever shmID the client sent, the driver's -1 goes out as all ones; other values as hex.
    const std::pair<int, const char*> shm[] = {
        {-1, "0xffffffff"}, {0, "0x0"}, {255, "0xff"}, {INT32_MIN, "0x80000000"}, {-2, "0xfffffffe"}};
    for (const auto& c : shm) {
        Job job(kFullJob);
        Encoded e = encode(job.parsed(), "n", 0, c.first);
        ASSERT_EQ(0, e.rc);
        EXPECT_STREQ(c.second, json_object_get_string(member(e, "shmID")));
    }

    // Recursion is the lowered level plus one: the client's value, or 0; the top value cannot wrap.
    const std::pair<const char*, int32_t> rec[] = {{"0", 0}, {"21", 21}, {nullptr, 0}, {"2147483647", INT32_MAX}};
    for (const auto& c : rec) {
        Job job(kFullJob);
        job.with("Recursion", c.first);
        Encoded e = encode(job.parsed());
        ASSERT_EQ(0, e.rc);
        EXPECT_EQ(c.second, json_object_get_int(member(e, "Recursion"))) << (c.first ? c.first : "absent");
    }
    Job top(kFullJob);
    fq_worker_scanobject_t* so = top.parsed();
    ASSERT_NE(nullptr, so);
    so->recursion_level = INT32_MAX;
    EXPECT_EQ(INT32_MAX, json_object_get_int(member(encode(so), "Recursion")));

    // ObjectLen is an unsigned 64-bit number, whatever the size.
    Encoded big = encode(so, "n", SIZE_MAX);
    ASSERT_EQ(0, big.rc);
    EXPECT_NE(std::string::npos, big.text.find("\"ObjectLen\":18446744073709551615,"));

    // A text member of another type goes out as its JSON text; a long one whole.
    Job other(kFullJob);
    other.with("HTMLDETECTION", "5");
    other.with("XML_MODE", "{\"a\":1}");
    const std::string longtext(100000, 'y');
    json_object_object_add(other.json.get(), "BLOCKEXTENSIONS", json_object_new_string(longtext.c_str()));
    Encoded e = encode(other.parsed());
    ASSERT_EQ(0, e.rc);
    EXPECT_STREQ("5", json_object_get_string(member(e, "HTMLDETECTION")));
    EXPECT_STREQ("{ \"a\": 1 }", json_object_get_string(member(e, "XML_MODE")));
    EXPECT_EQ(longtext, json_object_get_string(member(e, "BLOCKEXTENSIONS")));
}

TEST(ForwardJob, SilentTextsAndTheOptionalMember)
{
    // Present, even as null, the optional member goes out; absent, it does not.
    const struct {
        const char* json;
        size_t members;
    } cases[] = {{"0", 47}, {"null", 47}, {nullptr, 46}};
    for (const auto& c : cases) {
        Job job(kFullJob);
        job.with("CLEANQUARANTINE", "null");
        job.with("SCAN_EXTENSION_MAX_LEN", c.json);
        Encoded e = encode(job.parsed());
        ASSERT_EQ(0, e.rc);
        EXPECT_STREQ("", json_object_get_string(member(e, "CLEANQUARANTINE")));
        EXPECT_EQ(c.members, static_cast<size_t>(json_object_object_length(e.json.get()))) << c.json;
        EXPECT_EQ(c.json != nullptr, member(e, "SCAN_EXTENSION_MAX_LEN") != nullptr) << c.json;
    }
}

TEST(ForwardJob, BadArgumentsFailClosed)
{
    Job job(kFullJob);
    fq_worker_scanobject_t* so = job.parsed();
    ASSERT_NE(nullptr, so);
    const char* txt = "unchanged";
    char err[1024] = "";
    fq_json_ptr obj(json_object_new_object());
    EXPECT_EQ(SERVICE_ERROR, fq_worker_encodescanjobtoJSON(nullptr, so, "n", 1, &txt, -1, err));
    EXPECT_EQ(SERVICE_ERROR, fq_worker_encodescanjobtoJSON(obj.get(), nullptr, "n", 1, &txt, -1, err));
    EXPECT_EQ(SERVICE_ERROR, fq_worker_encodescanjobtoJSON(obj.get(), so, nullptr, 1, &txt, -1, err));
    EXPECT_EQ(SERVICE_ERROR, fq_worker_encodescanjobtoJSON(obj.get(), so, "n", 1, nullptr, -1, nullptr));
    fq_json_ptr array(json_object_new_array());
    EXPECT_EQ(SERVICE_ERROR, fq_worker_encodescanjobtoJSON(array.get(), so, "n", 1, &txt, -1, err));
    so->scanjob_json = nullptr;
    EXPECT_EQ(SERVICE_ERROR, fq_worker_encodescanjobtoJSON(obj.get(), so, "n", 1, &txt, -1, err));
    EXPECT_STREQ("unchanged", txt);
    EXPECT_STRNE("", err);
    EXPECT_EQ(0, json_object_object_length(obj.get()));
}

TEST(ForwardJobMime, MembersAreAddedAtTheEndAndTheTextIsRewritten)
{
    Job job(kSparseJob);
    Encoded e = encode(job.parsed());
    ASSERT_EQ(0, e.rc);
    const size_t members = json_object_object_length(e.json.get());
    const char* txt = nullptr;
    char err[1024] = "";
    // A second MIME service replaces the members in place; null texts go out empty.
    for (const char* encoding : {"binary", static_cast<const char*>(nullptr)}) {
        ASSERT_EQ(0, fq_worker_add_mime_to_scanjob(e.json.get(), "application/pdf", encoding, "PDF document", "pdf",
                                                   &txt, err));
        ASSERT_NE(nullptr, txt);
        EXPECT_EQ(json_object_to_json_string_ext(e.json.get(), FQ_FORWARD_JOB_TEXT_FLAGS), std::string(txt));
        const std::vector<std::string> keys = fqtest::Json(txt).keys();
        ASSERT_EQ(members + 4, keys.size());
        EXPECT_EQ((std::vector<std::string>{"MIME-type", "MIME-encoding", "File-type", "Extension"}),
                  std::vector<std::string>(keys.end() - 4, keys.end()));
        EXPECT_EQ(encoding ? encoding : "", fqtest::Json(txt).str("MIME-encoding"));
    }
    EXPECT_NE(std::string::npos, std::string(txt).find("\"MIME-type\":\"application\\/pdf\",\n"));

    txt = "unchanged";
    EXPECT_EQ(SERVICE_ERROR, fq_worker_add_mime_to_scanjob(nullptr, "a", "b", "c", "d", &txt, err));
    EXPECT_STREQ("Failed to update scan request with MIME-scan results", err);
    EXPECT_STREQ("unchanged", txt);
}

}  // namespace
