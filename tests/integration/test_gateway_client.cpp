// The gateway client and the facade's gateway road against a scripted HTTP server: what goes on
// the wire, what counts as a reply, and how the attempts are spent.
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <string.h>

#include <mutex>
#include <string>

#include "fq_connection_client.h"
#include "fq_http_gateway_client.h"
#include "fq_raii.h"
#include "http_stub.h"
#include "log.h"
#include "nats_server.h"

namespace {

// A connection record in gateway mode, initialised.
struct GatewayClient {
    fq_connection_config* cfg = fq_connection_config_new();
    explicit GatewayClient(const std::string& url, const char* user = nullptr, const char* password = nullptr)
    {
        cfg->server_url = strdup(url.c_str());
        cfg->user = user ? strdup(user) : nullptr;
        cfg->password = password ? strdup(password) : nullptr;
        EXPECT_EQ(0, fq_connection_init(cfg));
    }
    ~GatewayClient()
    {
        fq_connection_deinit(cfg);
        fqtest::free_config(&cfg);
    }
    // A data request through the facade: the reply's text (also left in rr->reply), or "" with *err.
    std::string scan(const std::string& json, const std::string& payload, uint32_t retries, std::string* err,
                     uint64_t timeout_ms = 5000)
    {
        fq_const_rr_ptr rr(fq_const_request_reply_new());
        rr->request->json_txt = json.c_str();
        rr->request->data = reinterpret_cast<const unsigned char*>(payload.data());
        rr->request->data_len = payload.size();
        char buf[1024] = "";
        fq_json_ptr reply(fq_connection_send_recv_json_data(cfg, "fq-av-scanproxy", rr.get(), timeout_ms, 0, retries,
                                                            buf));
        *err = buf;
        const std::string text = rr->reply->json_txt ? rr->reply->json_txt : "";
        free(rr->reply->json_txt);
        EXPECT_EQ(std::string(reply ? json_object_to_json_string(reply.get()) : ""), text);
        return text;
    }
};

TEST(GatewayClient, RequestOnTheWire)
{
    fqtest::HttpStub stub([](const fqtest::HttpMessage&) { return fqtest::HttpAnswer{200, "{\"ReturnCode\": 1}"}; });
    const std::string payload("obj\0\r\n--bytes", 14);
    std::string err;
    {
        GatewayClient c(stub.url(), "alice", "pw");
        EXPECT_NE("", c.scan("{\"Command\": 101}", payload, 0, &err)) << err;
        EXPECT_EQ(1, fq_connection_simple_request(c.cfg, "fq-av-scanproxy.ping", "{}", 5000, -1, nullptr));
    }
    {
        // A user without a password sends no credentials; a URL with a path keeps it.
        GatewayClient c(stub.url() + "/custom/path", "alice");
        EXPECT_NE("", c.scan("{}", "", 0, &err)) << err;
    }
    const auto reqs = stub.requests();
    ASSERT_EQ(3u, reqs.size());
    EXPECT_EQ(0u, reqs[0].head.rfind("POST /vsi HTTP/1.1\r\n", 0));
    EXPECT_EQ("fernquill-av-client/4", reqs[0].header("User-Agent"));
    EXPECT_EQ("fq-av-scanproxy", reqs[0].header("X-Target-Service"));
    EXPECT_EQ("Basic YWxpY2U6cHc=", reqs[0].header("Authorization"));
    EXPECT_EQ("", reqs[0].header("Expect"));
    EXPECT_EQ(0u, reqs[0].header("Content-Type").rfind("multipart/form-data; boundary=", 0));
    const std::string& b = reqs[0].body;
    const size_t request_part = b.find("name=\"request\"\r\nContent-Type: application/json\r\n\r\n{\"Command\": 101}");
    const size_t payload_part = b.find("name=\"payload\"\r\nContent-Type: application/octet-stream\r\n\r\n" + payload);
    EXPECT_NE(std::string::npos, payload_part) << b;
    EXPECT_LT(request_part, payload_part);

    EXPECT_EQ("fq-av-scanproxy.ping", reqs[1].header("X-Target-Service"));
    EXPECT_EQ("/custom/path", reqs[2].path());
    EXPECT_EQ("", reqs[2].header("Authorization"));
    for (size_t i : {1, 2})
        EXPECT_EQ(std::string::npos, reqs[i].body.find("name=\"payload\"")) << i;

    EXPECT_EQ("https://gw:443/vsi", fq_gateway_request_url("https://gw:443", nullptr));
    EXPECT_EQ("https://gw//vsi", fq_gateway_request_url("https://gw/", "/vsi"));
    EXPECT_EQ("http://gw/x", fq_gateway_request_url("http://gw/x", "/other"));
}

TEST(GatewayClient, OnlyA200WithJsonIsAReplyAndTheLastFailureIsKept)
{
    std::mutex mu;  // the script, changed between cases while the stub's thread reads it
    int n = 0;
    fqtest::HttpAnswer answer;
    fqtest::HttpStub stub([&](const fqtest::HttpMessage&) {
        std::lock_guard<std::mutex> lock(mu);
        fqtest::HttpAnswer a = answer;
        a.body += a.body.empty() ? "" : std::to_string(++n);  // which attempt answered
        return a;
    });
    GatewayClient c(stub.url(), "u", "p");
    const std::string page(300, 'x');
    const struct {
        fqtest::HttpAnswer answer;
        uint32_t retries;
        std::string error;
    } cases[] = {
        {{503, "refused "}, 2, "HTTP gateway returned status 503: refused 3"},
        {{500, page}, 0, "HTTP gateway returned status 500: " + page.substr(0, 200)},
        {{200, "not json "}, 1, "failed to parse JSON from HTTP gateway response"},
        {{200, ""}, 0, "empty response from HTTP gateway"},
        {{204, ""}, 0, "HTTP gateway returned status 204: "},
        // Not followed: the stub would count a second request.
        {{302, "moved ", "Location: /vsi\r\n"}, 0, "HTTP gateway returned status 302: moved 1"},
        {{200, "{}", "", 3000}, 0, "HTTP gateway request failed: Timeout was reached"},
    };
    for (const auto& k : cases) {
        {
            std::lock_guard<std::mutex> lock(mu);
            answer = k.answer;
            n = 0;
        }
        const size_t before = stub.requests().size();
        std::string err;
        EXPECT_EQ("", c.scan("{}", "x", k.retries, &err, 300)) << k.error;
        EXPECT_EQ(k.error, err);
        EXPECT_EQ(k.retries + 1, stub.requests().size() - before) << k.error;
    }
}

TEST(GatewayClient, RefusedNamesProxyAndTraceOfTheHeaders)
{
    fqtest::HttpStub stub([](const fqtest::HttpMessage&) { return fqtest::HttpAnswer{200, "{}"}; });
    fq_gateway_opts_t opts;
    fq_gateway_opts_defaults(&opts);
    json_object* reply = nullptr;
    char err[1024] = "";
    // A service name that could end the header or steer the gateway is never sent.
    for (const char* bad : {"svc\r\nX-Evil: 1", "svc.*", "a b", ""}) {
        EXPECT_EQ(-1, fq_gateway_send_recv_json(stub.url().c_str(), "u", "p", bad, "{}", &opts, 1000, &reply, err));
        EXPECT_NE(nullptr, strstr(err, "refused")) << err;
    }
    EXPECT_TRUE(stub.requests().empty());

    // Through a proxy the request line names the gateway, and the proxy gets its own credentials.
    const std::string port = std::to_string(stub.port());
    opts.proxy_host = "127.0.0.1";
    opts.proxy_port = port.c_str();
    opts.proxy_user = "pu";
    opts.proxy_password = "pp";
    fqtest::StderrCapture cap;
    const int level = log_get_level();
    log_set_level(FQLOG_TRACE);
    const int rc = fq_gateway_send_recv_json("http://gateway.example:8080", "alice", "pw", "svc", "{}", &opts, 5000,
                                             &reply, err);
    log_set_level(level);
    ASSERT_EQ(0, rc) << err;
    json_object_put(reply);
    ASSERT_EQ(1u, stub.requests().size());
    EXPECT_EQ("http://gateway.example:8080/vsi", stub.requests()[0].path());
    EXPECT_EQ("Basic cHU6cHA=", stub.requests()[0].header("Proxy-Authorization"));
    for (const char* line : {"curl >>: X-Target-Service: svc", "curl >>: Authorization: Basic YWxpY2U6cHc=",
                             "curl <<: HTTP/1.1 200 Scripted", "fq_http_gateway_client: response (2 bytes): {}"})
        EXPECT_TRUE(cap.contains(line)) << line;
}

}  // namespace
