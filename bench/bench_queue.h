// The queue series of the benchmark: pushes into the persistent queue, delivery by the log
// dispatcher, and a feeder that keeps a worker's dispatcher busy while scans are measured.
#pragma once

#include <nats/nats.h>

#include <string>

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

// Pushes count records into the queue below rundir (the worker's) while holding its claim lock;
// the number pushed.
int queue_fill(const std::string& rundir, const std::string& record, int count);
// Entries waiting in the queue below rundir or claimed by a dispatcher.
int queue_depth(const std::string& rundir);

}  // namespace fqbench
