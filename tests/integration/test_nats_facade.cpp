// The facade's transport choice: gateway URLs are recognised by their scheme alone, and a gateway
// configuration is client-only: nothing is staged or registered, and serving is refused.
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "fq_connection_client.h"
#include "nats_server.h"

namespace {

int never_called(void*, fq_const_request_reply_t*)
{
    ADD_FAILURE() << "handler must not run";
    return -1;
}

TEST(NatsFacade, OnlyLowerCaseHttpSchemesSelectTheGateway)
{
    EXPECT_TRUE(is_http_url("http://gw"));
    EXPECT_TRUE(is_http_url("https://gw:8443/path"));
    EXPECT_FALSE(is_http_url("HTTPS://gw"));
    EXPECT_FALSE(is_http_url("Http://gw"));
    EXPECT_FALSE(is_http_url("nats://gw"));
    EXPECT_FALSE(is_http_url("tls://gw"));
    EXPECT_FALSE(is_http_url("httpx://gw"));
    EXPECT_FALSE(is_http_url("http:/gw"));
    EXPECT_FALSE(is_http_url(""));
    EXPECT_FALSE(is_http_url(nullptr));
}

TEST(NatsFacade, GatewayModeIsClientOnly)
{
    fq_connection_config* cfg = fq_connection_config_new();
    ASSERT_NE(cfg, nullptr);
    // Nothing is sent anywhere: no request is made of this host.
    cfg->server_url = strdup("https://gateway.invalid:8443");
    cfg->user = strdup("explicit");
    cfg->broker_user = strdup("from-broker");
    cfg->broker_password = strdup("pw");

    fqtest::StderrCapture cap;
    ASSERT_EQ(fq_connection_init(cfg), 0);
    EXPECT_STREQ(cfg->user, "explicit");
    EXPECT_STREQ(cfg->password, "pw");
    EXPECT_EQ(cfg->_conn, nullptr);
    EXPECT_TRUE(cap.contains(
        "fq_connection_init: HTTP gateway mode (server=https://gateway.invalid:8443 user=explicit proxy=(none))"));

    // The gateway takes the payload with each request: nothing is staged.
    const char data[] = "payload";
    char* key = reinterpret_cast<char*>(0x1);
    EXPECT_EQ(fq_connection_stage_scan_data(cfg, data, sizeof(data), 1000, &key, nullptr), 0);
    EXPECT_EQ(key, nullptr);
    EXPECT_EQ(fq_connection_stage_scan_data(cfg, data, 0, 1000, &key, nullptr), -1);
    fq_connection_unstage_scan_data(cfg, "whatever");
    EXPECT_EQ(fq_connection_registry_put(cfg, "worker", "{}", 1000), 0);
    fq_connection_registry_delete(cfg, "worker");

    fq_stop_flag_t stop{0};
    EXPECT_EQ(fq_connection_start_service_handler_threads(cfg, "fq-av-scanproxy", never_called, nullptr, &stop, 1),
              -1);
    EXPECT_TRUE(cap.contains("fq_connection_start_service_handler_threads: HTTP gateway mode is client-only; cannot "
                             "run service handler threads for service 'fq-av-scanproxy' "
                             "(server_url=https://gateway.invalid:8443)"));
    EXPECT_EQ(fq_connection_start_js_work_consumer(cfg, nullptr, never_called, nullptr, &stop, 1, nullptr), -1);
    EXPECT_TRUE(cap.contains("fq_connection_start_js_work_consumer: HTTP gateway mode is client-only; cannot run JS "
                             "work-queue pullers for service '(null)' (server_url=https://gateway.invalid:8443)"));

    fq_connection_deinit(cfg);
    fqtest::free_config(&cfg);
}

TEST(NatsFacade, NullRecordsAreHandledQuietly)
{
    char* key = reinterpret_cast<char*>(0x1);
    const char data[] = "x";
    EXPECT_EQ(fq_connection_stage_scan_data(nullptr, data, 1, 1000, &key, nullptr), -1);
    EXPECT_EQ(key, nullptr);
    EXPECT_EQ(fq_connection_registry_put(nullptr, "k", "{}", 1), -1);
    fq_connection_registry_delete(nullptr, "k");
    fq_connection_unstage_scan_data(nullptr, "k");
    fq_connection_deinit(nullptr);
    EXPECT_EQ(fq_connection_simple_request(nullptr, "svc", "{}", 10, 0, nullptr), -1);
}

}  // namespace
