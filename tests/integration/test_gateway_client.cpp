// The gateway client and the facade's gateway road against a scripted HTTP server: what goes on
// the wire, what counts as a reply, and how the attempts are spent.
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <string.h>

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
    // A data request through the facade; the reply's text, or "" with the error in *err.
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
        // The reply also lands in rr->reply as text, the same document.
        std::string text = rr->reply->json_txt ? rr->reply->json_txt : "";
        free(rr->reply->json_txt);
        if (reply) {
            EXPECT_EQ(json_object_to_json_string(reply.get()), text);
        }
        return reply ? text : "";
    }
};

TEST(GatewayClient, RequestOnTheWire)
{
    fqtest::HttpStub stub([](const fqtest::HttpRequest&) { return fqtest::HttpAnswer{200, "{\"ReturnCode\": 1}"}; });
    const std::string payload("obj\0\r\n--bytes", 14);
    {
        GatewayClient c(stub.url(), "alice", "pw");
        std::string err;
        EXPECT_NE("", c.scan("{\"Command\": 101}", payload, 0, &err)) << err;
        EXPECT_EQ(1, fq_connection_simple_request(c.cfg, "fq-av-scanproxy.ping", "{\"Command\": 3}", 5000, -1, nullptr));
    }
    {
        // A user without a password sends no credentials; a URL with a path keeps it.
        GatewayClient c(stub.url() + "/custom/path", "alice");
        std::string err;
        EXPECT_NE("", c.scan("{}", "", 0, &err)) << err;
    }
    const auto reqs = stub.requests();
    ASSERT_EQ(3u, reqs.size());
    EXPECT_EQ("POST", reqs[0].method);
    EXPECT_EQ("/vsi", reqs[0].path);
    EXPECT_EQ("fernquill-av-client/4", reqs[0].header("User-Agent"));
    EXPECT_EQ("fq-av-scanproxy", reqs[0].header("X-Target-Service"));
    EXPECT_EQ("Basic YWxpY2U6cHc=", reqs[0].header("Authorization"));
    EXPECT_FALSE(reqs[0].has_header("Expect"));
    EXPECT_EQ(0u, reqs[0].header("Content-Type").rfind("multipart/form-data; boundary=", 0));
    const std::string& body = reqs[0].body;
    const size_t request_part = body.find("name=\"request\"\r\nContent-Type: application/json\r\n\r\n{\"Command\": 101}");
    const size_t payload_part = body.find("name=\"payload\"\r\nContent-Type: application/octet-stream\r\n\r\n" + payload);
    EXPECT_NE(std::string::npos, request_part) << body;
    EXPECT_NE(std::string::npos, payload_part) << body;
    EXPECT_LT(request_part, payload_part);

    EXPECT_EQ("fq-av-scanproxy.ping", reqs[1].header("X-Target-Service"));
    EXPECT_EQ(std::string::npos, reqs[1].body.find("name=\"payload\""));
    EXPECT_EQ("/custom/path", reqs[2].path);
    EXPECT_FALSE(reqs[2].has_header("Authorization"));
    EXPECT_EQ(std::string::npos, reqs[2].body.find("name=\"payload\""));
}

TEST(GatewayClient, UrlsGetTheServletPathOnlyWithoutAPathOfTheirOwn)
{
    EXPECT_EQ("https://gw:443/vsi", fq_gateway_request_url("https://gw:443", nullptr));
    EXPECT_EQ("https://gw:443/custom/path", fq_gateway_request_url("https://gw:443/custom/path", "/vsi"));
    EXPECT_EQ("https://gw//vsi", fq_gateway_request_url("https://gw/", nullptr));
    EXPECT_EQ("http://gw/x", fq_gateway_request_url("http://gw/x", "/other"));
    EXPECT_EQ("http://gw/other", fq_gateway_request_url("http://gw", "/other"));
}

TEST(GatewayClient, OnlyA200WithJsonIsAReplyAndTheLastFailureIsKept)
{
    int n = 0;
    fqtest::HttpAnswer answer;
    fqtest::HttpStub stub([&](const fqtest::HttpRequest&) {
        fqtest::HttpAnswer a = answer;
        a.body += std::to_string(++n);
        return a;
    });
    GatewayClient c(stub.url(), "u", "p");
    const std::string long_page(300, 'x');
    struct Case {
        fqtest::HttpAnswer answer;
        uint32_t retries;
        std::string error;  // the text for the last attempt (its number is appended to every body)
    } cases[] = {
        {{503, "refused "}, 2, "HTTP gateway returned status 503: refused 3"},
        {{500, long_page}, 0, "HTTP gateway returned status 500: " + long_page.substr(0, 200)},
        {{200, "not json "}, 1, "failed to parse JSON from HTTP gateway response"},
        {{204, ""}, 0, "HTTP gateway returned status 204: "},
        // Not followed: the stub would count a second request.
        {{302, "moved ", "Location: /vsi\r\n"}, 0, "HTTP gateway returned status 302: moved 1"},
        {{200, "{\"late\": ", "", 3000}, 0, "HTTP gateway request failed: Timeout was reached"},
    };
    for (const Case& k : cases) {
        answer = k.answer;
        n = 0;
        const size_t before = stub.requests().size();
        std::string err;
        EXPECT_EQ("", c.scan("{}", "x", k.retries, &err, 300)) << k.error;
        if (k.error.find("204") != std::string::npos)
            EXPECT_EQ(0u, err.find(k.error)) << err;
        else
            EXPECT_EQ(k.error, err);
        EXPECT_EQ(k.retries + 1, stub.requests().size() - before) << k.error;
    }
    // A 200 without a body is no reply either.
    fqtest::HttpStub empty([](const fqtest::HttpRequest&) { return fqtest::HttpAnswer{200, ""}; });
    GatewayClient e(empty.url());
    std::string err;
    EXPECT_EQ("", e.scan("{}", "", 0, &err));
    EXPECT_EQ("empty response from HTTP gateway", err);
}

TEST(GatewayClient, RefusedNamesProxyAndTraceOfTheHeaders)
{
    fqtest::HttpStub stub([](const fqtest::HttpRequest&) { return fqtest::HttpAnswer{200, "{}"}; });
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
    EXPECT_EQ("http://gateway.example:8080/vsi", stub.requests()[0].path);
    EXPECT_EQ("Basic cHU6cHA=", stub.requests()[0].header("Proxy-Authorization"));
    EXPECT_TRUE(cap.contains("curl >>: X-Target-Service: svc"));
    EXPECT_TRUE(cap.contains("curl >>: Authorization: Basic YWxpY2U6cHc="));
    EXPECT_TRUE(cap.contains("curl <<: HTTP/1.1 200 Scripted"));
    EXPECT_TRUE(cap.contains("fq_http_gateway_client: response (2 bytes): {}"));
}

}  // namespace
