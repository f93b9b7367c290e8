// The Debian packages as an operator gets them: built by cpack, unpacked into a scratch root, and
// the programs run from there.
#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "worker_fixture.h"

using namespace std::chrono_literals;
using fqtest::read_file;

namespace {

bool s_has(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

TEST(Packages, HoldTheProgramsUnitsAndDefaultsAndThePackagedWorkerServes)
{
    fqtest::TempDir out;
    std::string log;
    ASSERT_EQ(0, fqtest::run_program({"cpack", "-G", "DEB", "-B", out.path(), "--config",
                                      std::string(FQ_BUILD_DIR) + "/CPackConfig.cmake"},
                                     &log, 300s))
        << log;
    const std::string root = out / "root";
    for (const char* pkg : {"fq-av-scanproxy", "fq-av-peers", "fq-av-client"}) {
        const std::string deb = out / (std::string(pkg) + "_4.0.5_amd64.deb");
        ASSERT_EQ(0, fqtest::run_program({"dpkg-deb", "-x", deb, root}, &log)) << log;
        ASSERT_EQ(0, fqtest::run_program({"dpkg-deb", "-e", deb, out / (std::string(pkg) + ".control")}, &log)) << log;
    }
    for (const char* file : {"usr/bin/fq-av-scanproxy", "usr/bin/fq-av-clamav", "usr/bin/fq-av-quarantine",
                             "usr/bin/fq-av-scan", "usr/bin/fq-av-provision", "etc/default/fq-av-peers",
                             "usr/share/fq-av-scanproxy/test-db", "usr/lib/systemd/system/fq-av-quarantine@.service"})
        EXPECT_EQ(0, access((root + "/" + file).c_str(), F_OK)) << file;

    // The worker's unit: ready when it serves, a watchdog, restarted after a failure, sandboxed.
    const std::string unit = read_file(root + "/usr/lib/systemd/system/fq-av-scanproxy.service");
    for (const char* line : {"Type=notify", "WatchdogSec=", "Restart=on-failure", "ProtectSystem=strict",
                             "ReadWritePaths=/var/lib/fq-av-scanproxy", "NoNewPrivileges=yes", "User=fq-av",
                             "EnvironmentFile=/etc/default/fq-av-scanproxy"})
        EXPECT_TRUE(s_has(unit, line)) << line;
    EXPECT_TRUE(s_has(read_file(root + "/etc/default/fq-av-scanproxy"), "FQ_BROKER="));
    EXPECT_TRUE(s_has(read_file(out / "fq-av-scanproxy.control/conffiles"), "/etc/default/fq-av-scanproxy"));
    EXPECT_TRUE(s_has(read_file(out / "fq-av-scanproxy.control/postinst"), "adduser --system"));

    // The packaged programs run from where the package puts them.
    fqtest::WorkerEnv env;
    ASSERT_TRUE(env.ok()) << env.error();
    auto args = env.args({"--console-mode", "--worker-threads", "2"});
    args[0] = root + "/usr/bin/fq-av-scanproxy";
    auto worker = fqtest::spawn(args, env.dir.path());
    ASSERT_TRUE(env.wait_ready()) << read_file(worker.stderr_path);
    EXPECT_EQ("{\"ReturnCode\": 0}", env.request("fq-av-scanproxy.ping", "{\"Command\": 3}").value_or("no reply"));
    kill(worker.pid, SIGTERM);
    int status = -1;
    ASSERT_TRUE(fqtest::wait_exit(worker.pid, 10s, &status));
    EXPECT_EQ(0, status);

    // The engine finds the test signatures the package ships.
    auto engine = fqtest::spawn({root + "/usr/bin/fq-av-clamav", "--broker", env.server.url()}, env.dir.path());
    EXPECT_TRUE(fqtest::answers_ping(env.peer, "fq-av-clamav")) << read_file(engine.stderr_path);
    EXPECT_TRUE(s_has(read_file(engine.stderr_path), "/usr/share/fq-av-scanproxy/test-db"));
    fqtest::stop_process(engine.pid);
}

}  // namespace
