// The queue series of the benchmark: pushes into the persistent queue, delivery by the log
// dispatcher, and a feeder that keeps a worker's dispatcher busy while scans are measured.
#pragma once

#include <nats/nats.h>

#include <atomic>
#include <string>
#include <thread>

#include "fq_connection_client.h"

namespace fqbench {

// A ready record as the worker writes it.
std::string queue_sample_record();

// Pushes per second of count records, split over threads threads, into a new queue in the new
// directory dir, with the worker's limits; 0 when a push failed. The files stay: a file system may
// create files more slowly where many were deleted a moment ago, and rounds must not slow each other.
double queue_push_rate(const std::string& dir, int threads, int count, const std::string& record);

// Records per second delivered by a log dispatcher on cfg from a queue below rundir holding count
// records, half of each kind, to sinks answering on peer; 0 when not all arrived within a minute.
double queue_delivery_rate(const std::string& rundir, fq_connection_config* cfg, natsConnection* peer, int count,
                           const std::string& record);

// Keeps at least low entries waiting in the queue below rundir, from a thread of its own, so that the
// dispatcher that serves it never runs dry.
class QueueFeeder {
public:
    QueueFeeder(std::string rundir, std::string record, int low)
        : rundir_(std::move(rundir)), record_(std::move(record)), low_(low)
    {
    }
    ~QueueFeeder() { stop(); }
    QueueFeeder(const QueueFeeder&) = delete;
    QueueFeeder& operator=(const QueueFeeder&) = delete;
    bool start();
    void stop();
    long pushed() const { return pushed_.load(); }

private:
    std::string rundir_;
    std::string record_;
    int low_;
    std::atomic<bool> stop_{false};
    std::atomic<long> pushed_{0};
    std::thread thread_;
};

}  // namespace fqbench
