// The quarantine hand-off. When a scan job with CLEANQUARANTINE ends in anything but a clean
// verdict, the request handler calls this after the reply has been written and before it goes
// back: the object goes to fq-av-quarantine.<key>, in plain or sealed under the key the job's pass
// phrase derives, and the client's reply is marked failed unless the service says it stored it.
// It never sends an object in plain when a pass phrase was given, never sends anything to a
// subject that fails the name checks or did not answer the ping, and never logs the pass phrase.
#include "fqscanproxy_quarantine.h"

#include <json-c/json.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "fq_connection_client.h"
#include "fq_nats_names.h"
#include "fq_quarantine_get_key.h"
#include "fq_raii.h"
#include "fq_worker_ping.h"
#include "log.h"

namespace {

const int s_ping_tries = 2;
const int s_ping_timeout_ms = 100;
const int s_ping_delay_ms = 100;
const uint32_t s_send_retries = 3;

// Writes the failure text to errormessage and the log; the hand-off's answer is then -1000.
__attribute__((format(printf, 2, 3))) int s_fail(char* errormessage, const char* fmt, ...)
{
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(errormessage, 1024, fmt, ap);
    va_end(ap);
    log_error("%s", errormessage);
    return SERVICE_ERROR;
}

bool s_add(json_object* obj, const char* key, json_object* value)
{
    return value && json_object_object_add(obj, key, value) == 0;
}

const char* s_text(const char* text)
{
    return text ? text : "";
}

// The members in the order the quarantine services expect them; Nonce is added later.
json_object* s_build_request(const fq_worker_scan_result_t* scan_result, const fq_worker_scanobject_t* so)
{
    fq_json_ptr req(json_object_new_object());
    if (!req)
        return nullptr;
    const char* description = scan_result->rc == SERVICE_ERROR ? scan_result->error : scan_result->blocking_reason;
    const bool ok = s_add(req.get(), "Command", json_object_new_int(QUARANTINE_STORE_FILE)) &&
                    s_add(req.get(), "ObjectName", json_object_new_string(s_text(so->ObjectName))) &&
                    s_add(req.get(), "ObjectLen", json_object_new_uint64(so->ObjectLen)) &&
                    s_add(req.get(), "realmID", json_object_new_string(s_text(so->realmID))) &&
                    s_add(req.get(), "SID", json_object_new_string(s_text(so->SID))) &&
                    s_add(req.get(), "Hostname", json_object_new_string(s_text(so->CLIENT_HOSTNAME_FQDN))) &&
                    s_add(req.get(), "PID", json_object_new_int64(so->PID)) &&
                    s_add(req.get(), "TID", json_object_new_int64(so->TID)) &&
                    s_add(req.get(), "EventID", json_object_new_string(s_text(so->eventID))) &&
                    s_add(req.get(), "ResultDescription", json_object_new_string(s_text(description)));
    return ok ? req.release() : nullptr;
}

// What the service answered: 0 with the stored name, its own non-zero code, or -1000.
int s_read_reply(json_object* reply, const char* subject, const char** stored_name, char* errormessage)
{
    json_object* value = nullptr;
    int64_t code = 0;
    if (!json_object_object_get_ex(reply, "ReturnCode", &value))
        log_warn("Object %s not found", "ReturnCode");
    else if (json_object_get_type(value) != json_type_int)
        // A code that is no number could read as 0 (stored) without being one.
        return s_fail(errormessage, "Quarantine service %s answered without a readable ReturnCode", subject);
    else
        code = json_object_get_int64(value);
    if (code != 0) {
        const int rc = code < INT32_MIN ? INT32_MIN : code > INT32_MAX ? INT32_MAX : static_cast<int>(code);
        json_object* error = nullptr;
        const bool has_error = json_object_object_get_ex(reply, "Error", &error) && error;
        snprintf(errormessage, 1024, "Quarantine service %s refused the object with ReturnCode %d%s%s", subject, rc,
                 has_error ? ": " : "", has_error ? fq_nats_printable(json_object_get_string(error), 512).c_str() : "");
        log_error("%s", errormessage);
        return rc;
    }
    if (!json_object_object_get_ex(reply, "QuarantineFilename", &value) || !value) {
        log_error("Failed to read %s from JSON", "QuarantineFilename");
        return s_fail(errormessage, "Quarantine service %s did not name the stored object", subject);
    }
    const char* name = json_object_get_string(value);
    if (!name || !*name) {
        log_error("Key %s found, but value is empty", "QuarantineFilename");
        return s_fail(errormessage, "Quarantine service %s did not name the stored object", subject);
    }
    *stored_name = name;
    return 0;
}

}  // namespace

int fqscanproxy_quarantine(fq_worker_scan_result_t* scan_result, const fq_worker_config_t* config,
                           fq_worker_scanobject_t* scanobject, char** quarantine_log_filename, char* errormessage)
{
    char local_error[1024] = "";
    if (!errormessage)
        errormessage = local_error;
    if (quarantine_log_filename)
        *quarantine_log_filename = nullptr;
    if (!scan_result || !config || !scanobject || !scanobject->CLEANQUARANTINE || !scanobject->ScanConfig)
        return s_fail(errormessage, "Quarantine hand-off called without a scan object");

    // The service key is a part of the subject; the pass phrase (which may hold colons) never
    // leaves this function except as the key it derives.
    char* passphrase = strchr(scanobject->CLEANQUARANTINE, ':');
    if (passphrase)
        *passphrase++ = '\0';

    char subject[256];
    const int n = snprintf(subject, sizeof(subject), "fq-av-quarantine.%s", scanobject->CLEANQUARANTINE);
    char why[128] = "";
    if (n < 0 || static_cast<size_t>(n) >= sizeof(subject) ||
        fq_nats_check_name(subject, FQ_NAME_SERVICE, why, sizeof(why)) != 0) {
        if (!why[0])
            snprintf(why, sizeof(why), "is too long");
        return s_fail(errormessage, "Invalid CLEANQUARANTINE: the quarantine subject %s %s",
                      fq_nats_printable(subject, 80).c_str(), why);
    }

    if (fq_worker_ping(config->connection_config, subject, false, s_ping_tries, s_ping_timeout_ms, s_ping_delay_ms) != 0)
        return s_fail(errormessage, "Quarantine service %s is not available", subject);

    fq_json_ptr request(s_build_request(scan_result, scanobject));
    if (!request)
        return s_fail(errormessage, "Failed to export JSON request");

    const unsigned char* payload = scanobject->ScanBuffer;
    size_t payload_len = scanobject->ObjectLen;
    fq_buf_ptr sealed;
    if (passphrase) {
        unsigned char* out = nullptr;
        size_t out_len = 0;
        char nonce_hex[FQ_SECRETBOX_NONCE_HEX_BYTES];
        const int erc = fq_quarantine_encrypt(config, passphrase, scanobject->ScanBuffer, scanobject->ObjectLen, &out,
                                              &out_len, nonce_hex);
        sealed.reset(out);
        if (erc == FQ_QUARANTINE_NO_KEY)
            return s_fail(errormessage, "Quarantine encryption failed: no key could be derived from the pass phrase");
        if (erc != FQ_QUARANTINE_ENCRYPTED)
            return s_fail(errormessage, "Quarantine encryption failed");
        if (!s_add(request.get(), "Nonce", json_object_new_string(nonce_hex)))
            return s_fail(errormessage, "Failed to export JSON request");
        payload = sealed.get();
        payload_len = out_len;
    } else if (payload_len > 0 && !payload) {
        return s_fail(errormessage, "Quarantine failed: the bytes of %s are missing",
                      fq_nats_printable(scanobject->ObjectName, 256).c_str());
    }

    const char* text = json_object_to_json_string_ext(request.get(), JSON_C_TO_STRING_NOSLASHESCAPE);
    if (!text)
        return s_fail(errormessage, "Failed to export JSON request");

    fq_const_message_t msg{text, payload, payload_len, nullptr};
    fq_message_t answer{};
    fq_const_request_reply_t rr{&msg, &answer};
    const uint64_t timeout_ms = static_cast<uint64_t>(static_cast<int64_t>(scanobject->ScanConfig->ScanTimeout));
    fq_json_ptr reply(
        fq_connection_send_recv_json_data(config->connection_config, subject, &rr, timeout_ms, 0, s_send_retries, nullptr));
    free(answer.json_txt);
    if (!reply)
        return s_fail(errormessage, "Failed to get reply from service %s", subject);

    const char* stored_name = nullptr;
    const int rc = s_read_reply(reply.get(), subject, &stored_name, errormessage);
    if (rc != 0)
        return rc;
    if (quarantine_log_filename && !(*quarantine_log_filename = strdup(stored_name)))
        return s_fail(errormessage, "Failed to allocate %s", "quarantine_log_filename");
    log_info("Quarantined %s at %s as %s%s", fq_nats_printable(scanobject->ObjectName, 256).c_str(), subject,
             fq_nats_printable(stored_name, 256).c_str(), passphrase ? " (encrypted)" : "");
    return 0;
}
