// fq-av-scan through fq-av-gateway to the real worker and the real libclamav engine: a client
// that only speaks HTTP gets the same verdicts as one on the broker.
#include <gtest/gtest.h>

#include <string>

#include "http_stub.h"
#include "worker_fixture.h"

using namespace std::chrono_literals;

namespace {

TEST(GatewayScan, ScanClientFindsEicarThroughTheGateway)
{
    fqtest::WorkerEnv env;
    ASSERT_TRUE(env.ok()) << env.error();
    auto engine = fqtest::spawn({FQ_BUILD_DIR "/fq-av-clamav", "--broker", env.server.url(), "--threads", "2"},
                                env.dir.path());
    auto worker = env.spawn_worker({"--console-mode", "--worker-threads", "2"});
    ASSERT_TRUE(env.wait_ready()) << fqtest::read_file(worker.stderr_path);
    fqtest::GatewayProcess gw;
    std::string err;
    ASSERT_TRUE(fqtest::start_gateway({"--broker", env.server.url()}, env.dir.path(), &gw, &err)) << err;

    const std::string eicar = env.dir / "eicar.com";
    const std::string clean = env.dir / "clean.txt";
    const std::string virus = std::string("X5O!P%@AP[4\\PZX54(P^)7CC)7}$") + "EICAR-STANDARD-ANTIVIRUS-TEST-FILE!$H+H*";
    fqtest::write_file(eicar, virus);
    fqtest::write_file(clean, "nothing to see here\n");
    const std::string scan = FQ_BUILD_DIR "/fq-av-scan";
    std::string out;
    // The engine may still be starting: the ping goes to the worker, the scan needs the engine too.
    EXPECT_EQ(0, fqtest::run_program({scan, "--broker", gw.url, "--ping"}, &out)) << out;
    ASSERT_TRUE(fqtest::wait_until(
        [&] { return fqtest::read_file(engine.stderr_path).find("serving fq-av-clamav") != std::string::npos; }, 30s));
    EXPECT_EQ(1, fqtest::run_program({scan, "--broker", gw.url + "/", "--services", "fq-av-clamav", "--no-summary",
                                      eicar, clean},
                                     &out, 60s))
        << out << gw.log();
    EXPECT_NE(std::string::npos, out.find(eicar + ": Eicar-Test-Signature")) << out;
    EXPECT_NE(std::string::npos, out.find(clean + ": OK")) << out;
    EXPECT_EQ(std::vector<std::string>{}, fqtest::staged_keys(env.peer));

    // The work queue is the broker's business, not a gateway client's.
    EXPECT_EQ(2, fqtest::run_program({scan, "--broker", gw.url, "--js", clean}, &out)) << out;

    fqtest::stop_process(gw.child.pid);
    fqtest::stop_process(worker.pid);
    fqtest::stop_process(engine.pid);
}

}  // namespace
