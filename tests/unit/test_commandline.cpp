#include <gtest/gtest.h>

#include <stdlib.h>
#include <string.h>

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

TEST(CommandLine, DefaultsStandWithoutOptions)
{
    Config c;
    ASSERT_EQ(0, c.parse({}));
    EXPECT_EQ(50, c.cfg.worker_threads);
    EXPECT_EQ(75, c.cfg.load_hwm);
    EXPECT_EQ(10, c.cfg.load_lwm);
    EXPECT_EQ(60, c.cfg.load_sampling_period);
    EXPECT_EQ(10, c.cfg.control_timeout);
    EXPECT_EQ(5, c.cfg.register_interval);
    EXPECT_EQ(0, c.cfg.tracelevel);
    EXPECT_FALSE(c.cfg.console_mode);
    EXPECT_EQ(nullptr, c.cfg.basedir);
    EXPECT_EQ(nullptr, c.conn.server_url);
}

TEST(CommandLine, LongAndShortFormsFillTheirFields)
{
    Config c;
    ASSERT_EQ(0, c.parse({"--basedir", "/opt/fq", "-b", "/tmp/t", "--work-directory", "/opt/fq/bin", "-d", "-i",
                          "--tracefile", "/var/log/w.log", "-m", "6", "-E", "3", "-p", "https://upd", "-q", "-r",
                          "-s", "-t", "proxy:3128", "-v", "30", "-w", "4", "-x", "-y", "alice", "-z", "pw", "-A",
                          "/ca.pem", "-C", "svc.b", "-D", "s3cret", "-H", "9", "-K", "--js-ingress",
                          "--js-worker-threads", "12", "--scan-slots", "7", "--js-services", "a,b"}));
    EXPECT_STREQ("/opt/fq", c.cfg.basedir);
    EXPECT_STREQ("/tmp/t", c.cfg.tempdir);
    EXPECT_STREQ("/opt/fq/bin", c.cfg.progdir);
    EXPECT_TRUE(c.cfg.IsPrimary);
    EXPECT_TRUE(c.cfg.autoscale);
    EXPECT_STREQ("/var/log/w.log", c.cfg.tracefile);
    EXPECT_EQ(6, c.cfg.tracelevel);
    EXPECT_EQ(3u, c.cfg.tracefile_maxsize);
    EXPECT_STREQ("https://upd", c.upd.update_server);
    EXPECT_TRUE(c.upd.update_engine && c.upd.update_data && c.upd.update_binary && c.upd.no_certificate_check);
    EXPECT_STREQ("proxy:3128", c.net.http_proxy);
    EXPECT_EQ(30, c.upd.update_check_interval);
    EXPECT_EQ(4, c.upd.update_max_backups);
    EXPECT_TRUE(c.cfg.console_mode);
    EXPECT_STREQ("alice", c.conn.broker_user);
    EXPECT_STREQ("pw", c.conn.broker_password);
    EXPECT_STREQ("/ca.pem", c.conn.cert_path);
    EXPECT_STREQ("svc.b", c.cfg.shutdown_when_ready);
    EXPECT_STREQ("s3cret", c.cfg.secret);
    EXPECT_EQ(9, c.cfg.register_interval);
    EXPECT_TRUE(c.cfg.js_ingress_enabled);
    EXPECT_EQ(12, c.cfg.js_worker_threads);
    EXPECT_EQ(7, c.cfg.scan_slots);
    EXPECT_STREQ("a,b", c.conn.js_services);
}

TEST(CommandLine, RangeCheckedOptionsIgnoreValuesOutside)
{
    Config c;
    ASSERT_EQ(0, c.parse({"--autoscale-low-water-mark", "5", "--autoscale-high-water-mark", "100",
                          "--autoscale-monitoring-period", "120", "--tracelevel", "7",
                          "--control-connection-timeout", "60", "--tracefile-maxsize", "-1"}));
    EXPECT_EQ(10, c.cfg.load_lwm);
    EXPECT_EQ(75, c.cfg.load_hwm);
    EXPECT_EQ(60, c.cfg.load_sampling_period);
    EXPECT_EQ(0, c.cfg.tracelevel);
    EXPECT_EQ(10, c.cfg.control_timeout);
    EXPECT_EQ(0u, c.cfg.tracefile_maxsize);

    ASSERT_EQ(0, c.parse({"-l", "6", "-k", "99", "-j", "119", "-m", "0", "-h", "59", "-j", "2", "-k", "2"}));
    EXPECT_EQ(6, c.cfg.load_lwm);
    EXPECT_EQ(2, c.cfg.load_hwm);
    EXPECT_EQ(2, c.cfg.load_sampling_period);
    EXPECT_EQ(59, c.cfg.control_timeout);
}

TEST(CommandLine, TextWithoutDigitsConvertsToZero)
{
    Config c;
    ASSERT_EQ(0, c.parse({"--worker-threads", "abc", "--autoscale-low-water-mark", "abc"}));
    EXPECT_EQ(0, c.cfg.worker_threads);  // unchecked: stored
    EXPECT_EQ(10, c.cfg.load_lwm);       // checked: 0 is out of range
}

TEST(CommandLine, ConversionErrorEndsParsing)
{
    Config c;
    EXPECT_EQ(-1, c.parse({"--worker-threads", "99999999999999999999999", "--basedir", "/x"}));
    EXPECT_EQ(nullptr, c.cfg.basedir);  // nothing after the failing option is read
    Config d;
    // Beyond an int is as much a conversion error as beyond a long.
    EXPECT_EQ(-1, d.parse({"--scan-slots", "4294967296"}));
}

TEST(CommandLine, RepeatedOptionsOverwriteAndUnknownOnesAreSkipped)
{
    Config c;
    ASSERT_EQ(0, c.parse({"--basedir", "/a", "--no-such-option", "-Z", "--basedir", "/b", "stray-word", "-g", "3",
                          "-g", "4"}));
    EXPECT_STREQ("/b", c.cfg.basedir);
    EXPECT_EQ(4, c.cfg.worker_threads);
}

TEST(CommandLine, DroppedOptionsAreAcceptedWithTheirArgument)
{
    Config c;
    ASSERT_EQ(0, c.parse({"--config-file", "/etc/x.ini", "-I", "/q", "--quarantine_service_key", "k", "-g", "8"}));
    EXPECT_EQ(8, c.cfg.worker_threads);
    EXPECT_EQ(nullptr, c.cfg.config_file_name);
}

TEST(CommandLine, BrokerEndpointIsUrlOrHostAndPort)
{
    for (const char* url : {"nats://h:4222", "tls://h:4443", "ws://h:80", "wss://broker.example:443/x"}) {
        Config c;
        ASSERT_EQ(0, c.parse({"--broker", url}));
        EXPECT_STREQ(url, c.conn.server_url);
        EXPECT_EQ(nullptr, c.conn.broker_host);
    }
    Config c;
    ASSERT_EQ(0, c.parse({"-e", "broker-host:4222"}));
    EXPECT_EQ(nullptr, c.conn.server_url);
    EXPECT_STREQ("broker-host", c.conn.broker_host);
    EXPECT_STREQ("4222", c.conn.broker_port);

    Config h;
    ASSERT_EQ(0, h.parse({"-e", "http://gw:8080/vsi"}));  // no gateway scheme at this point
    EXPECT_EQ(nullptr, h.conn.server_url);
    EXPECT_STREQ("gw", h.conn.broker_host);
    EXPECT_STREQ("8080", h.conn.broker_port);

    Config s;
    ASSERT_EQ(0, s.parse({"-e", "abc:1234"}));  // a short host loses its port
    EXPECT_STREQ("abc", s.conn.broker_host);
    EXPECT_STREQ("5672", s.conn.broker_port);
}

struct UrlCase {
    const char* url;
    const char* protocol;
    const char* site;
    const char* port;
    const char* path;
};

TEST(SplitUrl, FixedIndexRules)
{
    const UrlCase cases[] = {
        {"amqp://broker:1234/x", "amqp", "broker", "1234", "/x"},
        {"amqp://broker", "amqp", "broker", "5672", "/"},
        {"amqp://broker/x", "amqp", "broker", "5672", "/x"},
        {"broker-host:1234", "broker-host", "broker-host", "1234", ""},
        {"abc:1234", "abc", "abc", "5672", "/"},
        {"http://gw:8080/vsi", "http", "gw", "8080", "/vsi"},
        {"broker-host:", "broker-host", "broker-host", "5672", "/"},
        {"broker-host:12ab", "broker-host", "broker-host", "12ab", ""},
        {"a:1", "a", "a", "5672", "/"},
        {"", "", "", "5672", "/"},
    };
    for (const auto& c : cases) {
        URL_INFO info{};
        ASSERT_EQ(&info, fqhlp_split_url(&info, c.url)) << c.url;
        EXPECT_STREQ(c.protocol, info.protocol) << c.url;
        EXPECT_STREQ(c.site, info.site) << c.url;
        EXPECT_STREQ(c.port, info.port) << c.url;
        EXPECT_STREQ(c.path, info.path) << c.url;
    }
}

TEST(SplitUrl, NullArguments)
{
    URL_INFO info{};
    EXPECT_EQ(nullptr, fqhlp_split_url(nullptr, "amqp://x"));
    EXPECT_EQ(nullptr, fqhlp_split_url(&info, nullptr));
}

}  // namespace
