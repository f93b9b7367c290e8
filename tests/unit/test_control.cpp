#include <gtest/gtest.h>

#include <stdlib.h>

#include <string>

#include "fq_worker.h"
#include "fq_worker_ping_handler.h"
#include "json_util.h"

namespace {

struct Reply {
    int rc = 0;
    bool sent = false;
    std::string text;
};

Reply s_call(fq_request_handler_f_t handler, void* params, const std::string& json)
{
    fq_const_message_t request{json.c_str(), nullptr, 0, nullptr};
    fq_message_t reply{};
    fq_const_request_reply_t rr{&request, &reply};
    Reply r;
    r.rc = handler(params, &rr);
    r.sent = reply.json_txt != nullptr;
    r.text = reply.json_txt ? reply.json_txt : "";
    free(reply.json_txt);
    return r;
}

const std::string kOk = "{\"ReturnCode\": 0}";
// A refused control message: -1000, and the reason in words.
bool s_refused(const std::string& text)
{
    const fqtest::Json r(text);
    return r.rc() == -1000 && r.str("Error") == "Secret mismatch";
}

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
    Reply control(const std::string& json) { return s_call(fq_worker_control_request_handler, &global, json); }
};

TEST(PingChannel, OnlyPingIsAnsweredZero)
{
    EXPECT_EQ(kOk, s_call(fq_worker_ping_request_handler, nullptr, "{ \"Command\" : 3 }").text);
    for (const char* other : {"{\"Command\": 9}", "{broken"}) {
        const Reply r = s_call(fq_worker_ping_request_handler, nullptr, other);
        EXPECT_EQ(-1, r.rc) << other;
        EXPECT_EQ("{\"ReturnCode\": -1}", r.text) << other;
    }
}

TEST_F(Control, PingIsAnsweredAndCacheCommandsAreNot)
{
    EXPECT_EQ(kOk, control("{ \"Command\" : 3 }").text);
    for (const char* silent : {"{\"Command\": 10}", "{\"Command\": 12}", "{\"Command\": 11}", "{}", "{oops"})
        EXPECT_FALSE(control(silent).sent) << silent;
    EXPECT_EQ(0, killed);
}

TEST_F(Control, ShutdownAndReadyNeedTheRightSecret)
{
    char shutdown[2048];
    ASSERT_EQ(0, fq_worker_build_shutdown_message(shutdown, sizeof(shutdown), local_secret));
    // Without a local secret nothing matches; a wrong, shorter or missing one is refused.
    for (char* local : {static_cast<char*>(nullptr), const_cast<char*>(""), local_secret}) {
        cfg.secret = local;
        cfg.update_secret = local;
        EXPECT_TRUE(s_refused(control("{ \"Command\" : 9 , \"Secret\":\"0123456789abcdefghijABCDEFGHIJxz\"}").text));
        EXPECT_TRUE(s_refused(control("{ \"Command\" : 9 , \"Secret\":\"0123456789abcdefghij\"}").text));
        EXPECT_TRUE(s_refused(control("{ \"Command\" : 4 , \"Secret\":\"anything\"}").text));
        EXPECT_FALSE(control("{ \"Command\" : 9 }").sent);
        EXPECT_FALSE(control("{ \"Command\" : 9 , \"Secret\":\"\"}").sent);
        if (local != local_secret) {
            EXPECT_TRUE(s_refused(control(shutdown).text));
        }
    }
    EXPECT_EQ(0, killed);
    EXPECT_EQ(WAITING_FOR_TEMP_WORKER, update.status);

    EXPECT_EQ(std::string("{ \"Command\" : 9 , \"Secret\":\"") + local_secret + "\"}", shutdown);
    EXPECT_EQ(kOk, control(shutdown).text);
    EXPECT_EQ(1, killed);
}

TEST_F(Control, ReadyStoresTheTemporaryWorkerAndThenTheStatus)
{
    cfg.update_secret = update_secret;
    // Without its subject it is answered, but no phase changes.
    EXPECT_EQ(kOk, control(std::string("{ \"Command\" : 4 , \"Secret\":\"") + update_secret + "\"}").text);
    EXPECT_EQ(WAITING_FOR_TEMP_WORKER, update.status);
    EXPECT_EQ(nullptr, update.shutdown_servicename);

    char msg[2048];
    ASSERT_EQ(0, fq_worker_build_ready_message(msg, sizeof(msg), update_secret, "fq-av-scanproxy.host_42",
                                               "tempsecret"));
    EXPECT_EQ(std::string("{ \"Command\" : 4 , \"Secret\":\"") + update_secret +
                  "\", \"Shutdown\":\"fq-av-scanproxy.host_42\", \"Shutdown-Secret\":\"tempsecret\"}",
              msg);
    EXPECT_EQ(kOk, control(msg).text);
    EXPECT_EQ(WAITING_FOR_RESTART, update.status);
    EXPECT_STREQ("fq-av-scanproxy.host_42", update.shutdown_servicename);
    EXPECT_STREQ("tempsecret", update.shutdown_secret);
    EXPECT_EQ(0, killed);
}

TEST(HandshakeMessages, ValuesAreEscapedAndMustFit)
{
    char msg[2048];
    ASSERT_EQ(0, fq_worker_build_shutdown_message(msg, sizeof(msg), "a\"b\\c"));
    EXPECT_EQ("a\"b\\c", fqtest::Json(msg).str("Secret")) << msg;
    char tiny[16];
    EXPECT_EQ(-1, fq_worker_build_shutdown_message(tiny, sizeof(tiny), "secret"));
}

}  // namespace
