#include <gtest/gtest.h>

#include <string.h>

#include <string>
#include <vector>

#include "fq_nats_names.h"
#include "fq_worker_RecursiveScan.h"

namespace {

struct NameCase {
    std::string text;
    fq_nats_name_kind kind;
    const char* why;  // null: accepted
};

TEST(NatsNames, OnlyNamesTheProtocolCannotMisreadPass)
{
    const std::vector<NameCase> cases = {
        {"fq-av-mimescan", FQ_NAME_SERVICE, nullptr},
        {"fq-av-scanproxy.vm_1234", FQ_NAME_SERVICE, nullptr},
        {"fq-av-quarantine.key_1", FQ_NAME_SERVICE, nullptr},
        {std::string(255, 's'), FQ_NAME_SERVICE, nullptr},
        {std::string(256, 's'), FQ_NAME_SERVICE, "is longer than 255 characters"},
        {"", FQ_NAME_SERVICE, "is empty"},
        {"x 0\r\n\r\nPUB probe.injected 11\r\nhello-world\r\nPUB y", FQ_NAME_SERVICE,
         "contains whitespace or a control character"},
        {"a\tb", FQ_NAME_SERVICE, "contains whitespace or a control character"},
        {"caf\xc3\xa9", FQ_NAME_SERVICE, "contains whitespace or a control character"},
        {"probe.*", FQ_NAME_SERVICE, "contains a wildcard"},
        {"probe.>", FQ_NAME_SERVICE, "contains a wildcard"},
        {"$JS.API.STREAM.DELETE.x", FQ_NAME_SERVICE, "names a system subject"},
        {"_INBOX.abc", FQ_NAME_SERVICE, "names a reply inbox"},
        {"_INBOXES", FQ_NAME_SERVICE, nullptr},
        {"a..b", FQ_NAME_SERVICE, "has an empty token"},
        {".a", FQ_NAME_SERVICE, "has an empty token"},
        {"a\"b", FQ_NAME_SERVICE, "contains a character not allowed in a service name"},
        {"_INBOX.Xy12.7", FQ_NAME_REPLY, nullptr},
        {"$KV.fq-av-worker-registry.forged", FQ_NAME_REPLY, "names a system subject"},
        {"_INBOX.a b", FQ_NAME_REPLY, "contains whitespace or a control character"},
        {"_INBOX.*", FQ_NAME_REPLY, "contains a wildcard"},
        {"scan-1a2b-7f00-99", FQ_NAME_KV_KEY, nullptr},
        {"a/b=c_d.e", FQ_NAME_KV_KEY, nullptr},
        {std::string(200, 'k'), FQ_NAME_KV_KEY, nullptr},
        {std::string(201, 'k'), FQ_NAME_KV_KEY, "is longer than 200 characters"},
        {std::string(4000, 'k'), FQ_NAME_KV_KEY, "is longer than 200 characters"},
        {"k*", FQ_NAME_KV_KEY, "contains a character not allowed in a key"},
        {"k.", FQ_NAME_KV_KEY, "has an empty token"},
    };
    for (const NameCase& c : cases) {
        SCOPED_TRACE(fq_nats_printable(c.text.c_str()));
        char why[128] = "";
        EXPECT_EQ(c.why ? -1 : 0, fq_nats_check_name(c.text.c_str(), c.kind, why, sizeof(why)));
        EXPECT_STREQ(c.why ? c.why : "", why);
    }
    EXPECT_EQ(-1, fq_nats_check_name(nullptr, FQ_NAME_KV_KEY, nullptr, 0));
}

TEST(NatsNames, PrintableFormShowsWhatWasSentWithoutCarryingIt)
{
    EXPECT_EQ("x\\x0d\\x0aPUB", fq_nats_printable("x\r\nPUB"));
    EXPECT_EQ("a\\x5cb", fq_nats_printable("a\\b"));
    EXPECT_EQ("abc...", fq_nats_printable("abcdef", 3));
    EXPECT_EQ("(null)", fq_nats_printable(nullptr));
}

TEST(NatsNames, EveryLinkOfAServiceChainIsChecked)
{
    char error[1024] = "";
    EXPECT_EQ(0, fq_worker_check_services("fq-av-mimescan;fq-av-a+b+c;fq-av-x+;;", error));
    EXPECT_EQ(0, fq_worker_check_services("fq-av-scanproxy;FQ-AV-CLOUDSCAN", error));  // skipped, never asked
    EXPECT_EQ(-1, fq_worker_check_services("fq-av-a+b c", error));
    EXPECT_STREQ("Scan request refused: Services entry 'fq-av-b c' contains whitespace or a control character", error);
    EXPECT_EQ(-1, fq_worker_check_services("fq-av-ok;[ 1, 2 ]", error));
    EXPECT_NE(nullptr, strstr(error, "'[ 1, 2 ]'"));
    EXPECT_EQ(-1, fq_worker_check_services("fq-av-a+$x", error));
    EXPECT_NE(nullptr, strstr(error, "fq-av-$x"));
}

}  // namespace
