// A real nats-server for tests: started on a free loopback port with its own store, stopped by
// its PID, optionally with TLS, user/password or a monitoring port; plus helpers for peers.
#pragma once

#include <nats/nats.h>
#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "fq_connection_client.h"
#include "fq_provision.h"
#include "fq_raii.h"
#include "process_util.h"
#include "stderr_capture.h"

namespace fqtest {

struct NatsServerOptions {
    bool tls = false;      // certificates are made with openssl in the server's directory
    std::string user;      // with password: the server requires them
    std::string password;
    int port = 0;          // 0 picks a free port
    bool jetstream = true;
    bool monitor = false;  // an HTTP monitoring port on loopback (see monitor_port())
};

class NatsServer {
public:
    explicit NatsServer(NatsServerOptions opts = {});
    ~NatsServer();
    NatsServer(const NatsServer&) = delete;
    NatsServer& operator=(const NatsServer&) = delete;

    // Starts the server and waits (bounded) until it answers; false with the reason in *error.
    // May be called again after stop(): same port, same store.
    bool start(std::string* error = nullptr);
    // SIGTERM, a bounded wait, SIGKILL if it is still there.
    void stop();
    bool running() const { return pid_ > 0; }

    pid_t pid() const { return pid_; }
    int port() const { return port_; }
    int monitor_port() const { return monitor_port_; }
    const std::string& dir() const { return dir_; }
    // nats://127.0.0.1:<port>, or tls://<host>:<port> for a TLS server.
    std::string url(const std::string& host = "127.0.0.1") const;
    // CA that signed the server's certificate (TLS only), and one that did not.
    std::string ca_file() const { return dir_ + "/ca.pem"; }
    std::string other_ca_file() const { return dir_ + "/other-ca.pem"; }
    std::string log_path() const { return dir_ + "/server.log"; }

    // Buckets and, for the comma-separated services, work queues, made by the provisioning code.
    bool provision(const fq_provision_opts_t* opts = nullptr, const char* services = nullptr,
                   std::string* error = nullptr) const;
    // A plain client connection for in-test peers, SendAsap on; null with *error on failure.
    natsConnection* connect_peer(std::string* error = nullptr) const;
    // A connection record as the worker would fill it for this server (heap texts).
    fq_connection_config* make_config() const;

private:
    NatsServerOptions opts_;
    std::string dir_;
    int port_ = 0;
    int monitor_port_ = 0;
    pid_t pid_ = -1;
};

// An in-test service on a peer connection: answers each request with what fn returns
// (nothing for std::nullopt) and keeps the bodies it was sent.
class Responder {
public:
    using Fn = std::function<std::optional<std::string>(const std::string& body)>;
    // Subscribed, and known to the server, when the constructor returns.
    Responder(natsConnection* nc, const std::string& subject, Fn fn);
    ~Responder();
    Responder(const Responder&) = delete;
    Responder& operator=(const Responder&) = delete;
    bool ok() const { return sub_ != nullptr; }
    int count() const { return count_.load(); }
    std::vector<std::string> bodies() const;

private:
    static void on_msg(natsConnection* nc, natsSubscription* sub, natsMsg* msg, void* closure);
    natsConnection* nc_;
    natsSubscription* sub_ = nullptr;
    Fn fn_;
    std::atomic<int> count_{0};
    mutable std::mutex mu_;
    std::vector<std::string> bodies_;
};

// What a suite of broker tests shares: a provisioned server, a connection record initialised for
// it, a plain peer connection and, when started, one real program of this build serving on it.
// error is empty while all of it is up.
struct BrokerSuite {
    NatsServer* server = nullptr;
    fq_connection_config* cfg = nullptr;
    natsConnection* peer = nullptr;
    TempDir* dir = nullptr;
    Child program;
    std::string error;

    // opts: the buckets' settings, null for the defaults.
    void start(const fq_provision_opts_t* opts = nullptr);
    // Starts build/<name> --broker <url> args... and waits until subject answers a ping.
    void start_program(const std::string& name, const std::vector<std::string>& args, const std::string& subject);
    void stop();
    // A request to a service with the object's bytes staged beside it, as the worker sends it:
    // the parsed reply (owned by the caller), or null.
    json_object* send(const std::string& subject, const std::string& job, const std::string& bytes,
                      uint64_t timeout_ms = 20000) const;
};

// A program of this build.
std::string build_program(const std::string& name);

// A core request on a plain connection: the reply body, or nullopt (time-out, no responders);
// the status in *status when given.
std::optional<std::string> request(natsConnection* nc, const std::string& subject, const std::string& body,
                                   int timeout_ms = 2000, natsStatus* status = nullptr);
// true once subject answers a ping within limit.
bool answers_ping(natsConnection* nc, const std::string& subject,
                  std::chrono::milliseconds limit = std::chrono::milliseconds(20000));
// The keys in fq-av-scan-data right now, read over a peer connection.
std::vector<std::string> staged_keys(natsConnection* nc);

// Frees a record from make_config with the texts it owns; the connection must be closed.
void free_config(fq_connection_config** cfg);
// Closes the record's connection, then frees it like free_config.
void close_config(fq_connection_config* cfg);
using ConfigPtr = std::unique_ptr<fq_connection_config, fq::fn_deleter<close_config>>;

// A TCP port on 127.0.0.1 that nothing listens on right now.
int free_tcp_port();
// True once something on the loopback port greets a TCP client with "INFO", as nats-server does.
bool server_greets(int port);

// Creates ca.pem, server.pem / server-key.pem (for localhost and 127.0.0.1) and other-ca.pem in dir.
bool make_test_pki(const std::string& dir, std::string* error);

}  // namespace fqtest
