// The worker's two small channels, each on a serving thread of its own beside the scan threads:
// fq-av-scanproxy.ping, which answers a PING and nothing else, and the private control subject
// fq-av-scanproxy.<host>_<pid>, which takes PING, the READY of a temporary worker during an update,
// and SHUTDOWN. READY and SHUTDOWN are obeyed only with the matching secret, compared in constant
// time; a worker without a secret of its own refuses them all.
#include "fq_worker_ping_handler.h"

#include <sodium.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include "fq_worker.h"
#include "fqhlp_replies.h"
#include "log.h"

namespace {

// Secrets are compared in constant time. A side without a secret refuses:
// there is nothing to compare a remote value with.
bool s_secret_matches(const char* local, const char* remote)
{
    if (!local || !*local || !remote)
        return false;
    const size_t n = strlen(local);
    if (strlen(remote) != n)
        return false;
    return sodium_memcmp(local, remote, n) == 0;
}

// A JSON string's inner text: what goes between the quotes.
std::string s_escaped(const char* text)
{
    fq_json_ptr s(json_object_new_string(text ? text : ""));
    if (!s)
        return "";
    std::string quoted = json_object_to_json_string_ext(s.get(), JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
    return quoted.size() >= 2 ? quoted.substr(1, quoted.size() - 2) : "";
}

void s_set_generic_reply(fq_const_request_reply_t* rr, int rc)
{
    if (rr && rr->reply && !rr->reply->json_txt) {
        log_warn("Creating generic error reply");
        fq_reply_set_return_code(&rr->reply->json_txt, rc);
    }
}

void s_replace(char** field, const char* value)
{
    free(*field);
    *field = value ? strdup(value) : nullptr;
}

int s_handle_shutdown(fq_worker_config_t* config, json_object* request, fq_message_t* reply)
{
    log_info("SERVICE_SHUTDOWN request received");
    const char* secret = fq_worker_read_mandatory_string(request, "Secret");
    if (!secret)
        return -1;
    if (!s_secret_matches(config->secret, secret)) {
        log_warn("secret mismatch (Local: \"%s\" remote: \"%s\") - not shutting down",
                 config->secret ? config->secret : "", secret);
        if (reply)
            fq_reply_set_ERROR(&reply->json_txt, SERVICE_ERROR, "Secret mismatch");
        return 0;
    }
    if (reply)
        fq_reply_set_OK(&reply->json_txt);
    // The reply is published by the serving thread before the main loop sees the flag.
    killed = 1;
    return 0;
}

int s_handle_ready(fq_worker_config_t* config, json_object* request, fq_message_t* reply)
{
    log_info("SERVICE_READY message received");
    const char* secret = fq_worker_read_mandatory_string(request, "Secret");
    if (!secret)
        return -1;
    if (!s_secret_matches(config->update_secret, secret)) {
        log_warn("secret mismatch (Local: \"%s\" remote: \"%s\") ", config->update_secret ? config->update_secret : "",
                 secret);
        if (reply)
            fq_reply_set_ERROR(&reply->json_txt, SERVICE_ERROR, "Secret mismatch");
        return 0;
    }
    log_info("Temporary worker is ready. Completing update-restart");
    if (reply)
        fq_reply_set_OK(&reply->json_txt);

    auto* update = static_cast<fq_worker_update_thread_params_t*>(config->update);
    if (!update)
        return -1;
    s_replace(&update->shutdown_servicename, nullptr);
    const char* subject = fq_worker_read_mandatory_string(request, "Shutdown");
    if (!subject)
        return -1;
    s_replace(&update->shutdown_servicename, subject);
    s_replace(&update->shutdown_secret, nullptr);
    const char* shutdown_secret = fq_worker_read_mandatory_string(request, "Shutdown-Secret");
    if (!shutdown_secret)
        return -1;
    s_replace(&update->shutdown_secret, shutdown_secret);
    // Written last: the main loop acts on it and reads the two texts above.
    fq_atomic_store(update->status, WAITING_FOR_RESTART);
    return 0;
}

}  // namespace

int fq_worker_ping_request_handler(void* params, fq_const_request_reply_t* rr)
{
    (void)params;
    int rc = 0;
    if (!rr || !rr->request || !rr->request->json_txt) {
        log_error("Invalid request");
        rc = -1;
    } else {
        fq_json_ptr request(fq_worker_parse_request_json(rr->request->json_txt));
        if (!request) {
            rc = -1;
        } else {
            const int command = fq_worker_read_command(request.get());
            if (command == PING_SERVICE) {
                if (rr->reply)
                    fq_reply_set_OK(&rr->reply->json_txt);
            } else {
                log_error("Invalid command code: %d", command);
                rc = -1;
            }
        }
    }
    s_set_generic_reply(rr, rc);
    return rc;
}

int fq_worker_control_request_handler(void* params, fq_const_request_reply_t* rr)
{
    auto* global = static_cast<fq_thread_global_params_t*>(params);
    if (!rr || !rr->request || !rr->request->json_txt || !global || !global->config) {
        log_error("Invalid request");
        return -1;
    }
    fq_json_ptr request(fq_worker_parse_request_json(rr->request->json_txt));
    if (!request)
        return -1;  // a malformed control message gets no reply
    log_debug("Got Control Job");
    const int command = fq_worker_read_command(request.get());
    log_debug("Commandcode: %d", command);
    switch (command) {
    case PING_SERVICE:
        if (rr->reply)
            fq_reply_set_OK(&rr->reply->json_txt);
        return 0;
    case SERVICE_REPORT_READY:
        return s_handle_ready(global->config, request.get(), rr->reply);
    case CONTROL_SERVICE_SHUTDOWN:
        return s_handle_shutdown(global->config, request.get(), rr->reply);
    case CONTROL_SERVICE_CLEAR_CONFIG_CACHE:
    case CONTROL_SERVICE_CLEAR_ALL_CONFIG_CACHE:
        return 0;
    default:
        log_warn("Unhandled Command Code %d received", command);
        return 0;
    }
}

int fq_worker_build_ready_message(char* buf, size_t buflen, const char* secret, const char* shutdown_subject,
                                  const char* shutdown_secret)
{
    const int n = snprintf(buf, buflen, "{ \"Command\" : %d , \"Secret\":\"%s\", \"Shutdown\":\"%s\", \"Shutdown-Secret\":\"%s\"}",
                           SERVICE_REPORT_READY, s_escaped(secret).c_str(), s_escaped(shutdown_subject).c_str(),
                           s_escaped(shutdown_secret).c_str());
    return n < 0 || static_cast<size_t>(n) >= buflen ? -1 : 0;
}

int fq_worker_build_shutdown_message(char* buf, size_t buflen, const char* secret)
{
    const int n = snprintf(buf, buflen, "{ \"Command\" : %d , \"Secret\":\"%s\"}", CONTROL_SERVICE_SHUTDOWN,
                           s_escaped(secret).c_str());
    return n < 0 || static_cast<size_t>(n) >= buflen ? -1 : 0;
}
