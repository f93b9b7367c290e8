// The facade's transport choice: gateway URLs are recognised by their scheme alone, and a gateway
// configuration is client-only: nothing is staged or registered, and serving is refused.
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>

#include <string>

#include "nats_server.h"

namespace {

int never_called(void*, fq_const_request_reply_t*)
{
    ADD_FAILURE() << "handler must not run";
    return -1;
}

TEST(NatsFacade, OnlyLowerCaseHttpSchemesSelectTheGateway)
{
    for (const char* url : {"http://gw", "https://gw:8443/path"})
        EXPECT_TRUE(is_http_url(url)) << url;
    for (const char* url : {"HTTPS://gw", "Http://gw", "nats://gw", "tls://gw", "httpx://gw", "http:/gw", ""})
        EXPECT_FALSE(is_http_url(url)) << url;
    EXPECT_FALSE(is_http_url(nullptr));
}

TEST(NatsFacade, GatewayModeIsClientOnly)
{
    fqtest::ConfigPtr cfg(fq_connection_config_new());
    ASSERT_NE(cfg, nullptr);
    // Nothing is sent anywhere: no request is made of this host.
    cfg->server_url = strdup("https://gateway.invalid:8443");
    cfg->user = strdup("explicit");
    cfg->broker_user = strdup("from-broker");
    cfg->broker_password = strdup("pw");
    fqtest::StderrCapture cap;
    ASSERT_EQ(fq_connection_init(cfg.get()), 0);
    EXPECT_STREQ(cfg->user, "explicit");
    EXPECT_STREQ(cfg->password, "pw");
    EXPECT_EQ(cfg->_conn, nullptr);
    EXPECT_TRUE(cap.contains(
        "fq_connection_init: HTTP gateway mode (server=https://gateway.invalid:8443 user=explicit proxy=(none))"));

    // The gateway takes the payload with each request: nothing is staged.
    char* key = reinterpret_cast<char*>(0x1);
    EXPECT_EQ(fq_connection_stage_scan_data(cfg.get(), "payload", 7, 1000, &key, nullptr), 0);
    EXPECT_EQ(key, nullptr);
    EXPECT_EQ(fq_connection_registry_put(cfg.get(), "worker", "{}", 1000), 0);

    fq_stop_flag_t stop{0};
    EXPECT_EQ(fq_connection_start_service_handler_threads(cfg.get(), "fq-av-scanproxy", never_called, nullptr, &stop, 1),
              -1);
    EXPECT_EQ(fq_connection_start_js_work_consumer(cfg.get(), nullptr, never_called, nullptr, &stop, 1, nullptr), -1);
    EXPECT_EQ(cap.count("HTTP gateway mode is client-only"), 2);
}

TEST(NatsFacade, NullRecordsAreHandledQuietly)
{
    char* key = reinterpret_cast<char*>(0x1);
    EXPECT_EQ(fq_connection_stage_scan_data(nullptr, "x", 1, 1000, &key, nullptr), -1);
    EXPECT_EQ(key, nullptr);
    EXPECT_EQ(fq_connection_registry_put(nullptr, "k", "{}", 1), -1);
    fq_connection_registry_delete(nullptr, "k");
    fq_connection_unstage_scan_data(nullptr, "k");
    fq_connection_deinit(nullptr);
    EXPECT_EQ(fq_connection_simple_request(nullptr, "svc", "{}", 10, 0, nullptr), -1);
}

}  // namespace
