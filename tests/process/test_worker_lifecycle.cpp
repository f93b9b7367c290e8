#include <gtest/gtest.h>

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

#include "worker_fixture.h"

using namespace std::chrono_literals;
using fqtest::read_file;

namespace {

class WorkerProcess : public ::testing::Test {
protected:
    fqtest::WorkerEnv env;

    void SetUp() override { ASSERT_TRUE(env.ok()) << env.error(); }
};

// Fails unless the texts appear in the trace in the order given.
void expect_in_order(const std::string& text, const std::vector<std::string>& lines)
{
    size_t pos = 0;
    for (const auto& l : lines) {
        size_t at = text.find(l, pos);
        ASSERT_NE(std::string::npos, at) << "missing or out of order: " << l << "\n" << text;
        pos = at + l.size();
    }
}

TEST_F(WorkerProcess, StopSignalsEndItInOrderWithStatusZero)
{
    for (int sig : {SIGTERM, SIGINT, SIGQUIT}) {
        unlink(env.trace.c_str());
        // An option the worker does not know only costs a warning.
        auto child = env.spawn_worker({"--console-mode", "--worker-threads", "3", "--no-such-option"});
        ASSERT_TRUE(env.wait_ready()) << read_file(child.stderr_path);
        EXPECT_EQ(std::string("fernquill Anti-Virus 4.0.5 Build 140\r\nfq-av-scanproxy v.2.1\n "),
                  read_file(env.basedir + "/fq-av-scanproxy/.running_version"));
        kill(child.pid, sig);
        int status = -1;
        ASSERT_TRUE(fqtest::wait_exit(child.pid, 10s, &status)) << "signal " << sig;
        EXPECT_EQ(0, status) << "signal " << sig;
        EXPECT_NE(std::string::npos, read_file(child.stderr_path)
                                         .find("Ignoring unrecognized command-line option (see stderr for its name)"));
        const std::string text = env.trace_text();
        expect_in_order(text, {std::string(84, '*'), "fq-av-scanproxy starting", " Version 4.0.5 Build 140",
                               std::string(84, '*'), "CL [1]: '--basedir'", "CL [9]: '--console-mode'",
                               "CL [10]: '--worker-threads'", "CL [11]: '3'",
                               "Signal received. Exiting gracefully...", "Shutdown complete",
                               "Ending worker with rc=0"});
        // The file line format: no escape sequences, the source position at level TRACE.
        EXPECT_EQ(std::string::npos, text.find('\x1b'));
        EXPECT_TRUE(std::regex_search(
            text, std::regex(R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3,4}\] INFO  PID: +)" + std::to_string(child.pid) +
                             R"( TID: +\d+ \S*fq-av-scanproxy:\w+\(\): Shutdown complete \(fq_worker\.cpp:\d+\))")))
            << text;
    }
}

TEST_F(WorkerProcess, WithoutConsoleModeTheShellGetsZeroAtOnce)
{
    auto parent = env.spawn_worker({"--worker-threads", "1"});
    int status = -1;
    ASSERT_TRUE(fqtest::wait_exit(parent.pid, 5s, &status));
    EXPECT_EQ(0, status);

    // The worker runs on in the child, whose PID is in its trace lines and in its control subject.
    ASSERT_TRUE(env.wait_ready());
    std::smatch m;
    const std::string text = env.trace_text();
    ASSERT_TRUE(std::regex_search(text, m, std::regex(R"(PID: +(\d+) TID: +\d+ .* starting)")));
    const pid_t worker = static_cast<pid_t>(std::stoi(m[1]));
    EXPECT_NE(parent.pid, worker);
    ASSERT_TRUE(fqtest::process_alive(worker));
    EXPECT_TRUE(env.registry_get(fqtest::WorkerEnv::control_subject(worker)).has_value());
    kill(worker, SIGTERM);
    EXPECT_TRUE(fqtest::wait_until([&] { return !fqtest::process_alive(worker); }, 10s));
    EXPECT_TRUE(env.trace_has("Ending worker with rc=0"));
}

TEST_F(WorkerProcess, BadCommandLinesExitWith255)
{
    struct Case {
        std::vector<std::string> argv;
        std::string stderr_text;
    };
    const std::vector<Case> cases = {
        {env.args({"--console-mode", "--worker-threads", "99999999999999999999"}),
         "Failed to convert optarg to int: Numerical result out of range"},
        {{FQ_WORKER_BINARY, "--console-mode", "--broker", env.server.url()}, "Missing --basedir"},
        {{FQ_WORKER_BINARY, "--console-mode", "--basedir", env.basedir}, "Missing --broker"},
    };
    for (const auto& c : cases) {
        auto child = fqtest::spawn(c.argv, env.dir.path());
        int status = -1;
        ASSERT_TRUE(fqtest::wait_exit(child.pid, 10s, &status));
        EXPECT_EQ(255, status) << c.stderr_text;
        const std::string err = read_file(child.stderr_path);
        EXPECT_NE(std::string::npos, err.find(c.stderr_text)) << err;
        EXPECT_NE(std::string::npos, err.find("Failed to parse command line parameters\r\n")) << err;
    }
}

TEST_F(WorkerProcess, HelpAndVersionAnswerWithStatusZeroAndTheStderrOfAFileHasNoColours)
{
    for (const char* arg : {"--help", "--version"}) {
        auto child = fqtest::spawn({FQ_WORKER_BINARY, arg}, env.dir.path());
        int status = -1;
        ASSERT_TRUE(fqtest::wait_exit(child.pid, 10s, &status));
        EXPECT_EQ(0, status) << arg;
        const std::string out = read_file(child.stdout_path);
        EXPECT_NE(std::string::npos, out.find(std::string(arg) == "--help" ? "--basedir PATH" : "4.0.5 build 140"))
            << out;
    }
    // A worker whose stderr goes to a file writes plain lines there.
    auto child = env.spawn_worker({"--console-mode", "--worker-threads", "1", "--trace-to-screen"});
    ASSERT_TRUE(env.wait_ready()) << read_file(child.stderr_path);
    fqtest::stop_process(child.pid);
    const std::string err = read_file(child.stderr_path);
    EXPECT_NE(std::string::npos, err.find("INFO  PID:")) << err;
    EXPECT_EQ(std::string::npos, err.find('\x1b'));
}

// A service manager's side of the notify protocol: a datagram socket whose messages are kept.
class NotifySocket {
public:
    explicit NotifySocket(const std::string& path) : path_(path)
    {
        fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        snprintf(addr.sun_path, sizeof(addr.sun_path), "%s", path.c_str());
        bind(fd_, reinterpret_cast<sockaddr*>(&addr), sizeof(addr));
    }
    ~NotifySocket() { close(fd_); }
    // Every message received so far, appended to what was read before.
    const std::string& read_all()
    {
        char buf[4096];
        ssize_t n;
        while ((n = recv(fd_, buf, sizeof(buf), MSG_DONTWAIT)) > 0)
            seen_ += std::string(buf, (size_t)n) + "\n";
        return seen_;
    }
    bool has(const std::string& text) { return read_all().find(text) != std::string::npos; }

private:
    std::string path_;
    int fd_ = -1;
    std::string seen_;
};

TEST_F(WorkerProcess, TellsAServiceManagerWhenItServesThatItLivesAndWhenItStops)
{
    NotifySocket manager(env.dir / "notify");
    auto child = env.spawn_worker({"--console-mode", "--worker-threads", "2"},
                                  {"NOTIFY_SOCKET=" + (env.dir / "notify"), "WATCHDOG_USEC=400000"});
    ASSERT_TRUE(fqtest::wait_until([&] { return manager.has("READY=1"); }, 30s)) << manager.read_all();
    // Ready means serving: the ping subject answers at once.
    EXPECT_EQ("{\"ReturnCode\": 0}", env.request("fq-av-scanproxy.ping", "{\"Command\": 3}").value_or("no reply"));
    EXPECT_NE(std::string::npos, manager.read_all().find("STATUS=Scan proxy worker, PID " + std::to_string(child.pid)));
    ASSERT_TRUE(fqtest::wait_until([&] { return manager.has("WATCHDOG=1"); }, 5s));
    kill(child.pid, SIGTERM);
    int status = -1;
    ASSERT_TRUE(fqtest::wait_exit(child.pid, 10s, &status));
    EXPECT_EQ(0, status);
    EXPECT_TRUE(manager.has("STOPPING=1"));
}

}  // namespace
