#include <gtest/gtest.h>

#include <stdlib.h>

#include <string>

#include "fq_worker.h"
#include "fqhlp_replies.h"
#include "json_util.h"

namespace {

using fqtest::Json;

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

TEST(Dispatch, PingUnknownCommandsAndTextsThatAreNoRequest)
{
    Worker w;
    for (const char* zero : {"{\"Command\": 3}", "{\"Command\": 7}", "{\"NoCommand\": true}"})
        EXPECT_EQ("{\"ReturnCode\": 0}", s_handle(w, zero).text) << zero;
    for (const char* bad : {"{\"Command\": 10", "not json", "", "[1,2]", "42"}) {
        const Reply r = s_handle(w, bad);
        EXPECT_EQ(-1, r.rc) << bad;
        EXPECT_EQ("{\"ReturnCode\": -1}", r.text) << bad;
    }
    EXPECT_EQ(STARTING, w.thread.currentstatus);

    // A missing request or reply slot does not crash.
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
    EXPECT_EQ("{ \"ReturnCode\": 0, \"MajorVersion\": 2, \"MinorVersion\": 1, \"NumberOfViruses\": 0, "
              "\"NumberOfVariants\": 0, \"Timestamp\": 1700000000, \"DriverName\": \"Scan proxy\" }",
              s_handle(w, "{\"Command\": 1}").text);
    EXPECT_EQ(READY, w.thread.currentstatus);

    // Without a description there is nothing to describe: the generic reply, not a crash.
    Worker bare;
    bare.global.serviceDescription = nullptr;
    EXPECT_EQ("{\"ReturnCode\": 0}", s_handle(bare, "{\"Command\": 1}").text);
}

TEST(Dispatch, ScanChecksLengthAndEventIdAndIsNeverAnsweredClean)
{
    Worker w;
    const unsigned char six[] = "abcdef";
    const struct {
        const char* job;
        const unsigned char* data;
        size_t len;
        int rc;
        const char* error;
    } rejected[] = {
        {"{\"Command\": 101, \"ObjectLen\": 5, \"EventID\": \"e1\"}", six, 6, SERVICE_ERROR,
         "Scan request rejected: declared object length does not match the received data"},
        {"{\"Command\": 102, \"ObjectLen\": -1, \"EventID\": \"e1\"}", six, 6, SERVICE_ERROR,
         "Scan request rejected: declared object length does not match the received data"},
        {"{\"Command\": 101, \"EventID\": \"e1\"}", six, 6, SERVICE_ERROR,
         "Scan request rejected: declared object length does not match the received data"},
        {"{\"Command\": 101, \"ObjectLen\": 5, \"EventID\": \"e1\"}", nullptr, 0, SERVICE_ERROR,
         "Scan request rejected: object data missing"},
        {"{\"Command\": 101, \"ObjectLen\": 0}", nullptr, 0, -1, ""},
        {"{\"Command\": 101, \"ObjectLen\": 0, \"EventID\": \"\"}", nullptr, 0, -1, ""},
    };
    for (const auto& c : rejected) {
        const Reply r = s_handle(w, c.job, c.data, c.len);
        EXPECT_EQ(c.rc, r.rc) << c.job;
        EXPECT_EQ(c.rc, Json(r.text).rc()) << c.job;
        EXPECT_EQ(c.error, Json(r.text).str("Error")) << c.job;
    }
    EXPECT_EQ(STARTING, w.thread.currentstatus) << "a rejected request never makes the thread busy";

    // Past the checks, a job the scan handler cannot use still gets its own error reply.
    const unsigned char data[] = "hello";
    for (const Reply& r : {s_handle(w, "{\"Command\": 101, \"ObjectLen\": 0, \"EventID\": \"e2\"}"),
                           s_handle(w, "{\"Command\": 101, \"ObjectLen\": 5, \"EventID\": \"e3\"}", data, 5)}) {
        EXPECT_NE(0, r.rc);
        EXPECT_EQ(SERVICE_ERROR, Json(r.text).rc()) << r.text;
        EXPECT_FALSE(Json(r.text).str("Error").empty()) << r.text;
    }
    EXPECT_EQ(READY, w.thread.currentstatus);
}

TEST(Replies, ExactTextsAndEscapedErrors)
{
    char* text = nullptr;
    ASSERT_EQ(0, fq_reply_set_return_code(&text, -199));
    EXPECT_STREQ("{\"ReturnCode\": -199}", text);
    free(text);
    const char* nasty = "a \"quoted\" back\\slash\nnew line \x01 and / slash";
    ASSERT_EQ(0, fq_reply_set_ERROR(&text, -1000, nasty));
    const std::string prefix = "{\"ReturnCode\": -1000, \"Error\": \"a \\\"quoted\\\"";
    EXPECT_EQ(prefix, std::string(text).substr(0, prefix.size()));
    EXPECT_EQ(nasty, Json(text).str("Error"));
    EXPECT_FALSE(Json(text).str("WorkerHostname").empty());
    free(text);
    // A -1000 never goes out without words; other codes may.
    ASSERT_EQ(0, fq_reply_set_ERROR(&text, -1000, nullptr));
    // A -1000 never goes out without words; other codes may.
    EXPECT_FALSE(Json(text).str("Error").empty());
    free(text);
    ASSERT_EQ(0, fq_reply_set_ERROR(&text, -200, ""));
    EXPECT_EQ("", Json(text).str("Error"));
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

TEST_F(ServiceName, ByEnvironmentAndInTheGlobalDescription)
{
    EXPECT_STREQ("Scan proxy", fq_worker_service_name_from_env());
    setenv("FQ_CLUSTER_NAME", "eu-west", 1);
    EXPECT_STREQ("Scan proxy", fq_worker_service_name_from_env());
    setenv("FQ_CLOUD_MODE", "", 1);
    EXPECT_STREQ("eu-west", fq_worker_service_name_from_env());
    unsetenv("FQ_CLUSTER_NAME");
    EXPECT_STREQ("Cloud scan proxy", fq_worker_service_name_from_env());

    fq_worker_config_t cfg{};
    cfg.progdir = const_cast<char*>("/");
    fq_thread_global_params_t global{};
    char errormsg[1024] = "";
    ASSERT_EQ(0, fq_worker_global_init(&cfg, &global, errormsg));
    ASSERT_NE(nullptr, global.serviceDescription);
    EXPECT_STREQ("Cloud scan proxy", global.serviceDescription->service_name);
    EXPECT_EQ(2, global.serviceDescription->service_major_version);
    EXPECT_GT(global.serviceDescription->update_time, 0);
    zlist_destroy(&cfg.quarantine_encryption_keys);
    free(global.serviceDescription);
}

}  // namespace
