// scripts/demo.sh end to end: the real broker, peers, worker and client, and nothing left behind.
#include <gtest/gtest.h>
#include <json-c/json.h>

#include <signal.h>

#include <filesystem>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "nats_server.h"
#include "process_util.h"

using namespace std::chrono_literals;

namespace {

struct Started {
    std::string name;
    pid_t pid;
};

// "demo: started <name> (PID <n>)" lines.
std::vector<Started> s_started(const std::string& out)
{
    std::vector<Started> v;
    static const std::regex re("^demo: started (\\S+) \\(PID ([0-9]+)\\)$");
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) {
        std::smatch m;
        if (std::regex_match(line, m, re))
            v.push_back({m[1], (pid_t)std::stol(m[2])});
    }
    return v;
}

// The first group of the first line that matches pattern whole; "" when none does.
std::string s_match(const std::string& out, const std::string& pattern)
{
    const std::regex re(pattern);
    std::istringstream in(out);
    for (std::string line; std::getline(in, line);) {
        std::smatch m;
        if (std::regex_match(line, m, re))
            return m[1];
    }
    return "";
}

bool s_has_line(const std::string& out, const std::string& pattern)
{
    return !s_match(out, "(" + pattern + ")").empty();
}

class Demo : public ::testing::Test {
protected:
    fqtest::Child start(const std::vector<std::string>& args)
    {
        std::vector<std::string> argv = {"/bin/bash", FQ_SOURCE_DIR "/scripts/demo.sh"};
        argv.insert(argv.end(), args.begin(), args.end());
        // CI has installed and built already; the demo uses this build's programs.
        return fqtest::spawn(argv, dir.path(),
                             {"FQ_BUILD_DIR=" FQ_BUILD_DIR, "FQ_DEMO_SKIP_INSTALL=1", "FQ_DEMO_SKIP_BUILD=1"});
    }

    int finish(const fqtest::Child& c, std::string* out)
    {
        int status = -1;
        if (!fqtest::wait_exit(c.pid, 240s, &status)) {
            fqtest::stop_process(c.pid, 30s);
            ADD_FAILURE() << "demo.sh did not finish";
        }
        *out = fqtest::read_file(c.stdout_path);
        return status;
    }

    void expect_all_gone(const std::vector<Started>& started)
    {
        for (const Started& s : started)
            EXPECT_FALSE(fqtest::process_alive(s.pid)) << s.name << " (PID " << s.pid << ") was left running";
    }

    fqtest::TempDir dir;
};

TEST_F(Demo, ScansTheSamplesAndStopsWhatItStarted)
{
    for (const char* p : {"fq-av-worker-control", "fq-av-mimescan", "fq-av-clamav", "fq-av-log",
                          "fq-av-events-dispatch", "fq-av-quarantine"})
        ASSERT_TRUE(std::filesystem::exists(std::string(FQ_BUILD_DIR "/") + p)) << p << " is not built";
    auto demo = start({});
    std::string out;
    const int status = finish(demo, &out);
    const std::string err = fqtest::read_file(demo.stderr_path);
    EXPECT_EQ(0, status) << out << err;

    EXPECT_TRUE(s_has_line(out, ".*/samples/clean\\.txt: OK")) << out;
    EXPECT_TRUE(s_has_line(out, ".*/samples/eicar\\.com: .*Eicar.* FOUND")) << out;
    EXPECT_TRUE(s_has_line(out, ".*/samples/archive\\.zip: .*Eicar.* FOUND")) << out;
    // The nested file, as the engine names it inside the archive.
    EXPECT_TRUE(s_has_line(out, "  archive\\.zip/.+/eicar\\.com: .*Eicar.* FOUND.*")) << out;
    EXPECT_TRUE(s_has_line(out, ".*/samples/large\\.bin: File too large BLOCKED")) << out;
    // A client that only reaches the HTTP gateway gets the same finding.
    const size_t via_gateway = out.find("through the HTTP gateway http://127.0.0.1:");
    ASSERT_NE(std::string::npos, via_gateway) << out;
    EXPECT_TRUE(s_has_line(out.substr(via_gateway), ".*/samples/eicar\\.com: .*Eicar.* FOUND")) << out;
    // The sample sent to the quarantine sealed comes back from it as it was.
    EXPECT_TRUE(s_has_line(out, "[0-9T]+Z-[0-9a-f-]+\t.*\tsealed\teicar\\.com\t.*Eicar.*")) << out;
    EXPECT_TRUE(s_has_line(out, "demo: restored \\S+ from the quarantine: SHA-256 [0-9a-f]{64} matches the original"))
        << out;
    // The worker's ready record as the log sink wrote it.
    const std::string record = s_match(out, "(\\{\"LogVersion\":1,.*)");
    json_object* parsed = json_tokener_parse(record.c_str());
    json_object* msg = nullptr;
    EXPECT_TRUE(json_object_object_get_ex(parsed, "StatusLog", &msg) &&
                json_object_object_get_ex(msg, "LogData", &msg) && json_object_object_get_ex(msg, "Message", &msg) &&
                std::regex_match(json_object_get_string(msg), std::regex("Scan proxy worker, PID [0-9]+ ready with 8 threads")))
        << out;
    json_object_put(parsed);

    const auto started = s_started(out);
    std::vector<std::string> names;
    for (const auto& s : started)
        names.push_back(s.name);
    EXPECT_EQ((std::vector<std::string>{"nats-server", "fq-av-log", "fq-av-events-dispatch", "fq-av-worker-control",
                                        "fq-av-mimescan", "fq-av-clamav", "fq-av-quarantine", "fq-av-gateway",
                                        "fq-av-scanproxy"}),
              names);
    expect_all_gone(started);
    const std::string work = s_match(out, "demo: scanning (.*)/samples");
    ASSERT_FALSE(work.empty()) << out;
    EXPECT_FALSE(std::filesystem::exists(work)) << work << " was left behind";
}

TEST_F(Demo, KeepRunningLeavesItUpUntilStopped)
{
    auto demo = start({"--keep-running"});
    std::string out;
    ASSERT_EQ(0, finish(demo, &out)) << out << fqtest::read_file(demo.stderr_path);
    const auto started = s_started(out);
    ASSERT_EQ(9u, started.size()) << out;
    for (const auto& s : started)
        EXPECT_TRUE(fqtest::process_alive(s.pid)) << s.name;

    // What it prints is enough to use it.
    const std::string url = s_match(out, "  broker   (nats://127\\.0\\.0\\.1:[0-9]+)");
    ASSERT_FALSE(url.empty()) << out;
    std::string scan;
    EXPECT_EQ(0, fqtest::run_program({FQ_BUILD_DIR "/fq-av-scan", "--broker", url, "--ping"}, &scan)) << scan;

    const std::string work = s_match(out, "  stop     bash scripts/demo\\.sh --stop (.*)");
    ASSERT_FALSE(work.empty()) << out;
    auto stop = start({"--stop", work});
    std::string stop_out;
    EXPECT_EQ(0, finish(stop, &stop_out)) << stop_out << fqtest::read_file(stop.stderr_path);
    expect_all_gone(started);
    EXPECT_FALSE(std::filesystem::exists(work));
}

TEST_F(Demo, InterruptedStopsWhatItStarted)
{
    auto demo = start({});
    ASSERT_TRUE(fqtest::wait_until(
        [&] { return fqtest::read_file(demo.stdout_path).find("started fq-av-scanproxy") != std::string::npos; },
        120s));
    kill(demo.pid, SIGTERM);
    std::string out;
    const int status = finish(demo, &out);
    // Normally caught on the way; a demo that was already done ends with 0.
    EXPECT_TRUE(status == 143 || status == 0) << status << "\n" << out;
    const auto started = s_started(out);
    EXPECT_EQ(9u, started.size()) << out;
    expect_all_gone(started);
}

}  // namespace
