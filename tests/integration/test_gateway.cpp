// fq-av-gateway, the real program, between the gateway client and in-test services on a real
// broker: forwarding over HTTP and HTTPS, credentials, hostile requests that must never reach the
// broker, failed forwards that must never look like replies, limits and the stop.
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <signal.h>
#include <string.h>

#include <memory>
#include <string>
#include <thread>

#include "fq_connection_client.h"
#include "fq_http_gateway_client.h"
#include "fq_nats_client.h"
#include "fq_raii.h"
#include "http_stub.h"
#include "nats_server.h"

using namespace std::chrono_literals;

namespace {

class Gateway : public ::testing::Test {
protected:
    static inline fqtest::BrokerSuite* suite = nullptr;
    static inline fqtest::TempDir* dir = nullptr;
    // What the echo service was last sent as the payload, and what it should have been.
    static inline std::string expected_payload;

    static void SetUpTestSuite()
    {
        suite = new fqtest::BrokerSuite();
        suite->start();
        ASSERT_EQ("", suite->error);
        dir = new fqtest::TempDir();
    }

    static void TearDownTestSuite()
    {
        suite->stop();
        delete suite;
        delete dir;
    }

    void TearDown() override
    {
        for (auto& gw : gateways)
            if (gw.child.pid > 0)
                fqtest::stop_process(gw.child.pid);
        // Every payload a gateway staged is gone again, whatever became of its request.
        EXPECT_EQ(std::vector<std::string>{}, fqtest::staged_keys(suite->peer));
    }

    fqtest::GatewayProcess& start(std::vector<std::string> args)
    {
        args.insert(args.begin(), {"--broker", suite->server->url(), "--log-level", "5"});
        gateways.emplace_back();
        std::string err;
        EXPECT_TRUE(fqtest::start_gateway(args, dir->path(), &gateways.back(), &err)) << err;
        return gateways.back();
    }

    // A reply from the echo service: ReturnCode 0 and what it found in the request.
    static fqtest::Responder::Fn echo()
    {
        return [](const std::string& body) -> std::optional<std::string> {
            fq_json_ptr req(json_tokener_parse(body.c_str()));
            json_object* key = nullptr;
            std::string payload = "none";
            if (req && json_object_object_get_ex(req.get(), "_kv_key", &key)) {
                unsigned char* data = nullptr;
                size_t len = 0;
                if (kvstore_get_chunked(suite->cfg, json_object_get_string(key), &data, &len) != 0)
                    payload = "unreadable";
                else
                    payload = std::string((char*)data, len) == expected_payload ? "same" : "different";
                free(data);
            }
            return "{\"ReturnCode\": 0, \"Payload\": \"" + payload + "\"}";
        };
    }

    // One request through the gateway client: the reply's "Payload", or "" with the error in *err.
    static std::string call(const std::string& url, const char* service, const std::string& payload, std::string* err,
                            const char* user = nullptr, const char* password = nullptr, const char* ca = nullptr)
    {
        fq_gateway_opts_t opts;
        fq_gateway_opts_defaults(&opts);
        opts.ca_path = ca;
        json_object* raw = nullptr;
        char buf[1024] = "";
        const int rc = fq_gateway_send_recv_scan(url.c_str(), user, password, service, "{\"Command\": 101}",
                                                 payload.data(), payload.size(), &opts, 30000, &raw, buf);
        fq_json_ptr reply(raw);
        *err = buf;
        json_object* v = nullptr;
        if (rc != 0 || !json_object_object_get_ex(reply.get(), "Payload", &v))
            return "";
        return json_object_get_string(v);
    }

    std::vector<fqtest::GatewayProcess> gateways;
};

TEST_F(Gateway, ForwardsRequestsAndStagedPayloadsOverHttpAndHttps)
{
    // Larger than one chunk of the store, with bytes that mean something to multipart; set before
    // the service's thread exists.
    expected_payload =
        std::string(600 * 1024, 'a') + std::string("\r\n--boundary\0\r\n\r\n", 17) + std::string(1000, '\xff');
    fqtest::Responder svc(suite->peer, "svc.echo", echo());
    std::string err;
    const auto& plain = start({});
    EXPECT_EQ("none", call(plain.url, "svc.echo", "", &err)) << err;
    EXPECT_EQ("same", call(plain.url + "/", "svc.echo", expected_payload, &err)) << err;

    fqtest::TempDir pki;
    ASSERT_TRUE(fqtest::make_test_pki(pki.path(), &err)) << err;
    fqtest::write_file(pki / "auth", "alice:s3cret:with colon\n");
    const auto& tls = start({"--tls-cert", pki / "server.pem", "--tls-key", pki / "server-key.pem", "--auth-file",
                             pki / "auth"});
    ASSERT_EQ(0u, tls.url.rfind("https://", 0));
    const std::string ca = pki / "ca.pem";
    EXPECT_EQ("same", call(tls.url, "svc.echo", expected_payload, &err, "alice", "s3cret:with colon", ca.c_str()))
        << err;
    for (const char* password : {"s3cret", "", "s3cret:with colon ", static_cast<const char*>(nullptr)}) {
        EXPECT_EQ("", call(tls.url, "svc.echo", "x", &err, "alice", password, ca.c_str()));
        EXPECT_EQ(0u, err.find("HTTP gateway returned status 401: ")) << err;
    }
    const std::string other = pki / "other-ca.pem";
    EXPECT_EQ("", call(tls.url, "svc.echo", "x", &err, "alice", "s3cret:with colon", other.c_str()));
    EXPECT_EQ(0u, err.find("HTTP gateway request failed: ")) << err;
    EXPECT_EQ(3, svc.count());
}

TEST_F(Gateway, HostileRequestsGetTheirStatusAndNothingReachesAService)
{
    fqtest::Responder svc(suite->peer, "svc.echo", echo());
    // Where the refused names would have gone.
    std::vector<std::unique_ptr<fqtest::Responder>> watch;
    for (const char* subject : {"svc.other", "_INBOX.stolen", "$JS.API.STREAM.DELETE.>"})
        watch.push_back(std::make_unique<fqtest::Responder>(suite->peer, subject, nullptr));
    const auto& gw = start({"--max-body", "64K", "--services", "svc.echo,svc.spare", "--read-timeout", "1s"});

    const std::string boundary = "XyZ";
    auto part = [&](const std::string& name, const std::string& content) {
        return "--" + boundary + "\r\nContent-Disposition: form-data; name=\"" + name + "\"\r\n\r\n" + content + "\r\n";
    };
    const std::string end = "--" + boundary + "--\r\n";
    const std::string good = part("request", "{\"Command\": 3}") + end;
    auto post = [&](const std::string& headers, const std::string& body, const std::string& path = "/vsi") {
        return "POST " + path + " HTTP/1.1\r\nHost: x\r\n" + headers + "Content-Length: " +
               std::to_string(body.size()) + "\r\n\r\n" + body;
    };
    const std::string mp = "Content-Type: multipart/form-data; boundary=" + boundary + "\r\n";
    const std::string to = "X-Target-Service: svc.echo\r\n";
    const struct {
        int status;
        std::string raw;
    } cases[] = {
        {405, "GET /vsi HTTP/1.1\r\nHost: x\r\n" + to + "\r\n"},
        {404, post(to + mp, good, "/other")},
        {400, post(mp, good)},
        {400, post("X-Target-Service: svc.*\r\n" + mp, good)},
        {400, post("X-Target-Service: svc >\r\n" + mp, good)},
        {400, post("X-Target-Service: $JS.API.STREAM.DELETE.KV_fq-av-scan-data\r\n" + mp, good)},
        {400, post("X-Target-Service: _INBOX.stolen\r\n" + mp, good)},
        {400, post(to + to + mp, good)},
        {403, post("X-Target-Service: svc.other\r\n" + mp, good)},
        {415, post(to + "Content-Type: application/json\r\n", "{}")},
        {400, post(to + "Content-Type: multipart/form-data\r\n", good)},
        {413, post(to + mp, part("request", "{}") + part("payload", std::string(70 * 1024, 'x')))},
        {400, post(to + mp, part("request", "{\"Command\": 3}"))},
        {400, post(to + mp, part("payload", "x") + end)},
        {400, post(to + mp, part("request", "not json") + end)},
        {400, post(to + mp, part("request", "{} {}") + end)},
        {400, post(to + mp, part("request", "{\"_kv_key\": \"someone-elses\"}") + end)},
        {400, post(to + mp, part("request", "{\"ObjectLen\": 5}") + part("payload", "toolong") + end)},
        {400, post(to + mp, part("request", "{}") + part("request", "{}") + end)},
        {400, post(to + mp, part("extra", "x") + good)},
        {400, post(to + mp, "--" + boundary + "\r\nContent-Type: text/plain\r\n\r\n{}\r\n--" + boundary + "--\r\n")},
        {400, post(to + mp, "--" + boundary + "garbage")},
    };
    for (const auto& c : cases) {
        const fqtest::HttpMessage resp = fqtest::http_exchange(gw.port, c.raw, 10s);
        fq_json_ptr body(json_tokener_parse(resp.body.c_str()));
        json_object* rc = nullptr;
        EXPECT_EQ(c.status, resp.status()) << c.raw.substr(0, 300) << "\n->\n" << resp.head << resp.body;
        EXPECT_TRUE(json_object_object_get_ex(body.get(), "ReturnCode", &rc) && json_object_get_int(rc) == -1000);
    }
    EXPECT_NE(std::string::npos, gw.log().find("400 for (no service): header X-Target-Service given more than once"));

    // A client too slow for the read limit is cut off without a reply.
    const auto t0 = std::chrono::steady_clock::now();
    const std::string partial = "POST /vsi HTTP/1.1\r\nHost: x\r\n" + to + mp + "Content-Length: 500\r\n\r\n--XyZ";
    EXPECT_EQ("", fqtest::http_exchange(gw.port, partial, 15s).head);
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 10s);

    // The well-formed request still works, and it is the only one the service ever saw.
    EXPECT_EQ(200, fqtest::http_exchange(gw.port, post(to + mp, good), 10s).status());
    EXPECT_EQ(1, svc.count());
    for (const auto& w : watch)
        EXPECT_EQ(0, w->count());
}

TEST_F(Gateway, FailedForwardsAreNeverAnswered200AndTheLimitsHold)
{
    fqtest::Responder quiet(suite->peer, "svc.quiet", [](const std::string&) { return std::nullopt; });
    fqtest::Responder broken(suite->peer, "svc.broken", [](const std::string&) { return std::string("not json"); });
    const auto& gw = start({"--forward-timeout", "2s", "--threads", "1"});
    std::string err;
    const struct {
        const char* service;
        const char* error;
    } cases[] = {
        {"svc.nobody", "HTTP gateway returned status 502: "},
        {"svc.quiet", "HTTP gateway returned status 504: "},
        {"svc.broken", "HTTP gateway returned status 502: "},
    };
    for (const auto& c : cases) {
        EXPECT_EQ("", call(gw.url, c.service, "payload", &err));
        EXPECT_EQ(0u, err.find(c.error)) << c.service << ": " << err;
        EXPECT_NE(std::string::npos, err.find("\"ReturnCode\":-1000")) << err;
    }

    // One request at a time: the second, while the first waits for its service, gets 503.
    std::thread first([&] {
        std::string e;
        call(gw.url, "svc.quiet", "", &e);
    });
    ASSERT_TRUE(fqtest::wait_until([&] { return quiet.count() == 2; }, 10s));
    EXPECT_EQ("", call(gw.url, "svc.quiet", "", &err));
    EXPECT_EQ(0u, err.find("HTTP gateway returned status 503: ")) << err;
    first.join();
}

TEST_F(Gateway, StopsPromptlyWhileARequestWaitsForItsService)
{
    fqtest::Responder quiet(suite->peer, "svc.quiet", [](const std::string&) { return std::nullopt; });
    auto& gw = start({"--forward-timeout", "60s"});
    std::string err;
    std::thread client([&] { call(gw.url, "svc.quiet", "", &err); });
    ASSERT_TRUE(fqtest::wait_until([&] { return quiet.count() == 1; }, 10s));
    const auto t0 = std::chrono::steady_clock::now();
    ASSERT_EQ(0, kill(gw.child.pid, SIGTERM));
    int status = -1;
    ASSERT_TRUE(fqtest::wait_exit(gw.child.pid, 20s, &status)) << gw.log();
    gw.child.pid = -1;
    EXPECT_LT(std::chrono::steady_clock::now() - t0, 5s);
    EXPECT_EQ(0, status) << gw.log();
    client.join();
    EXPECT_EQ(0u, err.find("HTTP gateway re")) << err;  // a failure status or a broken transfer, never a reply
    EXPECT_EQ(std::string::npos, err.find("status 200")) << err;
}

}  // namespace
