#include "http_stub.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

namespace fqtest {

namespace {

struct sockaddr_in s_loopback(int port)
{
    struct sockaddr_in addr {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons((uint16_t)port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return addr;
}

// Reads one message from fd until it is whole by its Content-Length, the peer closes, or the
// deadline (or stop) comes; its head stays empty unless the blank line after it arrived.
HttpMessage s_read_message(int fd, std::chrono::steady_clock::time_point deadline, const std::atomic<bool>* stop)
{
    std::string data;
    HttpMessage m;
    while (std::chrono::steady_clock::now() < deadline && !(stop && *stop)) {
        const size_t blank = data.find("\r\n\r\n");
        if (blank != std::string::npos) {
            m.head = data.substr(0, blank + 2);
            const std::string len = m.header("Content-Length");
            if (data.size() >= blank + 4 + strtoul(len.c_str(), nullptr, 10))
                break;
        }
        struct pollfd p = {fd, POLLIN, 0};
        if (poll(&p, 1, 50) <= 0)
            continue;
        char buf[65536];
        const ssize_t n = recv(fd, buf, sizeof(buf), 0);
        if (n <= 0)
            break;
        data.append(buf, (size_t)n);
    }
    const size_t blank = data.find("\r\n\r\n");
    if (blank != std::string::npos) {
        m.head = data.substr(0, blank + 2);
        m.body = data.substr(blank + 4);
    }
    return m;
}

}  // namespace

std::string HttpMessage::header(const std::string& name) const
{
    const size_t at = head.find("\r\n" + name + ": ");
    if (at == std::string::npos)
        return "";
    const size_t from = at + name.size() + 4;
    return head.substr(from, head.find("\r\n", from) - from);
}

std::string HttpMessage::path() const
{
    const size_t sp = head.find(' ');
    return sp == std::string::npos ? "" : head.substr(sp + 1, head.find(' ', sp + 1) - sp - 1);
}

int HttpMessage::status() const
{
    return head.compare(0, 5, "HTTP/") == 0 ? atoi(path().c_str()) : 0;
}

HttpStub::HttpStub(Fn fn) : fn_(std::move(fn))
{
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in addr = s_loopback(0);
    socklen_t len = sizeof(addr);
    if (listener_ < 0 || bind(listener_, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) != 0 ||
        listen(listener_, 16) != 0 || getsockname(listener_, reinterpret_cast<struct sockaddr*>(&addr), &len) != 0)
        return;
    port_ = ntohs(addr.sin_port);
    thread_ = std::thread([this] { run(); });
}

HttpStub::~HttpStub()
{
    stop_ = true;
    if (thread_.joinable())
        thread_.join();
    if (listener_ >= 0)
        close(listener_);
}

std::vector<HttpMessage> HttpStub::requests() const
{
    std::lock_guard<std::mutex> lock(mu_);
    return requests_;
}

void HttpStub::run()
{
    while (!stop_) {
        struct pollfd p = {listener_, POLLIN, 0};
        const int fd = poll(&p, 1, 50) > 0 ? accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC) : -1;
        if (fd < 0)
            continue;
        const HttpMessage req = s_read_message(fd, std::chrono::steady_clock::now() + std::chrono::seconds(10), &stop_);
        if (!req.head.empty()) {
            {
                std::lock_guard<std::mutex> lock(mu_);
                requests_.push_back(req);
            }
            const HttpAnswer a = fn_(req);
            for (int waited = 0; waited < a.delay_ms && !stop_; waited += 10)
                usleep(10000);
            const std::string resp = "HTTP/1.1 " + std::to_string(a.status) + " Scripted\r\nContent-Length: " +
                                     std::to_string(a.body.size()) + "\r\nConnection: close\r\n" + a.extra_headers +
                                     "\r\n" + a.body;
            // A client that gave up first (its time-out) makes this fail; nothing more to do then.
            (void)!send(fd, resp.data(), resp.size(), MSG_NOSIGNAL);
        }
        close(fd);
    }
}

HttpMessage http_exchange(int port, const std::string& raw, std::chrono::milliseconds limit)
{
    HttpMessage m;
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in addr = s_loopback(port);
    if (fd >= 0 && connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) == 0 &&
        send(fd, raw.data(), raw.size(), MSG_NOSIGNAL) >= 0)
        m = s_read_message(fd, std::chrono::steady_clock::now() + limit, nullptr);
    if (fd >= 0)
        close(fd);
    return m;
}

bool start_gateway(const std::vector<std::string>& args, const std::string& dir, GatewayProcess* gw,
                   std::string* error)
{
    std::vector<std::string> argv = {FQ_BUILD_DIR "/fq-av-gateway", "--listen", "127.0.0.1:0"};
    argv.insert(argv.end(), args.begin(), args.end());
    gw->child = spawn(argv, dir);
    const std::string marker = "listening on ";
    wait_until([&] { return gw->log().find(marker) != std::string::npos || !process_alive(gw->child.pid); },
               std::chrono::milliseconds(20000));
    const std::string log = gw->log();
    const size_t at = log.find(marker);
    const size_t colon = at == std::string::npos ? at : log.find(':', log.find("127.0.0.1", at));
    if (colon == std::string::npos) {
        *error = "fq-av-gateway did not start listening: " + log;
        return false;
    }
    gw->port = atoi(log.c_str() + colon + 1);
    gw->url = log.substr(at + marker.size(), colon - at - marker.size()) + ":" + std::to_string(gw->port);
    return gw->port > 0;
}

}  // namespace fqtest
