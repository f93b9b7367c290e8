#include <gtest/gtest.h>

#include <stdlib.h>

#include <string>
#include <vector>

#include "fq_worker.h"
#include "fqhlp_parse_url.h"

namespace {

// A configuration as main() prepares it before the command line is read.
struct Config {
    fq_worker_config_t cfg{};
    fq_connection_config conn{};
    fq_update_config_t upd{};
    fq_network_config_t net{};

    Config()
    {
        fq_worker_config_set_defaults(&cfg);
        cfg.connection_config = &conn;
        cfg.update_config = &upd;
        cfg.network_config = &net;
    }
    ~Config()
    {
        for (char* owned : {cfg.basedir, cfg.tempdir, cfg.progdir, cfg.tracefile, cfg.signal_when_ready,
                            cfg.shutdown_when_ready, cfg.secret, conn.server_url, conn.broker_host, conn.broker_port,
                            conn.broker_user, conn.broker_password, conn.cert_path, conn.js_services,
                            upd.update_server, net.http_proxy})
            free(owned);
    }
    int parse(std::vector<std::string> args)
    {
        args.insert(args.begin(), "fq-av-scanproxy");
        std::vector<char*> argv;
        for (auto& a : args)
            argv.push_back(a.data());
        argv.push_back(nullptr);
        return fqworker_parse_commandline(&cfg, static_cast<int>(args.size()), argv.data());
    }
};

TEST(CommandLine, RangeCheckedOptionsKeepTheirDefaultForValuesOutside)
{
    const struct {
        const char* option;
        const char* value;
        int fq_worker_config_t::*field;
        int want;
    } cases[] = {
        {"--autoscale-low-water-mark", "5", &fq_worker_config_t::load_lwm, 10},
        {"-l", "6", &fq_worker_config_t::load_lwm, 6},
        {"--autoscale-high-water-mark", "100", &fq_worker_config_t::load_hwm, 75},
        {"-k", "2", &fq_worker_config_t::load_hwm, 2},
        {"--autoscale-monitoring-period", "120", &fq_worker_config_t::load_sampling_period, 60},
        {"-j", "119", &fq_worker_config_t::load_sampling_period, 119},
        {"--tracelevel", "7", &fq_worker_config_t::tracelevel, 0},
        {"-m", "6", &fq_worker_config_t::tracelevel, 6},
        {"--control-connection-timeout", "60", &fq_worker_config_t::control_timeout, 10},
        {"-h", "59", &fq_worker_config_t::control_timeout, 59},
        // Checked options read text without digits as 0, which is out of range; unchecked ones store it.
        {"--autoscale-low-water-mark", "abc", &fq_worker_config_t::load_lwm, 10},
        {"--worker-threads", "abc", &fq_worker_config_t::worker_threads, 0},
    };
    for (const auto& c : cases) {
        Config cfg;
        ASSERT_EQ(0, cfg.parse({c.option, c.value})) << c.option << " " << c.value;
        EXPECT_EQ(c.want, cfg.cfg.*c.field) << c.option << " " << c.value;
    }
    Config size;
    ASSERT_EQ(0, size.parse({"--tracefile-maxsize", "-1"}));
    EXPECT_EQ(0u, size.cfg.tracefile_maxsize);
}

TEST(CommandLine, ConversionErrorEndsParsingAndOtherMistakesAreSkipped)
{
    Config c;
    EXPECT_EQ(-1, c.parse({"--worker-threads", "99999999999999999999999", "--basedir", "/x"}));
    EXPECT_EQ(nullptr, c.cfg.basedir);  // nothing after the failing option is read
    // Beyond an int is as much a conversion error as beyond a long.
    EXPECT_EQ(-1, Config().parse({"--scan-slots", "4294967296"}));

    Config d;
    ASSERT_EQ(0, d.parse({"--basedir", "/a", "--no-such-option", "-Z", "--basedir", "/b", "stray-word", "-g", "3",
                          "--config-file", "/etc/x.ini", "-I", "/q", "--quarantine_service_key", "k", "-g", "4"}));
    EXPECT_STREQ("/b", d.cfg.basedir);
    EXPECT_EQ(4, d.cfg.worker_threads);
}

TEST(CommandLine, BrokerEndpointIsUrlOrHostAndPort)
{
    const struct {
        const char* endpoint;
        const char* url;
        const char* host;
        const char* port;
    } cases[] = {
        {"nats://h:4222", "nats://h:4222", nullptr, nullptr},
        {"tls://h:4443", "tls://h:4443", nullptr, nullptr},
        {"wss://broker.example:443/x", "wss://broker.example:443/x", nullptr, nullptr},
        {"broker-host:4222", nullptr, "broker-host", "4222"},
        // No gateway scheme at this point: an http URL is a host and a port too.
        {"http://gw:8080/vsi", nullptr, "gw", "8080"},
        // The port is looked for from a fixed index on: a short host loses it.
        {"abc:1234", nullptr, "abc", "5672"},
        {"broker-host:", nullptr, "broker-host", "5672"},
    };
    for (const auto& c : cases) {
        Config cfg;
        ASSERT_EQ(0, cfg.parse({"--broker", c.endpoint}));
        EXPECT_STREQ(c.url, cfg.conn.server_url) << c.endpoint;
        EXPECT_STREQ(c.host, cfg.conn.broker_host) << c.endpoint;
        EXPECT_STREQ(c.port, cfg.conn.broker_port) << c.endpoint;
    }
    URL_INFO info{};
    EXPECT_EQ(nullptr, fqhlp_split_url(nullptr, "amqp://x"));
    EXPECT_EQ(nullptr, fqhlp_split_url(&info, nullptr));
}

}  // namespace
