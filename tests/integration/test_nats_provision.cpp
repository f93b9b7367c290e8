// tools/fq-av-provision against real brokers: what it creates, that it can run again, and
// how it fails.
#include <gtest/gtest.h>
#include <nats/nats.h>

#include <string>
#include <vector>

#include "fq_nats_client.h"
#include "fq_provision.h"
#include "nats_server.h"

namespace {

const std::string kTool = fqtest::build_program("fq-av-provision");
constexpr int64_t kNsPerMs = 1000000;

int64_t stream_max_age_ms(jsCtx* js, const std::string& stream)
{
    jsStreamInfo* si = nullptr;
    if (js_GetStreamInfo(&si, js, stream.c_str(), nullptr, nullptr) != NATS_OK)
        return -1;
    const int64_t age = si->Config->MaxAge / kNsPerMs;
    jsStreamInfo_Destroy(si);
    return age;
}

TEST(NatsProvision, ToolCreatesBucketsQueueAndConsumerAndRunsAgain)
{
    fqtest::NatsServer server;
    std::string err;
    ASSERT_TRUE(server.start(&err)) << err;
    const std::vector<std::string> args = {kTool,          "--broker",     server.url(),      "--service",
                                           "fq-av-scanproxy", "-s",        "fq.av.dotted",    "--ack-wait",
                                           "7s",           "--max-deliver", "3",              "--scan-data-max-age",
                                           "120s",         "--registry-max-age", "1500ms"};
    std::string out;
    ASSERT_EQ(fqtest::run_program(args, &out), 0) << out;
    EXPECT_NE(out.find("provisioned"), std::string::npos) << out;

    fq_nats_conn_ptr nc(server.connect_peer());
    jsCtx* raw = nullptr;
    ASSERT_EQ(natsConnection_JetStream(&raw, nc.get(), nullptr), NATS_OK);
    fq_js_ctx_ptr js(raw);
    EXPECT_EQ(stream_max_age_ms(js.get(), "KV_fq-av-scan-data"), 120000);
    EXPECT_EQ(stream_max_age_ms(js.get(), "KV_fq-av-worker-registry"), 1500);
    EXPECT_EQ(stream_max_age_ms(js.get(), "KV_fq-av-wq-dedup"), FQ_PROVISION_DEDUP_MAX_AGE_MS);

    jsStreamInfo* si = nullptr;
    ASSERT_EQ(js_GetStreamInfo(&si, js.get(), "JOBS_fq-av-scanproxy", nullptr, nullptr), NATS_OK);
    EXPECT_EQ(si->Config->Retention, js_WorkQueuePolicy);
    ASSERT_EQ(si->Config->SubjectsLen, 1);
    EXPECT_STREQ(si->Config->Subjects[0], "jobs.fq-av-scanproxy");
    jsStreamInfo_Destroy(si);

    jsConsumerInfo* ci = nullptr;
    ASSERT_EQ(js_GetConsumerInfo(&ci, js.get(), "JOBS_fq-av-scanproxy", "WORK_fq-av-scanproxy", nullptr, nullptr),
              NATS_OK);
    EXPECT_EQ(ci->Config->AckPolicy, js_AckExplicit);
    EXPECT_EQ(ci->Config->AckWait, 7000 * kNsPerMs);
    EXPECT_EQ(ci->Config->MaxDeliver, 3);
    EXPECT_EQ(ci->Config->DeliverSubject, nullptr);  // a pull consumer
    EXPECT_STREQ(ci->Config->FilterSubject, "jobs.fq-av-scanproxy");
    jsConsumerInfo_Destroy(ci);

    // Dots in a service name stay in the subject and become '_' in the names.
    ci = nullptr;
    ASSERT_EQ(js_GetConsumerInfo(&ci, js.get(), "JOBS_fq_av_dotted", "WORK_fq_av_dotted", nullptr, nullptr), NATS_OK);
    EXPECT_STREQ(ci->Config->FilterSubject, "jobs.fq.av.dotted");
    jsConsumerInfo_Destroy(ci);

    // What exists already is fine, with the same settings or others.
    ASSERT_EQ(fqtest::run_program(args, &out), 0) << out;
    ASSERT_EQ(fqtest::run_program({kTool, "-b", server.url(), "-s", "fq-av-scanproxy", "-q"}, &out), 0) << out;
    EXPECT_EQ(out, "");
}

TEST(NatsProvision, ToolReachesTlsAndAuthenticatedBrokers)
{
    fqtest::NatsServerOptions tls;
    tls.tls = true;
    fqtest::NatsServer tls_server(tls);
    fqtest::NatsServerOptions auth;
    auth.user = "admin";
    auth.password = "s3cret";
    fqtest::NatsServer auth_server(auth);
    std::string err;
    ASSERT_TRUE(tls_server.start(&err)) << err;
    ASSERT_TRUE(auth_server.start(&err)) << err;

    std::string out;
    EXPECT_EQ(fqtest::run_program({kTool, "-b", tls_server.url("localhost"), "--broker-cert", tls_server.ca_file()}, &out),
              0)
        << out;
    EXPECT_EQ(fqtest::run_program({kTool, "-b", tls_server.url(), "-c", tls_server.other_ca_file()}, &out), 2);
    EXPECT_NE(out.find("cannot connect"), std::string::npos) << out;

    EXPECT_EQ(fqtest::run_program({kTool, "-b", auth_server.url(), "-u", "admin", "-p", "s3cret"}, &out), 0) << out;
    EXPECT_EQ(fqtest::run_program({kTool, "-b", auth_server.url(), "-u", "admin", "-p", "wrong"}, &out), 2);
    EXPECT_NE(out.find("cannot connect"), std::string::npos) << out;
}

TEST(NatsProvision, ToolFailsClearlyOnBadInputOrNoBroker)
{
    std::string out;
    EXPECT_EQ(fqtest::run_program({kTool, "--help"}, &out), 0);
    EXPECT_NE(out.find("Usage:"), std::string::npos);
    EXPECT_EQ(fqtest::run_program({kTool, "--ack-wait", "soon"}, &out), 1);
    EXPECT_NE(out.find("invalid value 'soon' for --ack-wait"), std::string::npos) << out;
    EXPECT_EQ(fqtest::run_program({kTool, "--max-deliver", "0"}, &out), 1);
    EXPECT_EQ(fqtest::run_program({kTool, "--no-such-option"}, &out), 1);
    EXPECT_EQ(fqtest::run_program({kTool, "stray"}, &out), 1);

    const int port = fqtest::free_tcp_port();
    const std::string url = "nats://127.0.0.1:" + std::to_string(port);
    EXPECT_EQ(fqtest::run_program({kTool, "-b", url, "--wait", "300ms"}, &out), 2);
    EXPECT_NE(out.find("cannot connect to " + url), std::string::npos) << out;

    fqtest::NatsServerOptions o;
    o.jetstream = false;
    fqtest::NatsServer plain(o);
    std::string err;
    ASSERT_TRUE(plain.start(&err)) << err;
    EXPECT_EQ(fqtest::run_program({kTool, "-b", plain.url()}, &out), 2);
    EXPECT_NE(out.find("offers no JetStream"), std::string::npos) << out;
}

}  // namespace
