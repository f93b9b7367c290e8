#include "fq_worker.h"
#include "fqhlp_replies.h"
#include "log.h"

// The scan pipeline is not part of this build yet. A scan must never be
// answered as clean when it did not happen, so it fails with SERVICE_ERROR.
int fq_worker_handle_scan_request(fq_worker_config_t* config, fq_const_request_reply_t* rr,
                                  json_object* request_json, fq_worker_thread_t* thread, bool clean)
{
    (void)config;
    (void)request_json;
    (void)thread;
    (void)clean;
    log_error("Scanning is not available in this build");
    if (rr && rr->reply && !rr->reply->json_txt)
        fq_reply_set_ERROR(&rr->reply->json_txt, SERVICE_ERROR, "Scanning is not available in this build");
    return SERVICE_ERROR;
}
