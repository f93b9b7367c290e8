#include "http_stub.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

namespace fqtest {

namespace {

int s_connect(int port)
{
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in addr {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons((uint16_t)port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (fd >= 0 && connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) == 0)
        return fd;
    if (fd >= 0)
        close(fd);
    return -1;
}

// Reads what is there within ms; false when the peer closed or failed.
bool s_read_some(int fd, std::string* into, int ms)
{
    struct pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, ms) <= 0)
        return true;
    char buf[65536];
    const ssize_t n = recv(fd, buf, sizeof(buf), 0);
    if (n <= 0)
        return false;
    into->append(buf, (size_t)n);
    return true;
}

// The length a message announces in its head, or 0.
size_t s_content_length(const std::string& head)
{
    size_t pos = 0;
    while ((pos = head.find("\r\n", pos)) != std::string::npos) {
        pos += 2;
        if (strncasecmp(head.c_str() + pos, "Content-Length:", 15) == 0)
            return strtoul(head.c_str() + pos + 15, nullptr, 10);
    }
    return 0;
}

// Whether data holds a whole message: head, blank line and the announced body.
bool s_complete(const std::string& data, size_t* head_end)
{
    const size_t blank = data.find("\r\n\r\n");
    if (blank == std::string::npos)
        return false;
    *head_end = blank + 4;
    return data.size() >= *head_end + s_content_length(data.substr(0, blank));
}

}  // namespace

std::string HttpRequest::header(const std::string& name) const
{
    for (const auto& [k, v] : headers)
        if (strcasecmp(k.c_str(), name.c_str()) == 0)
            return v;
    return "";
}

bool HttpRequest::has_header(const std::string& name) const
{
    for (const auto& kv : headers)
        if (strcasecmp(kv.first.c_str(), name.c_str()) == 0)
            return true;
    return false;
}

HttpStub::HttpStub(Fn fn) : fn_(std::move(fn))
{
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in addr {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
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

std::vector<HttpRequest> HttpStub::requests() const
{
    std::lock_guard<std::mutex> lock(mu_);
    return requests_;
}

void HttpStub::run()
{
    while (!stop_) {
        struct pollfd p = {listener_, POLLIN, 0};
        if (poll(&p, 1, 50) <= 0)
            continue;
        const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            continue;
        std::string data;
        size_t head_end = 0;
        bool open = true;
        for (int waited = 0; open && !s_complete(data, &head_end) && waited < 10000 && !stop_; waited += 50)
            open = s_read_some(fd, &data, 50);
        if (s_complete(data, &head_end)) {
            HttpRequest req;
            const std::string head = data.substr(0, head_end - 4);
            size_t eol = head.find("\r\n");
            const std::string line = head.substr(0, eol);
            const size_t sp1 = line.find(' '), sp2 = line.rfind(' ');
            req.method = line.substr(0, sp1);
            req.path = line.substr(sp1 + 1, sp2 - sp1 - 1);
            while (eol != std::string::npos) {
                const size_t next = head.find("\r\n", eol + 2);
                const std::string h = head.substr(eol + 2, next == std::string::npos ? std::string::npos : next - eol - 2);
                const size_t colon = h.find(':');
                if (colon != std::string::npos)
                    req.headers.emplace_back(h.substr(0, colon), h.substr(h.find_first_not_of(' ', colon + 1)));
                eol = next;
            }
            req.body = data.substr(head_end);
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
            if (send(fd, resp.data(), resp.size(), MSG_NOSIGNAL) < 0) {
                // The client gave up first (its time-out): nothing more to do.
            }
        }
        close(fd);
    }
}

std::string http_exchange(int port, const std::string& raw, std::chrono::milliseconds limit)
{
    std::string got;
    const int fd = s_connect(port);
    if (fd < 0)
        return got;
    if (send(fd, raw.data(), raw.size(), MSG_NOSIGNAL) >= 0) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        size_t head_end = 0;
        while (!s_complete(got, &head_end) && std::chrono::steady_clock::now() < deadline)
            if (!s_read_some(fd, &got, 50))
                break;
    }
    close(fd);
    return got;
}

int http_status(const std::string& response)
{
    if (response.compare(0, 9, "HTTP/1.1 ") != 0 && response.compare(0, 9, "HTTP/1.0 ") != 0)
        return 0;
    return atoi(response.c_str() + 9);
}

std::string http_body(const std::string& response)
{
    const size_t blank = response.find("\r\n\r\n");
    return blank == std::string::npos ? "" : response.substr(blank + 4);
}

bool start_gateway(const std::vector<std::string>& args, const std::string& dir, GatewayProcess* gw,
                   std::string* error)
{
    std::vector<std::string> argv = {FQ_BUILD_DIR "/fq-av-gateway", "--listen", "127.0.0.1:0"};
    argv.insert(argv.end(), args.begin(), args.end());
    gw->child = spawn(argv, dir);
    const std::string marker = "listening on ";
    const bool up = wait_until(
        [&] { return gw->log().find(marker) != std::string::npos || !process_alive(gw->child.pid); },
        std::chrono::milliseconds(20000));
    const std::string log = gw->log();
    const size_t at = log.find(marker);
    if (!up || at == std::string::npos) {
        *error = "fq-av-gateway did not start listening: " + log;
        return false;
    }
    const size_t colon = log.find(':', log.find("127.0.0.1", at));
    gw->port = atoi(log.c_str() + colon + 1);
    gw->url = log.substr(at + marker.size(), colon - at - marker.size()) + ":" + std::to_string(gw->port);
    return gw->port > 0;
}

}  // namespace fqtest
