#include <gtest/gtest.h>

#include <semaphore.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

#include "process_util.h"

using namespace std::chrono_literals;
using fqtest::read_file;

namespace {

class WorkerProcess : public ::testing::Test {
protected:
    fqtest::TempDir dir;
    std::string basedir = dir / "base";
    std::string trace = dir / "trace.log";

    void SetUp() override
    {
        mkdir(basedir.c_str(), 0755);
        mkdir((basedir + "/fq-av-scanproxy").c_str(), 0755);
        mkdir((basedir + "/run").c_str(), 0755);
    }

    // The trace file's lock is a named semaphore that outlives the worker.
    void TearDown() override
    {
        std::string name = "fq_log_" + trace;
        for (char& ch : name)
            if (ch == '/')
                ch = '_';
        sem_unlink(name.c_str());
    }

    std::vector<std::string> args(std::vector<std::string> extra) const
    {
        std::vector<std::string> a = {FQ_WORKER_BINARY, "--basedir", basedir, "--tracefile", trace, "--tracelevel",
                                      "6"};
        a.insert(a.end(), extra.begin(), extra.end());
        return a;
    }

    bool trace_has(const std::string& text) const { return read_file(trace).find(text) != std::string::npos; }

    bool wait_ready() const
    {
        return fqtest::wait_until([&] { return trace_has("ready with"); }, 20s);
    }
};

// Positions of the texts in the trace, in the order given; fails if one is missing or out of order.
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
        unlink(trace.c_str());
        auto child = fqtest::spawn(args({"--console-mode"}), dir.path());
        ASSERT_TRUE(wait_ready()) << read_file(child.stderr_path);
        kill(child.pid, sig);
        int status = -1;
        ASSERT_TRUE(fqtest::wait_exit(child.pid, 10s, &status)) << "signal " << sig;
        EXPECT_EQ(0, status) << "signal " << sig;
        expect_in_order(read_file(trace), {"fq-av-scanproxy starting", "Version 4.0.5 Build 140",
                                           "Signal received. Exiting gracefully...", "Shutdown complete",
                                           "Ending worker with rc=0"});
    }
}

TEST_F(WorkerProcess, TraceCarriesBannerAndArguments)
{
    auto child = fqtest::spawn(args({"--console-mode", "--worker-threads", "3"}), dir.path());
    ASSERT_TRUE(wait_ready());
    kill(child.pid, SIGTERM);
    int status = -1;
    ASSERT_TRUE(fqtest::wait_exit(child.pid, 10s, &status));
    const std::string text = read_file(trace);
    expect_in_order(text, {std::string(84, '*'), " starting", " Version 4.0.5 Build 140", std::string(84, '*'),
                           "CL [1]: '--basedir'", "CL [8]: '--worker-threads'", "CL [9]: '3'"});
    // The file line format: no escape sequences, the source position at level TRACE.
    EXPECT_EQ(std::string::npos, text.find('\x1b'));
    EXPECT_TRUE(std::regex_search(text, std::regex(R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3,4}\] INFO  PID: +)" +
                                                   std::to_string(child.pid) +
                                                   R"( TID: +\d+ \S*fq-av-scanproxy:\w+\(\): Shutdown complete \(fq_worker\.cpp:\d+\))")))
        << text;
}

TEST_F(WorkerProcess, WritesRunningVersion)
{
    auto child = fqtest::spawn(args({"--console-mode"}), dir.path());
    ASSERT_TRUE(wait_ready());
    EXPECT_EQ(std::string("fernquill Anti-Virus 4.0.5 Build 140\r\nfq-av-scanproxy v.2.1\n "),
              read_file(basedir + "/fq-av-scanproxy/.running_version"));
    fqtest::stop_process(child.pid);
}

TEST_F(WorkerProcess, WithoutConsoleModeTheShellGetsZeroAtOnce)
{
    auto parent = fqtest::spawn(args({}), dir.path());
    int status = -1;
    ASSERT_TRUE(fqtest::wait_exit(parent.pid, 5s, &status));
    EXPECT_EQ(0, status);

    // The worker runs on in the child, which writes its own PID in the trace.
    ASSERT_TRUE(wait_ready());
    std::smatch m;
    const std::string text = read_file(trace);
    ASSERT_TRUE(std::regex_search(text, m, std::regex(R"(PID: +(\d+) TID: +\d+ .* starting)")));
    const pid_t worker = static_cast<pid_t>(std::stoi(m[1]));
    EXPECT_NE(parent.pid, worker);
    ASSERT_TRUE(fqtest::process_alive(worker));
    kill(worker, SIGTERM);
    EXPECT_TRUE(fqtest::wait_until([&] { return !fqtest::process_alive(worker); }, 10s));
    EXPECT_TRUE(trace_has("Ending worker with rc=0"));
}

TEST_F(WorkerProcess, ConversionErrorExitsWith255)
{
    auto child = fqtest::spawn(args({"--console-mode", "--worker-threads", "99999999999999999999"}), dir.path());
    int status = -1;
    ASSERT_TRUE(fqtest::wait_exit(child.pid, 10s, &status));
    EXPECT_EQ(255, status);
    const std::string err = read_file(child.stderr_path);
    EXPECT_NE(std::string::npos, err.find("Failed to convert optarg to int: Numerical result out of range")) << err;
    EXPECT_NE(std::string::npos, err.find("Failed to parse command line parameters\r\n")) << err;
}

TEST_F(WorkerProcess, MissingBasedirIsRefused)
{
    auto child = fqtest::spawn({FQ_WORKER_BINARY, "--console-mode"}, dir.path());
    int status = -1;
    ASSERT_TRUE(fqtest::wait_exit(child.pid, 10s, &status));
    EXPECT_EQ(255, status);
    EXPECT_NE(std::string::npos, read_file(child.stderr_path).find("Missing --basedir"));
}

TEST_F(WorkerProcess, UnknownOptionOnlyWarns)
{
    auto child = fqtest::spawn(args({"--console-mode", "--no-such-option"}), dir.path());
    ASSERT_TRUE(wait_ready()) << read_file(child.stderr_path);
    EXPECT_NE(std::string::npos,
              read_file(child.stderr_path).find("Ignoring unrecognized command-line option (see stderr for its name)"));
    kill(child.pid, SIGTERM);
    int status = -1;
    ASSERT_TRUE(fqtest::wait_exit(child.pid, 10s, &status));
    EXPECT_EQ(0, status);
}

}  // namespace
