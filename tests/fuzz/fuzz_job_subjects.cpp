// Fuzzes the road from a scan job to the broker: every member that can become a subject or a
// key. The job goes through the same code as on the broker (the staged-key reading, the job
// parser, the scan driver with its "+" chains and MIME step), with the transport replaced by a
// watcher. The watcher aborts when a request would go to a subject, or carry a staged key, that
// the name checks refuse; and a failed scan must always say why.
#include <json-c/json.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "fq_nats_client.h"
#include "fq_nats_names.h"
#include "fq_raii.h"
#include "fq_worker.h"
#include "fq_worker_RecursiveScan.h"
#include "fq_worker_scan_result.h"
#include "fq_worker_scanobject.h"
#include "log.h"

namespace {

struct Watch {
    uint8_t verdicts[8];
    size_t calls = 0;
};

const char* s_reply_for(uint8_t choice)
{
    switch (choice % 5) {
    case 0:
        return "{\"ReturnCode\": 0, \"FilesScanned\": 1, \"Results\": [{\"ReturnCode\": 0, \"File-name\": \"f\", "
               "\"MIME-type\": \"text/plain\"}]}";
    case 1:
        return "{\"ReturnCode\": -100, \"Blocking-reason\": \"later\"}";
    case 2:
        return "{\"ReturnCode\": -210, \"FilesScanned\": 1, \"Results\": [{\"ReturnCode\": -210, \"File-name\": "
               "\"f\", \"Virusname\": \"V\"}]}";
    case 3:
        return "{\"ReturnCode\": 0, \"FilesScanned\": 1, \"Results\": [{\"ReturnCode\": -1000, \"File-name\": \"f\"}]}";
    default:
        return nullptr;  // no reply at all
    }
}

json_object* s_watch_send(void* ctx, const char* service, fq_const_request_reply_t* rr, uint64_t, char*)
{
    auto* w = static_cast<Watch*>(ctx);
    if (fq_nats_check_name(service, FQ_NAME_SERVICE, nullptr, 0) != 0)
        abort();  // a subject the broker could misread got as far as the transport
    if (rr->request->staged_data_key && fq_nats_check_name(rr->request->staged_data_key, FQ_NAME_KV_KEY, nullptr, 0))
        abort();
    fq_json_ptr job(json_tokener_parse(rr->request->json_txt));
    json_object* key = nullptr;
    if (job && json_object_object_get_ex(job.get(), "_kv_key", &key) &&
        fq_nats_check_name(json_object_get_string(key), FQ_NAME_KV_KEY, nullptr, 0) != 0)
        abort();
    const char* reply = s_reply_for(w->verdicts[w->calls++ % sizeof(w->verdicts)]);
    return reply ? json_tokener_parse(reply) : nullptr;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    log_set_level(0);
    log_set_screentrace(0);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < sizeof(Watch::verdicts))
        return 0;
    Watch watch;
    memcpy(watch.verdicts, data, sizeof(watch.verdicts));
    const std::string text(reinterpret_cast<const char*>(data) + sizeof(watch.verdicts), size - sizeof(watch.verdicts));
    fq_json_ptr job(json_tokener_parse(text.c_str()));
    if (!job || !json_object_is_type(job.get(), json_type_object))
        return 0;

    std::string key;
    std::string refusal;
    const int has_key = fq_nats_request_staged_key(job.get(), &key, &refusal);
    if (has_key < 0) {
        if (refusal.empty())
            abort();  // a refused job is answered with a reason
        return 0;
    }
    json_object_object_del(job.get(), "_kv_key");

    char error[1024] = "";
    fq_worker_scanobject_t* raw = fq_worker_GetScanJobDetails(job.get(), error);
    if (!raw)
        return 0;
    static fq_connection_config connection{};
    static fq_worker_config_t config{};
    config.connection_config = &connection;
    raw->worker_config = &config;
    raw->recursion_level -= 1;
    static const char bytes[4096] = {0};
    const size_t datalen = raw->ObjectLen > sizeof(bytes) ? sizeof(bytes) : raw->ObjectLen;
    fq_worker_scan_result_t* result = fq_worker_new_scan_result();
    const int rc = fqworker_RecursiveScan_via(s_watch_send, &watch, raw->ObjectName, bytes, datalen, raw, result, error,
                                              nullptr, false, 1000, has_key > 0 ? key.c_str() : "fuzz-staged-key");
    fq_worker_create_scan_results_summary(result);
    const bool said_why = error[0] || (result->error && result->error[0]);
    if ((rc == SERVICE_ERROR || result->rc == SERVICE_ERROR) && !said_why)
        abort();  // a failed scan must say why
    fq_worker_free_scan_result(&result);
    fq_worker_FreeScanObject(&raw);
    return 0;
}
