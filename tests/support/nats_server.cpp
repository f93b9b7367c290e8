#include "nats_server.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>

namespace fqtest {

namespace {

constexpr auto s_start_limit = std::chrono::milliseconds(15000);
constexpr auto s_stop_limit = std::chrono::milliseconds(5000);

// Runs a program to its end with its output appended to log; true when it exits with 0.
bool s_run(const std::vector<std::string>& argv, const std::string& log)
{
    const pid_t pid = spawn_to(argv, log, log);
    int status = -1;
    return pid > 0 && wait_exit(pid, std::chrono::milliseconds(60000), &status) && status == 0;
}

char* s_dup(const std::string& s)
{
    return s.empty() ? nullptr : strdup(s.c_str());
}

}  // namespace

std::vector<std::string> staged_keys(natsConnection* nc)
{
    std::vector<std::string> keys;
    jsCtx* js = nullptr;
    kvStore* kv = nullptr;
    kvKeysList list{};
    if (natsConnection_JetStream(&js, nc, nullptr) == NATS_OK && js_KeyValue(&kv, js, "fq-av-scan-data") == NATS_OK &&
        kvStore_Keys(&list, kv, nullptr) == NATS_OK) {
        for (int i = 0; i < list.Count; ++i)
            keys.emplace_back(list.Keys[i]);
        kvKeysList_Destroy(&list);
    }
    kvStore_Destroy(kv);
    jsCtx_Destroy(js);
    return keys;
}

int free_tcp_port()
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    struct sockaddr_in addr {};
    addr.sin_family = AF_INET;
    addr.sin_port = 0;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    int port = -1;
    if (bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) == 0 &&
        getsockname(fd, reinterpret_cast<struct sockaddr*>(&addr), &len) == 0)
        port = ntohs(addr.sin_port);
    close(fd);
    return port;
}

bool server_greets(int port)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return false;
    struct timeval tv = {0, 200000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
    struct sockaddr_in addr {};
    addr.sin_family = AF_INET;
    addr.sin_port = htons((uint16_t)port);
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool ok = false;
    if (connect(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) == 0) {
        char buf[4] = {0};
        ok = recv(fd, buf, sizeof(buf), MSG_WAITALL) == 4 && memcmp(buf, "INFO", 4) == 0;
    }
    close(fd);
    return ok;
}

bool make_test_pki(const std::string& dir, std::string* error)
{
    const std::string log = dir + "/openssl.log";
    const std::vector<std::string> ec = {"-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes"};
    auto self_signed = [&](const std::string& name, const std::string& cn) {
        std::vector<std::string> a = {"openssl", "req", "-x509"};
        a.insert(a.end(), ec.begin(), ec.end());
        a.insert(a.end(), {"-keyout", dir + "/" + name + "-key.pem", "-out", dir + "/" + name + ".pem", "-days", "2",
                           "-subj", "/CN=" + cn});
        return s_run(a, log);
    };
    write_file(dir + "/server-ext.cnf", "subjectAltName=DNS:localhost,IP:127.0.0.1\n"
                                        "basicConstraints=CA:FALSE\n"
                                        "keyUsage=digitalSignature,keyEncipherment\n"
                                        "extendedKeyUsage=serverAuth\n");
    std::vector<std::string> csr = {"openssl", "req", "-new"};
    csr.insert(csr.end(), ec.begin(), ec.end());
    csr.insert(csr.end(), {"-keyout", dir + "/server-key.pem", "-out", dir + "/server.csr", "-subj", "/CN=localhost"});
    const bool ok = self_signed("ca", "fq test CA") && self_signed("other-ca", "fq other CA") && s_run(csr, log) &&
                    s_run({"openssl", "x509", "-req", "-in", dir + "/server.csr", "-CA", dir + "/ca.pem", "-CAkey",
                           dir + "/ca-key.pem", "-CAcreateserial", "-out", dir + "/server.pem", "-days", "2",
                           "-extfile", dir + "/server-ext.cnf"},
                          log);
    if (!ok && error)
        *error = "openssl failed: " + read_file(log);
    return ok;
}

NatsServer::NatsServer(NatsServerOptions opts) : opts_(std::move(opts))
{
    char tmpl[] = "/tmp/fq-nats-test.XXXXXX";
    if (mkdtemp(tmpl))
        dir_ = tmpl;
    port_ = opts_.port > 0 ? opts_.port : free_tcp_port();
    if (opts_.monitor)
        monitor_port_ = free_tcp_port();
}

NatsServer::~NatsServer()
{
    stop();
    if (!dir_.empty()) {
        std::error_code ec;
        std::filesystem::remove_all(dir_, ec);
    }
}

std::string NatsServer::url(const std::string& host) const
{
    return std::string(opts_.tls ? "tls://" : "nats://") + host + ":" + std::to_string(port_);
}

bool NatsServer::start(std::string* error)
{
    auto fail = [&](const std::string& why) {
        if (error)
            *error = why;
        return false;
    };
    if (running())
        return true;
    if (dir_.empty() || port_ <= 0 || (opts_.monitor && (monitor_port_ <= 0 || monitor_port_ == port_)))
        return fail("no temporary directory or no free port");
    if (opts_.tls && !std::filesystem::exists(dir_ + "/server.pem")) {
        std::string why;
        if (!make_test_pki(dir_, &why))
            return fail(why);
    }

    // Every listener, the monitoring one too, takes the host of -a and stays on loopback.
    std::vector<std::string> argv = {"nats-server", "-a", "127.0.0.1", "-p", std::to_string(port_)};
    if (opts_.monitor)
        argv.insert(argv.end(), {"-m", std::to_string(monitor_port_)});
    if (opts_.jetstream)
        argv.insert(argv.end(), {"-js", "-sd", dir_ + "/store"});
    if (!opts_.user.empty())
        argv.insert(argv.end(), {"--user", opts_.user, "--pass", opts_.password});
    if (opts_.tls)
        argv.insert(argv.end(), {"--tls", "--tlscert", dir_ + "/server.pem", "--tlskey", dir_ + "/server-key.pem"});

    const pid_t pid = spawn_to(argv, log_path(), log_path());
    if (pid < 0)
        return fail(std::string("fork: ") + strerror(errno));
    pid_ = pid;

    bool exited = false;
    const bool up = wait_until(
        [&] {
            if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
                exited = true;
                return true;
            }
            return server_greets(port_);
        },
        s_start_limit);
    if (exited) {
        pid_ = -1;
        return fail("nats-server exited at start: " + read_file(log_path()));
    }
    if (!up) {
        stop();
        return fail("nats-server did not answer on port " + std::to_string(port_) + ": " + read_file(log_path()));
    }
    return true;
}

void NatsServer::stop()
{
    if (pid_ <= 0)
        return;
    stop_process(pid_, s_stop_limit);
    pid_ = -1;
}

natsConnection* NatsServer::connect_peer(std::string* error) const
{
    natsOptions* opts = nullptr;
    if (natsOptions_Create(&opts) != NATS_OK) {
        if (error)
            *error = "natsOptions_Create failed";
        return nullptr;
    }
    natsOptions_SetURL(opts, url().c_str());
    natsOptions_SetSendAsap(opts, true);
    natsOptions_SetIgnoreDiscoveredServers(opts, true);
    if (!opts_.user.empty())
        natsOptions_SetUserInfo(opts, opts_.user.c_str(), opts_.password.c_str());
    if (opts_.tls) {
        natsOptions_SetSecure(opts, true);
        natsOptions_LoadCATrustedCertificates(opts, ca_file().c_str());
        natsOptions_SetExpectedHostname(opts, "127.0.0.1");
    }
    natsConnection* nc = nullptr;
    natsStatus s = natsConnection_Connect(&nc, opts);
    natsOptions_Destroy(opts);
    if (s != NATS_OK) {
        if (error)
            *error = std::string("peer connect: ") + natsStatus_GetText(s);
        natsConnection_Destroy(nc);
        return nullptr;
    }
    return nc;
}

bool NatsServer::provision(const fq_provision_opts_t* opts, const char* services, std::string* error) const
{
    natsConnection* nc = nullptr;
    jsCtx* js = nullptr;
    char err[1024] = "";
    const std::string u = url();
    int rc = fq_provision_connect(u.c_str(), opts_.user.empty() ? nullptr : opts_.user.c_str(),
                                  opts_.password.empty() ? nullptr : opts_.password.c_str(),
                                  opts_.tls ? ca_file().c_str() : nullptr, &nc, &js, err);
    if (rc == 0) {
        rc = fq_provision_all(js, opts, services, err);
        jsCtx_Destroy(js);
        natsConnection_Close(nc);
        natsConnection_Destroy(nc);
    }
    if (rc != 0 && error)
        *error = err;
    return rc == 0;
}

fq_connection_config* NatsServer::make_config() const
{
    fq_connection_config* cfg = fq_connection_config_new();
    if (!cfg)
        return nullptr;
    cfg->server_url = s_dup(url());
    cfg->user = s_dup(opts_.user);
    cfg->password = s_dup(opts_.password);
    if (opts_.tls)
        cfg->cert_path = s_dup(ca_file());
    return cfg;
}

void BrokerSuite::start(const fq_provision_opts_t* opts)
{
    server = new NatsServer();
    dir = new TempDir();
    if (!server->start(&error) || !server->provision(opts, nullptr, &error))
        return;
    cfg = server->make_config();
    if (fq_connection_init(cfg) != 0) {
        error = "fq_connection_init failed";
        return;
    }
    peer = server->connect_peer(&error);
}

void BrokerSuite::start_program(const std::string& name, const std::vector<std::string>& args,
                                const std::string& subject)
{
    if (!error.empty())
        return;
    std::vector<std::string> argv = {build_program(name), "--broker", server->url()};
    argv.insert(argv.end(), args.begin(), args.end());
    program = spawn(argv, dir->path());
    if (!answers_ping(peer, subject))
        error = name + " does not answer on " + subject + ": " + read_file(program.stderr_path);
}

void BrokerSuite::stop()
{
    if (program.pid > 0)
        stop_process(program.pid);
    program = Child{};
    if (peer) {
        natsConnection_Close(peer);
        natsConnection_Destroy(peer);
        peer = nullptr;
    }
    close_config(cfg);
    cfg = nullptr;
    delete dir;
    dir = nullptr;
    delete server;
    server = nullptr;
}

json_object* BrokerSuite::send(const std::string& subject, const std::string& job, const std::string& bytes,
                               uint64_t timeout_ms) const
{
    fq_const_message_t request{job.c_str(), reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(),
                               nullptr};
    fq_message_t reply{};
    fq_const_request_reply_t rr{&request, &reply};
    return fq_connection_send_recv_json_data(cfg, subject.c_str(), &rr, timeout_ms, 0, 0, nullptr);
}

std::string build_program(const std::string& name)
{
    return std::string(FQ_BUILD_DIR) + "/" + name;
}

std::optional<std::string> request(natsConnection* nc, const std::string& subject, const std::string& body,
                                   int timeout_ms, natsStatus* status)
{
    natsMsg* reply = nullptr;
    const natsStatus s =
        natsConnection_Request(&reply, nc, subject.c_str(), body.data(), (int)body.size(), timeout_ms);
    if (status)
        *status = s;
    std::optional<std::string> text;
    if (s == NATS_OK && reply)
        text = std::string(natsMsg_GetData(reply), (size_t)natsMsg_GetDataLength(reply));
    natsMsg_Destroy(reply);
    return text;
}

bool answers_ping(natsConnection* nc, const std::string& subject, std::chrono::milliseconds limit)
{
    return wait_until([&] { return request(nc, subject, "{\"Command\": 3}", 200).has_value(); }, limit);
}

void free_config(fq_connection_config** cfg)
{
    if (!cfg || !*cfg)
        return;
    fq_connection_config* c = *cfg;
    for (char** field : {&c->server_url, &c->user, &c->password, &c->broker_name, &c->cert_path,
                         &c->client_cert_path, &c->client_key_path, &c->js_services, &c->broker_host,
                         &c->broker_port, &c->broker_user, &c->broker_password, &c->cert_data,
                         &c->http_proxy_host, &c->http_proxy_port, &c->http_proxy_user, &c->http_proxy_password})
        free(*field);
    free(c);
    *cfg = nullptr;
}

void close_config(fq_connection_config* cfg)
{
    fq_connection_deinit(cfg);
    free_config(&cfg);
}

Responder::Responder(natsConnection* nc, const std::string& subject, Fn fn) : nc_(nc), fn_(std::move(fn))
{
    if (natsConnection_Subscribe(&sub_, nc_, subject.c_str(), &Responder::on_msg, this) != NATS_OK) {
        sub_ = nullptr;
        return;
    }
    natsConnection_FlushTimeout(nc_, 5000);
}

Responder::~Responder()
{
    if (!sub_)
        return;
    // Drained: no callback runs any more once the wait returns, so the object may go.
    if (natsSubscription_Drain(sub_) == NATS_OK)
        natsSubscription_WaitForDrainCompletion(sub_, 5000);
    natsSubscription_Destroy(sub_);
}

void Responder::on_msg(natsConnection* nc, natsSubscription* sub, natsMsg* msg, void* closure)
{
    (void)sub;
    auto* self = static_cast<Responder*>(closure);
    const char* data = natsMsg_GetData(msg);
    const std::string body(data ? data : "", (size_t)natsMsg_GetDataLength(msg));
    {
        std::lock_guard<std::mutex> lock(self->mu_);
        self->bodies_.push_back(body);
    }
    self->count_.fetch_add(1);
    const std::optional<std::string> reply = self->fn_ ? self->fn_(body) : std::nullopt;
    const char* reply_subject = natsMsg_GetReply(msg);
    if (reply && reply_subject)
        natsConnection_Publish(nc, reply_subject, reply->data(), (int)reply->size());
    natsMsg_Destroy(msg);
}

std::vector<std::string> Responder::bodies() const
{
    std::lock_guard<std::mutex> lock(mu_);
    return bodies_;
}

}  // namespace fqtest
