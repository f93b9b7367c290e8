// The scan request of this service: reads the job into its record, runs the scan driver over the
// object within SCANTIMEOUT, summarises the verdicts and writes the client's reply. The dispatcher
// calls it for SCAN_ONLY and SCAN_CLEAN on the serving thread that took the job. Every failure (a job
// that cannot be read, a failure of the driver's own) ends in a SERVICE_ERROR reply with its reason,
// never in a clean one.
#include <json-c/json.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>


#include "fq_worker.h"
#include "fq_worker_RecursiveScan.h"
#include "fq_worker_scan_result.h"
#include "fq_worker_scanobject.h"
#include "fqhlp_replies.h"
#include "fqscanproxy_quarantine.h"
#include "log.h"

namespace {

// A failed hand-off marks the reply that was written: ReturnCode becomes the text "-1000" and
// Error says why, the other members stay. The object is then reported as neither clean nor kept.
void s_mark_quarantine_failed(fq_message_t* reply, const char* errormessage)
{
    if (!reply || !reply->json_txt)
        return;
    fq_json_ptr obj(json_tokener_parse(reply->json_txt));
    if (!obj || !json_object_is_type(obj.get(), json_type_object))
        return;
    json_object_object_add(obj.get(), "ReturnCode", json_object_new_string("-1000"));
    json_object_object_add(obj.get(), "Error", json_object_new_string(errormessage));
    const char* text = json_object_to_json_string_ext(obj.get(), JSON_C_TO_STRING_NOSLASHESCAPE);
    char* copy = text ? strdup(text) : nullptr;
    if (!copy)
        return;
    free(reply->json_txt);
    reply->json_txt = copy;
}

// After the reply is written: a non-clean result of a job with CLEANQUARANTINE goes to the
// quarantine first. Returns what the request's result becomes.
int s_quarantine_step(int rc, fq_worker_config_t* config, fq_worker_scan_result_t* consolidated,
                      fq_worker_scanobject_t* scanobject, fq_message_t* reply, char* errormessage)
{
    if (rc == 0 || !scanobject || !scanobject->CLEANQUARANTINE || !scanobject->CLEANQUARANTINE[0])
        return rc;
    log_warn("Quarantining file");
    char* stored_name = nullptr;
    rc = fqscanproxy_quarantine(consolidated, config, scanobject, &stored_name, errormessage);
    free(stored_name);
    if (rc == 0)
        return 0;
    log_error("Failed to quarantine file: %s", errormessage);
    s_mark_quarantine_failed(reply, errormessage);
    return SERVICE_ERROR;
}

}  // namespace

int fq_worker_handle_scan_request(fq_worker_config_t* config, fq_const_request_reply_t* rr,
                                  json_object* request_json, fq_worker_thread_t* thread, bool clean)
{
    (void)thread;
    (void)clean;  // cleaning reaches the services through Command and CUST_CLEAN of the forwarded job
    char errormessage[1024] = "";
    int rc = 0;
    fq_scan_result_ptr consolidated(fq_worker_new_scan_result());
    fq_scanobject_ptr scanobject;
    fq_message_t* reply = rr ? rr->reply : nullptr;

    if (!consolidated) {
        log_error("Failed to allocate %s", "consolidated_scanresult");
        rc = SERVICE_ERROR;
    } else if (!(consolidated->error = static_cast<char*>(calloc(1, 1024)))) {
        log_error("Failed to allocate %s", "consolidated_scanresult->error");
        rc = SERVICE_ERROR;
    } else if (!config || !rr || !rr->request || !request_json) {
        snprintf(errormessage, sizeof(errormessage), "Failed to get scan job details from MQ message");
        log_error("%s", errormessage);
        rc = SERVICE_ERROR;
    } else if (!(scanobject.reset(fq_worker_GetScanJobDetails(request_json, errormessage)), scanobject)) {
        snprintf(errormessage, sizeof(errormessage), "Failed to get scan job details from MQ message");
        log_error("%s", errormessage);
        rc = SERVICE_ERROR;
    } else {
        scanobject->worker_config = config;
        scanobject->ScanBuffer = rr->request->data;
        scanobject->recursion_level -= 1;
        const uint64_t timeout_ms = static_cast<uint64_t>(static_cast<int64_t>(scanobject->ScanConfig->ScanTimeout));
        rc = fqworker_RecursiveScan(scanobject->ObjectName, reinterpret_cast<const char*>(scanobject->ScanBuffer),
                                    scanobject->ObjectLen, scanobject.get(), consolidated.get(), errormessage, nullptr,
                                    config->UseSharedMemoryForRecursion, timeout_ms, rr->request->staged_data_key);
        if (rc != 0) {
            log_warn("Scan NOT OK: rc= %d", rc);
            consolidated->rc = rc;
            // The driver's own failures (time budget, missing bytes, encoding) add no file entry:
            // their text must still reach the reply's Error.
            if (rc <= SERVICE_ERROR || rc == -1) {
                if (consolidated->error[0] == '\0' && errormessage[0] != '\0')
                    snprintf(consolidated->error, 1024, "%s", errormessage);
                if (consolidated->error[0] == '\0')
                    snprintf(consolidated->error, 1024, "Scan failed with code %d", rc);
                if (rc == -1)
                    consolidated->rc = SERVICE_ERROR;
            }
        }
        if (consolidated->rc == 0)
            consolidated->rc = SCAN_RECURSIVE_OK;
        if (fq_worker_create_scan_results_summary(consolidated.get()) != 0) {
            log_error("Failed to create scan summary");
            rc = SERVICE_ERROR;
        }
        if (reply)
            reply->json_txt = fq_worker_create_scan_reply(consolidated.get());
    }

    if (reply && !reply->json_txt)
        fq_reply_set_ERROR(&reply->json_txt, SERVICE_ERROR, errormessage);

    rc = s_quarantine_step(rc, config, consolidated.get(), scanobject.get(), reply, errormessage);

    return rc == SERVICE_ERROR ? SERVICE_ERROR : 0;
}
