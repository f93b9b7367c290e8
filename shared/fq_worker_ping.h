// Is a service there? One small request that any JSON answer satisfies.
#pragma once

#include "fq_connection_client.h"

// 0 if the service answered (whatever it said), -1 if not.
int fq_worker_ping(fq_connection_config* natsConfig, const char* servicename, bool use_ping_suffix, int tries,
                   int timeout_ms, int retry_dely_ms);
