// HTTP in tests: a scripted server on 127.0.0.1 that answers each request with what the test says
// and keeps what it was sent, a raw client for requests no well-behaved client would send, and
// fq-av-gateway from the build.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "process_util.h"

namespace fqtest {

struct HttpMessage {
    std::string head;  // the request or status line and the headers, each line ending in "\r\n"
    std::string body;
    // The value of a header as the sender spelt its name, "" without it.
    std::string header(const std::string& name) const;
    // The request's path, or the response's status.
    std::string path() const;
    int status() const;
};

struct HttpAnswer {
    int status;
    std::string body;
    std::string extra_headers;  // whole lines, each ending in "\r\n"
    int delay_ms;               // before answering; cut short when the stub goes
    HttpAnswer(int s = 200, std::string b = "", std::string h = "", int delay = 0)
        : status(s), body(std::move(b)), extra_headers(std::move(h)), delay_ms(delay)
    {
    }
};

// Serves one connection at a time, each with one request and "Connection: close".
class HttpStub {
public:
    using Fn = std::function<HttpAnswer(const HttpMessage&)>;
    explicit HttpStub(Fn fn);
    ~HttpStub();
    HttpStub(const HttpStub&) = delete;
    HttpStub& operator=(const HttpStub&) = delete;
    int port() const { return port_; }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_); }
    std::vector<HttpMessage> requests() const;

private:
    void run();
    Fn fn_;
    int listener_ = -1;
    int port_ = 0;
    std::atomic<bool> stop_{false};
    mutable std::mutex mu_;
    std::vector<HttpMessage> requests_;
    std::thread thread_;
};

// Sends raw bytes to 127.0.0.1:port and reads the response until the peer closes or it is whole;
// at most limit in all. Nothing (an empty head) when the peer closed without answering.
HttpMessage http_exchange(int port, const std::string& raw, std::chrono::milliseconds limit);

// fq-av-gateway from the build, started with args and a port of its own choosing on 127.0.0.1.
struct GatewayProcess {
    Child child;
    int port = 0;
    std::string url;  // http(s)://127.0.0.1:<port>
    std::string log() const { return read_file(child.stderr_path); }
};
// Waits (bounded) until it listens; false with its output in *error.
bool start_gateway(const std::vector<std::string>& args, const std::string& dir, GatewayProcess* gw,
                   std::string* error);

}  // namespace fqtest
