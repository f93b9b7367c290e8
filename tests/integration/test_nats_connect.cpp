// Connection set-up against real brokers: plain, TLS with a private CA, user and password,
// failures that no retry can cure, and a broker that only comes up after the worker.
#include <gtest/gtest.h>
#include <string.h>

#include <chrono>
#include <future>
#include <string>

#include "fq_nats_client.h"
#include "nats_server.h"

namespace {

using namespace std::chrono_literals;
using fqtest::ConfigPtr;

fqtest::NatsServerOptions s_options(bool tls, const std::string& user = "", bool jetstream = true)
{
    fqtest::NatsServerOptions o;
    o.tls = tls;
    o.user = user;
    o.password = user.empty() ? "" : "right-secret";
    o.jetstream = jetstream;
    return o;
}

ConfigPtr s_config(const std::string& url, const std::string& ca = "", const char* user = nullptr,
                   const char* password = nullptr)
{
    ConfigPtr cfg(fq_connection_config_new());
    cfg->server_url = strdup(url.c_str());
    cfg->cert_path = ca.empty() ? nullptr : strdup(ca.c_str());
    cfg->broker_user = user ? strdup(user) : nullptr;
    cfg->broker_password = password ? strdup(password) : nullptr;
    return cfg;
}

// A request answered by an in-test peer on the same broker.
void expect_round_trip(const fqtest::NatsServer& server, fq_connection_config* cfg)
{
    std::string err;
    fq_nats_conn_ptr peer(server.connect_peer(&err));
    ASSERT_NE(peer, nullptr) << err;
    fqtest::Responder svc(peer.get(), "fqt.ping",
                          [](const std::string&) { return std::optional<std::string>("{\"ReturnCode\": 0}"); });
    char errormsg[1024] = "";
    EXPECT_EQ(fq_connection_simple_request(cfg, "fqt.ping", "{\"Command\": 3}", 3000, 0, errormsg), 0) << errormsg;
}

TEST(NatsConnect, PlainAndAuthenticatedUrlsConnectWithJetStreamAndDisconnect)
{
    for (const std::string user : {"", "scanner"}) {
        fqtest::NatsServer server(s_options(false, user));
        std::string err;
        ASSERT_TRUE(server.start(&err)) << err;
        ConfigPtr cfg = s_config(server.url(), "", user.empty() ? nullptr : "scanner",
                                 user.empty() ? nullptr : "right-secret");
        fqtest::StderrCapture cap;
        ASSERT_EQ(fq_connection_init(cfg.get()), 0) << cap.text();
        EXPECT_NE(cfg->_js, nullptr);
        EXPECT_STREQ(cfg->user, user.empty() ? nullptr : "scanner");
        EXPECT_TRUE(cap.contains("NATS: connected to " + server.url() + " (user=" + (user.empty() ? "(none)" : user) +
                                 ", jetstream=yes)"))
            << cap.text();
        EXPECT_TRUE(cap.contains("(scheme implies TLS=no)"));
        expect_round_trip(server, cfg.get());
        fq_connection_deinit(cfg.get());
        EXPECT_EQ(cfg->_conn, nullptr);
        EXPECT_EQ(cfg->_js, nullptr);
        EXPECT_TRUE(cap.contains("NATS: disconnected"));
    }
}

TEST(NatsConnect, BrokerWithoutJetStreamStillConnectsButCannotStage)
{
    fqtest::NatsServer server(s_options(false, "", false));
    std::string err;
    ASSERT_TRUE(server.start(&err)) << err;
    ConfigPtr cfg(server.make_config());
    fqtest::StderrCapture cap;
    ASSERT_EQ(fq_connection_init(cfg.get()), 0);
    EXPECT_EQ(cfg->_js, nullptr);
    EXPECT_TRUE(cap.contains("NATS: JetStream init failed: "));
    EXPECT_TRUE(cap.contains("(user=(none), jetstream=no)"));
    expect_round_trip(server, cfg.get());
    char* key = nullptr;
    char errormsg[1024] = "";
    EXPECT_EQ(fq_connection_stage_scan_data(cfg.get(), "x", 1, 1000, &key, errormsg), -1);
    EXPECT_STREQ(errormsg, "NATS: failed to stage scan data in KV store");
    EXPECT_EQ(key, nullptr);
    EXPECT_EQ(fq_connection_registry_put(cfg.get(), "k", "{}", 1000), -1);
}

// The worker's --broker-cert: a private CA, the host name checked against the certificate.
TEST(NatsConnect, TlsWithPrivateCaAndExpectedHost)
{
    fqtest::NatsServer server(s_options(true));
    std::string err;
    ASSERT_TRUE(server.start(&err)) << err;
    for (const std::string host : {"127.0.0.1", "localhost"}) {
        ConfigPtr cfg = s_config(server.url(host), server.ca_file());
        fqtest::StderrCapture cap;
        ASSERT_EQ(fq_connection_init(cfg.get()), 0) << cap.text();
        // A slow handshake (a loaded machine, a sanitizer build) may need the background retries.
        EXPECT_TRUE(fqtest::wait_until([&] { return fq_connection_state(cfg.get(), nullptr, 0) == FQ_CONNECTION_UP; },
                                       std::chrono::seconds(20)));
        char url[256] = "";
        natsConnection_GetConnectedUrl(static_cast<natsConnection*>(cfg->_conn), url, sizeof(url) - 1);
        EXPECT_EQ(std::string(url).rfind("tls://", 0), 0u) << url;
        EXPECT_FALSE(cap.contains("connection is NOT encrypted")) << host;
        expect_round_trip(server, cfg.get());
    }

    // Host and port alone make a tls:// URL.
    ConfigPtr cfg(fq_connection_config_new());
    cfg->broker_host = strdup("127.0.0.1");
    cfg->broker_port = strdup(std::to_string(server.port()).c_str());
    cfg->cert_path = strdup(server.ca_file().c_str());
    fqtest::StderrCapture cap;
    ASSERT_EQ(fq_connection_init(cfg.get()), 0);
    EXPECT_STREQ(cfg->server_url, server.url("127.0.0.1").c_str());
    EXPECT_TRUE(cap.contains("fq_connection_init: synthesised server_url=" + server.url("127.0.0.1")));
}

// Credentials and certificates do not get better by trying again: one attempt, then -1.
TEST(NatsConnect, PermanentFailuresStopAtTheFirstAttempt)
{
    fqtest::NatsServer tls_server(s_options(true));
    fqtest::NatsServer auth_server(s_options(false, "scanner"));
    std::string err;
    ASSERT_TRUE(tls_server.start(&err)) << err;
    ASSERT_TRUE(auth_server.start(&err)) << err;
    ConfigPtr configs[] = {s_config(tls_server.url(), tls_server.other_ca_file()),
                           s_config(auth_server.url(), "", "scanner", "wrong-secret")};
    for (ConfigPtr& cfg : configs) {
        SCOPED_TRACE(cfg->server_url);
        fqtest::StderrCapture cap;
        const auto t0 = std::chrono::steady_clock::now();
        EXPECT_EQ(fq_connection_init(cfg.get()), -1);
        EXPECT_EQ(cfg->_conn, nullptr);
        EXPECT_EQ(cap.count("failed permanently on attempt 1/5"), 1) << cap.text();
        EXPECT_EQ(cap.count("failed transiently"), 0);
        EXPECT_TRUE(cap.contains("NATS: failed to obtain connection handle to " + std::string(cfg->server_url)));
        // The library's own reconnect series inside the one attempt: 20 waits of at most 500 ms.
        EXPECT_LT(std::chrono::steady_clock::now() - t0, 20s);
    }
}

// A worker started before its broker comes up once the broker does.
TEST(NatsConnect, BrokerThatAppearsAfterInitStartedIsUsed)
{
    fqtest::NatsServer server;  // not started yet: its port is free
    ConfigPtr cfg(server.make_config());
    fqtest::StderrCapture cap;
    auto init = std::async(std::launch::async, [&] { return fq_connection_init(cfg.get()); });
    ASSERT_TRUE(fqtest::wait_until([&] { return cap.contains("NATS reconnect wait jittered"); }, 5s));
    std::string err;
    ASSERT_TRUE(server.start(&err)) << err;
    ASSERT_EQ(init.wait_for(60s), std::future_status::ready);
    ASSERT_EQ(init.get(), 0);
    EXPECT_TRUE(fqtest::wait_until(
        [&] { return natsConnection_Status(static_cast<natsConnection*>(cfg->_conn)) == NATS_CONN_STATUS_CONNECTED; },
        15s));
    expect_round_trip(server, cfg.get());
}

TEST(NatsConnect, StatusClassificationAndMissingAddresses)
{
    for (natsStatus s : {NATS_TIMEOUT, NATS_NO_SERVER, NATS_IO_ERROR, NATS_NOT_YET_CONNECTED})
        EXPECT_TRUE(fq_nats_connect_status_is_transient(s)) << natsStatus_GetText(s);
    for (natsStatus s : {NATS_NOT_PERMITTED, NATS_SSL_ERROR, NATS_ERR, NATS_INVALID_ARG, NATS_CONNECTION_AUTH_FAILED})
        EXPECT_FALSE(fq_nats_connect_status_is_transient(s)) << natsStatus_GetText(s);

    fqtest::StderrCapture cap;
    fq_connection_config blank{};
    EXPECT_EQ(fq_nats_init(&blank), -1);
    EXPECT_EQ(fq_nats_init(nullptr), -1);
    EXPECT_EQ(cap.count("NATS: config or server_url is NULL"), 2);
    // Host without port builds no URL.
    blank.broker_host = const_cast<char*>("broker");
    EXPECT_EQ(fq_connection_init(&blank), -1);
    EXPECT_EQ(blank.server_url, nullptr);
}

}  // namespace
