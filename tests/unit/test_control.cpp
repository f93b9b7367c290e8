#include <gtest/gtest.h>
#include <json-c/json.h>

#include <stdlib.h>

#include <string>

#include "fq_worker.h"
#include "fq_worker_ping_handler.h"

namespace {

struct Reply {
    int rc = 0;
    bool sent = false;
    std::string text;
};

Reply s_call(fq_request_handler_f_t handler, void* params, const char* json)
{
    fq_const_message_t request{json, nullptr, 0, nullptr};
    fq_message_t reply{};
    fq_const_request_reply_t rr{&request, &reply};
    Reply r;
    r.rc = handler(params, &rr);
    r.sent = reply.json_txt != nullptr;
    r.text = reply.json_txt ? reply.json_txt : "";
    free(reply.json_txt);
    return r;
}

// A refused control message: -1000 with the reason in words.
#define EXPECT_REFUSED(text)                                                          \
    do {                                                                              \
        fq_json_ptr r_(json_tokener_parse(std::string(text).c_str()));                \
        json_object *rc_ = nullptr, *err_ = nullptr;                                  \
        ASSERT_TRUE(r_ && json_object_object_get_ex(r_.get(), "ReturnCode", &rc_));    \
        EXPECT_EQ(-1000, json_object_get_int(rc_));                                   \
        ASSERT_TRUE(json_object_object_get_ex(r_.get(), "Error", &err_));              \
        EXPECT_STREQ("Secret mismatch", json_object_get_string(err_));                \
    } while (0)

class Control : public ::testing::Test {
protected:
    fq_worker_config_t cfg{};
    fq_worker_update_thread_params_t update{};
    fq_thread_global_params_t global{};
    char local_secret[33] = "0123456789abcdefghijABCDEFGHIJxy";
    char update_secret[33] = "ZYXWVUTSRQPONMLKJIHGFEDCBAzyxwvu";

    void SetUp() override
    {
        killed = 0;
        update.status = WAITING_FOR_TEMP_WORKER;
        cfg.update = &update;
        global.config = &cfg;
    }
    void TearDown() override
    {
        killed = 0;
        free(update.shutdown_servicename);
        free(update.shutdown_secret);
    }
    Reply control(const std::string& json) { return s_call(fq_worker_control_request_handler, &global, json.c_str()); }
};

TEST(PingChannel, OnlyPingIsAnsweredZero)
{
    EXPECT_EQ("{\"ReturnCode\": 0}", s_call(fq_worker_ping_request_handler, nullptr, "{ \"Command\" : 3 }").text);
    Reply other = s_call(fq_worker_ping_request_handler, nullptr, "{\"Command\": 9}");
    EXPECT_EQ(-1, other.rc);
    EXPECT_EQ("{\"ReturnCode\": -1}", other.text);
    EXPECT_EQ("{\"ReturnCode\": -1}", s_call(fq_worker_ping_request_handler, nullptr, "{broken").text);
}

TEST_F(Control, PingIsAnsweredAndCacheCommandsAreNot)
{
    EXPECT_EQ("{\"ReturnCode\": 0}", control("{ \"Command\" : 3 }").text);
    for (const char* silent : {"{\"Command\": 10}", "{\"Command\": 12}", "{\"Command\": 11}", "{}", "{oops"})
        EXPECT_FALSE(control(silent).sent) << silent;
    EXPECT_EQ(0, killed);
}

TEST_F(Control, ShutdownNeedsTheRightSecret)
{
    cfg.secret = local_secret;
    Reply wrong = control("{ \"Command\" : 9 , \"Secret\":\"0123456789abcdefghijABCDEFGHIJxz\"}");
    EXPECT_REFUSED(wrong.text);
    EXPECT_EQ(0, killed);
    Reply shorter = control("{ \"Command\" : 9 , \"Secret\":\"0123456789abcdefghij\"}");
    EXPECT_REFUSED(shorter.text);
    EXPECT_EQ(0, killed);
    EXPECT_FALSE(control("{ \"Command\" : 9 }").sent);
    EXPECT_FALSE(control("{ \"Command\" : 9 , \"Secret\":\"\"}").sent);
    EXPECT_EQ(0, killed);

    char msg[2048];
    ASSERT_EQ(0, fq_worker_build_shutdown_message(msg, sizeof(msg), local_secret));
    EXPECT_EQ(std::string("{ \"Command\" : 9 , \"Secret\":\"") + local_secret + "\"}", msg);
    EXPECT_EQ("{\"ReturnCode\": 0}", control(msg).text);
    EXPECT_EQ(1, killed);
}

TEST_F(Control, WithoutALocalSecretNothingMatches)
{
    cfg.secret = nullptr;
    EXPECT_REFUSED(control("{ \"Command\" : 9 , \"Secret\":\"anything\"}").text);
    cfg.update_secret = nullptr;
    EXPECT_REFUSED(control("{ \"Command\" : 4 , \"Secret\":\"anything\"}").text);
    char empty[1] = "";
    cfg.secret = empty;
    EXPECT_REFUSED(control("{ \"Command\" : 9 , \"Secret\":\"x\"}").text);
    EXPECT_EQ(0, killed);
    EXPECT_EQ(WAITING_FOR_TEMP_WORKER, update.status);
}

TEST_F(Control, ReadyStoresTheTemporaryWorkerAndThenTheStatus)
{
    cfg.update_secret = update_secret;
    EXPECT_REFUSED(control("{ \"Command\" : 4 , \"Secret\":\"nope\"}").text);
    EXPECT_EQ(WAITING_FOR_TEMP_WORKER, update.status);

    char msg[2048];
    ASSERT_EQ(0, fq_worker_build_ready_message(msg, sizeof(msg), update_secret, "fq-av-scanproxy.host_42",
                                               "tempsecret"));
    EXPECT_EQ(std::string("{ \"Command\" : 4 , \"Secret\":\"") + update_secret +
                  "\", \"Shutdown\":\"fq-av-scanproxy.host_42\", \"Shutdown-Secret\":\"tempsecret\"}",
              msg);
    EXPECT_EQ("{\"ReturnCode\": 0}", control(msg).text);
    EXPECT_EQ(WAITING_FOR_RESTART, update.status);
    EXPECT_STREQ("fq-av-scanproxy.host_42", update.shutdown_servicename);
    EXPECT_STREQ("tempsecret", update.shutdown_secret);
    EXPECT_EQ(0, killed);
}

TEST_F(Control, ReadyWithoutItsSubjectIsAnsweredButChangesNoPhase)
{
    cfg.update_secret = update_secret;
    const std::string msg = std::string("{ \"Command\" : 4 , \"Secret\":\"") + update_secret + "\"}";
    EXPECT_EQ("{\"ReturnCode\": 0}", control(msg).text);
    EXPECT_EQ(WAITING_FOR_TEMP_WORKER, update.status);
    EXPECT_EQ(nullptr, update.shutdown_servicename);
}

TEST(HandshakeMessages, ValuesAreEscaped)
{
    char msg[2048];
    ASSERT_EQ(0, fq_worker_build_shutdown_message(msg, sizeof(msg), "a\"b\\c"));
    json_object* obj = json_tokener_parse(msg);
    ASSERT_NE(nullptr, obj) << msg;
    json_object* secret = nullptr;
    ASSERT_TRUE(json_object_object_get_ex(obj, "Secret", &secret));
    EXPECT_STREQ("a\"b\\c", json_object_get_string(secret));
    json_object_put(obj);
    char tiny[16];
    EXPECT_EQ(-1, fq_worker_build_shutdown_message(tiny, sizeof(tiny), "secret"));
}

TEST(Registration, RecordMembersInOrder)
{
    fq_service_description_t desc{};
    desc.service_name = const_cast<char*>("Scan proxy");
    desc.service_major_version = 2;
    desc.service_minor_version = 1;
    desc.update_time = 1700000001;
    char* full = fq_worker_build_registration_json("fq-av-scanproxy.h_7", "fq-av-scanproxy", 1, "s3", &desc);
    ASSERT_NE(nullptr, full);
    EXPECT_STREQ("{ \"Command\": 200, \"worker-name\": \"fq-av-scanproxy.h_7\", \"service-name\": \"fq-av-scanproxy\", "
                 "\"Primary\": 1, \"Secret\": \"s3\", \"DriverName\": \"Scan proxy\", \"MajorVersion\": 2, "
                 "\"MinorVersion\": 1, \"NumberOfViruses\": 0, \"NumberOfVariants\": 0, \"Timestamp\": 1700000001 }",
                 full);
    free(full);
    char* minimal = fq_worker_build_registration_json(nullptr, "fq-av-scanproxy", 0, nullptr, nullptr);
    ASSERT_NE(nullptr, minimal);
    EXPECT_STREQ("{ \"Command\": 200, \"worker-name\": \"\", \"service-name\": \"fq-av-scanproxy\", \"Primary\": 0, "
                 "\"Secret\": \"\" }",
                 minimal);
    free(minimal);
}

}  // namespace
