// A real nats-server for tests: started on a free loopback port with its own store,
// stopped by its PID, optionally with TLS or user/password; plus helpers for peers.
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
#include "stderr_capture.h"

namespace fqtest {

struct NatsServerOptions {
    bool tls = false;      // certificates are made with openssl in the server's directory
    std::string user;      // with password: the server requires them
    std::string password;
    int port = 0;          // 0 picks a free port
    bool jetstream = true;
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
    const std::string& dir() const { return dir_; }
    // nats://127.0.0.1:<port>, or tls://<host>:<port> for a TLS server.
    std::string url(const std::string& host = "127.0.0.1") const;
    // CA that signed the server's certificate (TLS only), and one that did not.
    std::string ca_file() const { return dir_ + "/ca.pem"; }
    std::string other_ca_file() const { return dir_ + "/other-ca.pem"; }
    std::string log_text() const;

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

// What a suite of broker tests shares: a provisioned server, a connection record initialised
// for it and a plain peer connection. error is empty when all three are up.
struct BrokerSuite {
    NatsServer* server = nullptr;
    fq_connection_config* cfg = nullptr;
    natsConnection* peer = nullptr;
    std::string error;

    void start();
    void stop();
};

// The keys in fq-av-scan-data right now, read over a peer connection.
std::vector<std::string> staged_keys(natsConnection* nc);

// Frees a record from make_config with the texts it owns; the connection must be closed.
void free_config(fq_connection_config** cfg);

// A TCP port on 127.0.0.1 that nothing listens on right now.
int free_tcp_port();

// Runs a program to its end (bounded; killed after limit) with stdout and stderr together in
// *output; its exit status, or -1 if it could not run or had to be killed.
int run_program(const std::vector<std::string>& argv, std::string* output,
                std::chrono::milliseconds limit = std::chrono::milliseconds(30000));

// Polls cond until it holds or limit has passed.
bool wait_for(const std::function<bool()>& cond, std::chrono::milliseconds limit);

// Creates ca.pem, server.pem / server-key.pem (for localhost and 127.0.0.1) and other-ca.pem in dir.
bool make_test_pki(const std::string& dir, std::string* error);


}  // namespace fqtest
