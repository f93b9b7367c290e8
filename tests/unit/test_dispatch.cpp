#include <gtest/gtest.h>
#include <json-c/json.h>

#include <stdlib.h>
#include <string.h>

#include <string>

#include "fq_worker.h"
#include "fqhlp_replies.h"

namespace {

// A worker thread record as the serving threads hand it to the handler.
struct Worker {
    fq_worker_config_t cfg{};
    fq_service_description_t desc{};
    fq_thread_global_params_t global{};
    fq_thread_local_params_t local{};
    fq_worker_thread_t thread{};

    Worker()
    {
        desc.service_name = const_cast<char*>("Scan proxy");
        desc.service_major_version = 2;
        desc.service_minor_version = 1;
        desc.update_time = 1700000000;
        global.config = &cfg;
        global.serviceDescription = &desc;
        thread.global_parameters = &global;
        thread.thread_local_parameters = &local;
        thread.currentstatus = STARTING;
        thread.targetstatus = READY;
    }
};

struct Reply {
    int rc = 0;
    std::string text;
};

Reply s_handle(Worker& w, const char* json, const unsigned char* data = nullptr, size_t data_len = 0)
{
    fq_const_message_t request{json, data, data_len, nullptr};
    fq_message_t reply{};
    fq_const_request_reply_t rr{&request, &reply};
    Reply r;
    r.rc = fq_worker_client_request_handler(&w.thread, &rr);
    r.text = reply.json_txt ? reply.json_txt : "";
    free(reply.json_txt);
    return r;
}

int s_return_code(const std::string& text)
{
    json_object* obj = json_tokener_parse(text.c_str());
    EXPECT_NE(nullptr, obj) << text;
    json_object* rc = nullptr;
    int value = 12345;
    if (obj && json_object_object_get_ex(obj, "ReturnCode", &rc))
        value = json_object_get_int(rc);
    json_object_put(obj);
    return value;
}

std::string s_error_text(const std::string& text)
{
    json_object* obj = json_tokener_parse(text.c_str());
    json_object* err = nullptr;
    std::string value;
    if (obj && json_object_object_get_ex(obj, "Error", &err))
        value = json_object_get_string(err);
    json_object_put(obj);
    return value;
}

TEST(Dispatch, PingAndUnknownCommandsAreAnsweredZero)
{
    Worker w;
    EXPECT_EQ("{\"ReturnCode\": 0}", s_handle(w, "{\"Command\": 3}").text);
    EXPECT_EQ("{\"ReturnCode\": 0}", s_handle(w, "{\"Command\": 7}").text);
    EXPECT_EQ("{\"ReturnCode\": 0}", s_handle(w, "{\"NoCommand\": true}").text);
    EXPECT_EQ(STARTING, w.thread.currentstatus);
}

TEST(Dispatch, TextThatIsNoJsonObjectGetsMinusOne)
{
    Worker w;
    for (const char* bad : {"{\"Command\": 10", "not json", "", "[1,2]", "42"}) {
        Reply r = s_handle(w, bad);
        EXPECT_EQ(-1, r.rc) << bad;
        EXPECT_EQ("{\"ReturnCode\": -1}", r.text) << bad;
    }
}

TEST(Dispatch, MissingRequestOrReplySlotDoesNotCrash)
{
    Worker w;
    EXPECT_EQ(-1, fq_worker_client_request_handler(&w.thread, nullptr));
    fq_message_t reply{};
    fq_const_request_reply_t no_request{nullptr, &reply};
    EXPECT_EQ(-1, fq_worker_client_request_handler(&w.thread, &no_request));
    EXPECT_STREQ("{\"ReturnCode\": -1}", reply.json_txt);
    free(reply.json_txt);
    fq_const_message_t request{"{\"Command\": 3}", nullptr, 0, nullptr};
    fq_const_request_reply_t no_reply{&request, nullptr};
    EXPECT_EQ(0, fq_worker_client_request_handler(&w.thread, &no_reply));
}

TEST(Dispatch, ServiceInfoReplyHasItsMembersInOrder)
{
    Worker w;
    Reply r = s_handle(w, "{\"Command\": 1}");
    EXPECT_EQ("{ \"ReturnCode\": 0, \"MajorVersion\": 2, \"MinorVersion\": 1, \"NumberOfViruses\": 0, "
              "\"NumberOfVariants\": 0, \"Timestamp\": 1700000000, \"DriverName\": \"Scan proxy\" }",
              r.text);
    EXPECT_EQ(READY, w.thread.currentstatus);

    // Without a description there is nothing to describe: the generic reply, not a crash.
    Worker bare;
    bare.global.serviceDescription = nullptr;
    EXPECT_EQ("{\"ReturnCode\": 0}", s_handle(bare, "{\"Command\": 1}").text);
    EXPECT_EQ(STARTING, bare.thread.currentstatus);
}

TEST(Dispatch, DeclaredLengthMustMatchTheData)
{
    Worker w;
    const unsigned char six[] = "abcdef";
    for (const char* job : {"{\"Command\": 101, \"ObjectLen\": 5, \"EventID\": \"e1\"}",
                            "{\"Command\": 102, \"ObjectLen\": -1, \"EventID\": \"e1\"}",
                            "{\"Command\": 101, \"EventID\": \"e1\"}"}) {
        Reply r = s_handle(w, job, six, 6);
        EXPECT_EQ(SERVICE_ERROR, r.rc) << job;
        EXPECT_EQ(SERVICE_ERROR, s_return_code(r.text)) << job;
        EXPECT_EQ("Scan request rejected: declared object length does not match the received data",
                  s_error_text(r.text));
    }
    Reply missing = s_handle(w, "{\"Command\": 101, \"ObjectLen\": 5, \"EventID\": \"e1\"}");
    EXPECT_EQ(SERVICE_ERROR, s_return_code(missing.text));
    EXPECT_EQ("Scan request rejected: object data missing", s_error_text(missing.text));
    EXPECT_EQ(STARTING, w.thread.currentstatus);
}

TEST(Dispatch, ScanNeedsAnEventId)
{
    Worker w;
    Reply absent = s_handle(w, "{\"Command\": 101, \"ObjectLen\": 0}");
    EXPECT_EQ(-1, absent.rc);
    EXPECT_EQ("{\"ReturnCode\": -1}", absent.text);
    Reply empty = s_handle(w, "{\"Command\": 101, \"ObjectLen\": 0, \"EventID\": \"\"}");
    EXPECT_EQ("{\"ReturnCode\": -1}", empty.text);
    EXPECT_EQ(STARTING, w.thread.currentstatus);  // never became BUSY
}

TEST(Dispatch, ScanThatPassesTheChecksIsNeverAnsweredClean)
{
    Worker w;
    const unsigned char data[] = "hello";
    for (Reply r : {s_handle(w, "{\"Command\": 101, \"ObjectLen\": 0, \"EventID\": \"e2\"}"),
                    s_handle(w, "{\"Command\": 101, \"ObjectLen\": 5, \"EventID\": \"e3\"}", data, 5)}) {
        EXPECT_NE(0, r.rc);
        const int code = s_return_code(r.text);
        EXPECT_NE(SCAN_RECURSIVE_OK, code);
        EXPECT_NE(SCAN_OK, code);
        // The handler's own reply stands; the generic reply would carry no error text.
        EXPECT_FALSE(s_error_text(r.text).empty()) << r.text;
    }
    EXPECT_EQ(READY, w.thread.currentstatus);
}

TEST(Replies, ExactTexts)
{
    char* text = nullptr;
    ASSERT_EQ(0, fq_reply_set_OK(&text));
    EXPECT_STREQ("{\"ReturnCode\": 0}", text);
    free(text);
    ASSERT_EQ(0, fq_reply_set_return_code(&text, -199));
    EXPECT_STREQ("{\"ReturnCode\": -199}", text);
    free(text);
    ASSERT_EQ(0, fq_reply_set_ERROR(&text, -1000, "plain words"));
    const std::string prefix = "{\"ReturnCode\": -1000, \"Error\": \"plain words\", \"WorkerHostname\": \"";
    EXPECT_EQ(prefix, std::string(text).substr(0, prefix.size()));
    free(text);
}

TEST(Replies, ErrorTextIsEscaped)
{
    const char* nasty = "a \"quoted\" back\\slash\nnew line \x01 and / slash";
    char* text = nullptr;
    ASSERT_EQ(0, fq_reply_set_ERROR(&text, -1000, nasty));
    EXPECT_EQ(-1000, s_return_code(text));
    EXPECT_EQ(nasty, s_error_text(text));
    free(text);
    // A -1000 never goes out without words; other codes may.
    ASSERT_EQ(0, fq_reply_set_ERROR(&text, -1000, nullptr));
    EXPECT_FALSE(s_error_text(text).empty());
    free(text);
    ASSERT_EQ(0, fq_reply_set_ERROR(&text, -200, ""));
    EXPECT_EQ("", s_error_text(text));
    free(text);
}

class ServiceName : public ::testing::Test {
protected:
    void SetUp() override
    {
        unsetenv("FQ_CLOUD_MODE");
        unsetenv("FQ_CLUSTER_NAME");
    }
    void TearDown() override { SetUp(); }
};

TEST_F(ServiceName, ByEnvironment)
{
    EXPECT_STREQ("Scan proxy", fq_worker_service_name_from_env());
    setenv("FQ_CLUSTER_NAME", "eu-west", 1);
    EXPECT_STREQ("Scan proxy", fq_worker_service_name_from_env());
    setenv("FQ_CLOUD_MODE", "", 1);
    EXPECT_STREQ("eu-west", fq_worker_service_name_from_env());
    unsetenv("FQ_CLUSTER_NAME");
    EXPECT_STREQ("Cloud scan proxy", fq_worker_service_name_from_env());
}

TEST_F(ServiceName, GlobalInitDescribesTheService)
{
    setenv("FQ_CLOUD_MODE", "1", 1);
    fq_worker_config_t cfg{};
    cfg.progdir = const_cast<char*>("/");
    fq_thread_global_params_t global{};
    char errormsg[1024] = "";
    ASSERT_EQ(0, fq_worker_global_init(&cfg, &global, errormsg));
    ASSERT_NE(nullptr, global.serviceDescription);
    EXPECT_STREQ("Cloud scan proxy", global.serviceDescription->service_name);
    EXPECT_EQ(2, global.serviceDescription->service_major_version);
    EXPECT_EQ(1, global.serviceDescription->service_minor_version);
    EXPECT_GT(global.serviceDescription->update_time, 0);
    EXPECT_NE(nullptr, cfg.quarantine_encryption_keys);
    zlist_destroy(&cfg.quarantine_encryption_keys);
    free(global.serviceDescription);
}

}  // namespace
