// Connection set-up against real brokers: plain, TLS with a private CA, user and password,
// failures that no retry can cure, and a broker that only comes up after the worker.
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <stdlib.h>
#include <string.h>

#include <chrono>
#include <future>
#include <string>

#include "fq_connection_client.h"
#include "fq_nats_client.h"
#include "nats_server.h"

namespace {

using Clock = std::chrono::steady_clock;

struct ConfigGuard {
    fq_connection_config* cfg;
    ~ConfigGuard()
    {
        fq_connection_deinit(cfg);
        fqtest::free_config(&cfg);
    }
};

// A request answered by an in-test peer on the same broker.
void expect_round_trip(const fqtest::NatsServer& server, fq_connection_config* cfg)
{
    std::string err;
    natsConnection* peer = server.connect_peer(&err);
    ASSERT_NE(peer, nullptr) << err;
    {
        fqtest::Responder svc(peer, "fqt.ping",
                              [](const std::string&) { return std::optional<std::string>("{\"ReturnCode\": 0}"); });
        ASSERT_TRUE(svc.ok());
        char errormsg[1024] = "";
        EXPECT_EQ(fq_connection_simple_request(cfg, "fqt.ping", "{\"Command\": 3}", 3000, 0, errormsg), 0)
            << errormsg;
    }
    natsConnection_Close(peer);
    natsConnection_Destroy(peer);
}

TEST(NatsConnect, PlainUrlConnectsWithJetStream)
{
    fqtest::NatsServer server;
    std::string err;
    ASSERT_TRUE(server.start(&err)) << err;
    ConfigGuard g{server.make_config()};
    fqtest::StderrCapture cap;
    ASSERT_EQ(fq_connection_init(g.cfg), 0);
    EXPECT_NE(g.cfg->_conn, nullptr);
    EXPECT_NE(g.cfg->_js, nullptr);
    EXPECT_TRUE(cap.contains("NATS: connected to " + server.url() + " (user=(none), jetstream=yes)")) << cap.text();
    EXPECT_TRUE(cap.contains("(scheme implies TLS=no)"));
    expect_round_trip(server, g.cfg);

    fq_connection_deinit(g.cfg);
    EXPECT_EQ(g.cfg->_conn, nullptr);
    EXPECT_EQ(g.cfg->_js, nullptr);
    EXPECT_TRUE(cap.contains("NATS: disconnected"));
}

TEST(NatsConnect, BrokerWithoutJetStreamStillConnects)
{
    fqtest::NatsServerOptions o;
    o.jetstream = false;
    fqtest::NatsServer server(o);
    std::string err;
    ASSERT_TRUE(server.start(&err)) << err;
    ConfigGuard g{server.make_config()};
    fqtest::StderrCapture cap;
    ASSERT_EQ(fq_connection_init(g.cfg), 0);
    EXPECT_EQ(g.cfg->_js, nullptr);
    EXPECT_TRUE(cap.contains("NATS: JetStream init failed: "));
    EXPECT_TRUE(cap.contains("(user=(none), jetstream=no)"));
    expect_round_trip(server, g.cfg);
    // Staging needs the store and fails; plain requests did not.
    const char data[] = "x";
    char* key = nullptr;
    char errormsg[1024] = "";
    EXPECT_EQ(fq_connection_stage_scan_data(g.cfg, data, 1, 1000, &key, errormsg), -1);
    EXPECT_STREQ(errormsg, "NATS: failed to stage scan data in KV store");
    EXPECT_EQ(key, nullptr);
    EXPECT_EQ(fq_connection_registry_put(g.cfg, "k", "{}", 1000), -1);
}

// The worker's --broker-cert: a private CA, the host name checked against the certificate.
TEST(NatsConnect, TlsWithPrivateCaAndExpectedHost)
{
    fqtest::NatsServerOptions o;
    o.tls = true;
    fqtest::NatsServer server(o);
    std::string err;
    ASSERT_TRUE(server.start(&err)) << err;

    for (const std::string host : {"127.0.0.1", "localhost"}) {
        SCOPED_TRACE(host);
        fq_connection_config* cfg = fq_connection_config_new();
        cfg->server_url = strdup(server.url(host).c_str());
        cfg->cert_path = strdup(server.ca_file().c_str());
        ConfigGuard g{cfg};
        fqtest::StderrCapture cap;
        ASSERT_EQ(fq_connection_init(cfg), 0) << cap.text();
        EXPECT_EQ(natsConnection_Status(static_cast<natsConnection*>(cfg->_conn)), NATS_CONN_STATUS_CONNECTED);
        EXPECT_TRUE(cap.contains("(scheme implies TLS=yes)"));
        EXPECT_TRUE(cap.contains("Negotiated connected_url=tls://"));
        EXPECT_FALSE(cap.contains("connection is NOT encrypted"));
        expect_round_trip(server, cfg);
    }

    // Host and port alone make a tls:// URL.
    fq_connection_config* cfg = fq_connection_config_new();
    cfg->broker_host = strdup("127.0.0.1");
    cfg->broker_port = strdup(std::to_string(server.port()).c_str());
    cfg->cert_path = strdup(server.ca_file().c_str());
    ConfigGuard g{cfg};
    fqtest::StderrCapture cap;
    ASSERT_EQ(fq_connection_init(cfg), 0);
    EXPECT_STREQ(cfg->server_url, server.url("127.0.0.1").c_str());
    EXPECT_TRUE(cap.contains("fq_connection_init: synthesised server_url=" + server.url("127.0.0.1")));
}

// Credentials and certificates do not get better by trying again: one attempt, then -1.
TEST(NatsConnect, PermanentFailuresStopAtTheFirstAttempt)
{
    fqtest::NatsServerOptions tls_opts;
    tls_opts.tls = true;
    fqtest::NatsServer tls_server(tls_opts);
    fqtest::NatsServerOptions auth_opts;
    auth_opts.user = "scanner";
    auth_opts.password = "right-secret";
    fqtest::NatsServer auth_server(auth_opts);
    std::string err;
    ASSERT_TRUE(tls_server.start(&err)) << err;
    ASSERT_TRUE(auth_server.start(&err)) << err;

    fq_connection_config* wrong_ca = fq_connection_config_new();
    wrong_ca->server_url = strdup(tls_server.url().c_str());
    wrong_ca->cert_path = strdup(tls_server.other_ca_file().c_str());
    fq_connection_config* bad_password = fq_connection_config_new();
    bad_password->server_url = strdup(auth_server.url().c_str());
    bad_password->broker_user = strdup("scanner");
    bad_password->broker_password = strdup("wrong-secret");

    for (fq_connection_config* cfg : {wrong_ca, bad_password}) {
        SCOPED_TRACE(cfg->server_url);
        ConfigGuard g{cfg};
        fqtest::StderrCapture cap;
        const auto t0 = Clock::now();
        EXPECT_EQ(fq_connection_init(cfg), -1);
        const auto elapsed = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - t0).count();
        EXPECT_EQ(cfg->_conn, nullptr);
        EXPECT_EQ(cap.count("failed permanently on attempt 1/5"), 1) << cap.text();
        EXPECT_EQ(cap.count("failed transiently"), 0);
        EXPECT_TRUE(cap.contains("NATS: failed to obtain connection handle to " + std::string(cfg->server_url) +
                                 " after 5 attempts"));
        // The library's own reconnect series inside the one attempt: 20 waits of at most 500 ms.
        EXPECT_LT(elapsed, 20);
    }
}

TEST(NatsConnect, UserAndPasswordFromTheBrokerOptions)
{
    fqtest::NatsServerOptions o;
    o.user = "scanner";
    o.password = "right-secret";
    fqtest::NatsServer server(o);
    std::string err;
    ASSERT_TRUE(server.start(&err)) << err;
    fq_connection_config* cfg = fq_connection_config_new();
    cfg->server_url = strdup(server.url().c_str());
    cfg->broker_user = strdup("scanner");
    cfg->broker_password = strdup("right-secret");
    ConfigGuard g{cfg};
    fqtest::StderrCapture cap;
    ASSERT_EQ(fq_connection_init(cfg), 0);
    EXPECT_STREQ(cfg->user, "scanner");
    EXPECT_STREQ(cfg->password, "right-secret");
    EXPECT_TRUE(cap.contains("(user=scanner, jetstream=yes)"));
    expect_round_trip(server, cfg);
}

// A worker started before its broker comes up once the broker does.
TEST(NatsConnect, BrokerThatAppearsAfterInitStartedIsUsed)
{
    fqtest::NatsServer server;  // not started yet: its port is free
    ConfigGuard g{server.make_config()};
    fqtest::StderrCapture cap;
    auto init = std::async(std::launch::async, [&] { return fq_connection_init(g.cfg); });
    ASSERT_TRUE(fqtest::wait_for([&] { return cap.contains("NATS reconnect wait jittered"); },
                                 std::chrono::milliseconds(5000)));
    std::string err;
    ASSERT_TRUE(server.start(&err)) << err;
    ASSERT_EQ(init.wait_for(std::chrono::seconds(60)), std::future_status::ready);
    ASSERT_EQ(init.get(), 0);
    ASSERT_NE(g.cfg->_conn, nullptr);
    EXPECT_TRUE(fqtest::wait_for(
        [&] {
            return natsConnection_Status(static_cast<natsConnection*>(g.cfg->_conn)) == NATS_CONN_STATUS_CONNECTED;
        },
        std::chrono::milliseconds(15000)));
    expect_round_trip(server, g.cfg);
}

TEST(NatsConnect, StatusClassificationAndTexts)
{
    for (natsStatus s : {NATS_TIMEOUT, NATS_NO_SERVER, NATS_IO_ERROR, NATS_NOT_YET_CONNECTED})
        EXPECT_TRUE(fq_nats_connect_status_is_transient(s)) << natsStatus_GetText(s);
    for (natsStatus s : {NATS_NOT_PERMITTED, NATS_SSL_ERROR, NATS_ERR, NATS_INVALID_ARG, NATS_CONNECTION_AUTH_FAILED})
        EXPECT_FALSE(fq_nats_connect_status_is_transient(s)) << natsStatus_GetText(s);
    EXPECT_STREQ(fq_nats_conn_status_text(NATS_CONN_STATUS_RECONNECTING), "RECONNECTING");
    EXPECT_STREQ(fq_nats_conn_status_text((natsConnStatus)99), "UNKNOWN");

    fqtest::StderrCapture cap;
    fq_connection_config blank{};
    EXPECT_EQ(fq_nats_init(&blank), -1);
    EXPECT_EQ(fq_nats_init(nullptr), -1);
    EXPECT_EQ(cap.count("NATS: config or server_url is NULL"), 2);
    // Host without port builds no URL.
    blank.broker_host = const_cast<char*>("broker");
    EXPECT_EQ(fq_connection_init(&blank), -1);
    EXPECT_EQ(blank.server_url, nullptr);
    fq_connection_deinit(nullptr);
}

}  // namespace
