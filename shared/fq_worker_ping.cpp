// Is a service there? One PING request that any JSON answer satisfies. The worker asks
// fq-av-worker-control this way before it takes any work. The reply is not read for its content,
// and no reply within the tries means "not there", never an error of the asker's own.
#include "fq_worker_ping.h"

#include <czmq.h>
#include <json-c/json.h>
#include <stdio.h>
#include <string.h>

#include "fq_request_reply_types.h"
#include "log.h"

int fq_worker_ping(fq_connection_config* natsConfig, const char* servicename, bool use_ping_suffix, int tries,
                   int timeout_ms, int retry_dely_ms)
{
    if (!servicename)
        return -1;
    // The broker itself is not a service that answers pings.
    if (strcmp(servicename, "fq-av-broker") == 0)
        return 0;
    char subject[256];
    snprintf(subject, sizeof(subject), "%s%s", servicename, use_ping_suffix ? ".ping" : "");
    char text[1024];
    snprintf(text, sizeof(text), "{ \"Command\" : %d }", PING_SERVICE);
    for (int i = 0; i < tries; ++i) {
        json_object* reply = fq_connection_send_recv_json(natsConfig, subject, text,
                                                          static_cast<uint32_t>(timeout_ms < 0 ? 0 : timeout_ms), 0,
                                                          nullptr);
        if (reply) {
            json_object_put(reply);
            return 0;
        }
        if (retry_dely_ms > 0)
            zclock_sleep(retry_dely_ms);
    }
    return -1;
}
