// The peers the benchmark drives its jobs through: a trivial scan service served in this process,
// and a minimal relay (its own process) that does what any broker in the middle has to do.
#pragma once

#include <signal.h>

#include <memory>
#include <string>
#include <vector>

#include "fq_connection_client.h"
#include "fq_request_reply_types.h"

namespace fqbench {

// Answers a ping with ReturnCode 0 and a job whose object could be read (and has the length the
// job names) with a clean reply of one entry; anything else with SERVICE_ERROR.
int bench_scan_handler(void* handler_config, fq_const_request_reply_t* rr);

// The relay: reads the job (the payload has been read by the serving code already), and sends it
// with the inbound key to each service of its "Services", one after the other, stopping at the
// first reply that is not clean. handler_config is the relay's fq_connection_config.
int bench_relay_handler(void* handler_config, fq_const_request_reply_t* rr);

// A connection made the way the worker makes its own (SendAsap on); null after a message on failure.
fq_connection_config* bench_connect(const std::string& url);
void bench_disconnect(fq_connection_config** cfg);

// The scan services of one run: each name on its own connection, queue group of its name,
// threads_per_service subscriptions of one thread each (as the worker serves its own subject).
class ScanServices {
public:
    ScanServices() = default;
    ~ScanServices() { stop(); }
    ScanServices(const ScanServices&) = delete;
    ScanServices& operator=(const ScanServices&) = delete;
    bool start(const std::string& url, const std::vector<std::string>& names, int threads_per_service,
               std::string* error);
    // Flags the threads, lets them see it, and closes the connections.
    void stop();

private:
    std::vector<fq_connection_config*> conns_;
};

// The relay process: fq-av-bench --relay-serve <url> <subject> <threads>. Serves until SIGTERM.
int relay_main(const std::string& url, const std::string& subject, int threads);

}  // namespace fqbench
