// fq-av-scan's transport: how a job reaches the worker (a core request to its queue group, a job on
// its work queue with a reply inbox, or a POST to an HTTP gateway) and how the client pings it. A
// work-queue job that nobody took in time is removed from the stream again, so that no worker scans
// it after its staging is gone.
#include "scan_transport.h"

#include <json-c/json.h>
#include <nats/nats.h>
#include <stdio.h>
#include <stdlib.h>

#include "fq_nats_client.h"
#include "fq_nats_nr_backoff.h"
#include "fq_raii.h"

namespace fqscan {

namespace {

std::string s_status_text(natsStatus s)
{
    std::string text = natsStatus_GetText(s);
    const char* last = nats_GetLastError(nullptr);
    if (last && *last)
        text += std::string(" (") + last + ")";
    return text;
}

std::string s_body(natsMsg* msg)
{
    const char* data = natsMsg_GetData(msg);
    const int len = natsMsg_GetDataLength(msg);
    return data && len > 0 ? std::string(data, (size_t)len) : std::string();
}

// Core request with a short back-off while nobody is subscribed: a worker that is just
// starting its threads is not mistaken for no worker at all.
bool s_request(natsConnection* conn, const char* subject, const std::string& body, int64_t wait_ms,
               std::string* reply, std::string* error)
{
    fq_nats_nr_state_t st;
    fq_nats_nr_init(&st);
    for (;;) {
        natsMsg* raw = nullptr;
        const int64_t t = fq_nats_nr_attempt_timeout_ms(&st, wait_ms);
        const natsStatus s = natsConnection_Request(&raw, conn, subject, body.data(), (int)body.size(), t);
        fq_nats_msg_ptr msg(raw);
        if (s == NATS_OK && msg) {
            *reply = s_body(msg.get());
            return true;
        }
        if (s == NATS_NO_RESPONDERS && fq_nats_nr_should_retry(&st, wait_ms, subject))
            continue;
        if (s == NATS_TIMEOUT)
            *error = "no reply from " + std::string(subject) + " within " + std::to_string(wait_ms) + " ms";
        else if (s == NATS_NO_RESPONDERS)
            *error = "no worker serves " + std::string(subject) + " (is fq-av-scanproxy running?)";
        else
            *error = "request to " + std::string(subject) + " failed: " + s_status_text(s);
        return false;
    }
}

}  // namespace

bool request_core(fq_connection_config* cfg, const std::string& body, int64_t wait_ms, std::string* reply,
                  std::string* error)
{
    auto* conn = cfg ? static_cast<natsConnection*>(cfg->_conn) : nullptr;
    if (!conn) {
        *error = "not connected to the broker";
        return false;
    }
    return s_request(conn, kWorkerService, body, wait_ms, reply, error);
}

bool request_work_queue(fq_connection_config* cfg, const std::string& body, int64_t wait_ms, std::string* reply,
                        std::string* error)
{
    auto* conn = cfg ? static_cast<natsConnection*>(cfg->_conn) : nullptr;
    auto* js = cfg ? static_cast<jsCtx*>(cfg->_js) : nullptr;
    if (!conn || !js) {
        *error = "the broker connection has no JetStream";
        return false;
    }
    char subject[256];
    char stream[256];
    fq_nats_wq_subject(kWorkerService, subject, sizeof(subject));
    fq_nats_wq_stream(kWorkerService, stream, sizeof(stream));
    char reqid[128];
    generate_unique_key(reqid, sizeof(reqid));

    natsInbox* inbox = nullptr;
    natsStatus s = natsInbox_Create(&inbox);
    if (s != NATS_OK) {
        *error = "cannot create a reply inbox: " + s_status_text(s);
        return false;
    }
    fq_nats_inbox_ptr inbox_guard(inbox);

    fq_json_ptr job(json_tokener_parse(body.c_str()));
    if (!job || !json_object_is_type(job.get(), json_type_object)) {
        *error = "the job is not a JSON object";
        return false;
    }
    json_object_object_add(job.get(), "_reqid", json_object_new_string(reqid));
    json_object_object_add(job.get(), "_reply_subj", json_object_new_string(inbox));
    const std::string text = json_object_to_json_string_ext(job.get(), JSON_C_TO_STRING_PLAIN);

    // Subscribed before the publish, so that a fast worker's reply cannot be missed.
    natsSubscription* raw_sub = nullptr;
    s = natsConnection_SubscribeSync(&raw_sub, conn, inbox);
    if (s != NATS_OK) {
        *error = "cannot subscribe to the reply inbox: " + s_status_text(s);
        return false;
    }
    fq_nats_sub_ptr sub(raw_sub);

    jsPubOptions po;
    jsPubOptions_Init(&po);
    po.MsgId = reqid;
    jsPubAck* ack = nullptr;
    jsErrCode jerr = (jsErrCode)0;
    s = js_Publish(&ack, js, subject, text.data(), (int)text.size(), &po, &jerr);
    const uint64_t seq = ack ? ack->Sequence : 0;
    jsPubAck_Destroy(ack);
    if (s == NATS_NO_RESPONDERS) {
        *error = std::string("no work-queue stream on ") + subject +
                 " (provision the broker with: fq-av-provision --service " + kWorkerService + ")";
        return false;
    }
    if (s != NATS_OK) {
        *error = std::string("publish to ") + subject + " failed: " + s_status_text(s);
        return false;
    }

    natsMsg* raw = nullptr;
    s = natsSubscription_NextMsg(&raw, sub.get(), wait_ms);
    fq_nats_msg_ptr msg(raw);
    if (s == NATS_OK && msg) {
        *reply = s_body(msg.get());
        return true;
    }
    if (seq > 0)
        js_DeleteMsg(js, stream, seq, nullptr, nullptr);
    if (s == NATS_TIMEOUT)
        *error = std::string("no reply through the work queue ") + subject + " within " + std::to_string(wait_ms) +
                 " ms (is a worker running with --js-ingress?)";
    else
        *error = std::string("waiting for the reply through ") + subject + " failed: " + s_status_text(s);
    return false;
}

bool request_gateway(fq_connection_config* cfg, const std::string& body, const void* data, size_t len,
                     int64_t wait_ms, std::string* reply, std::string* error)
{
    fq_const_rr_ptr rr(fq_const_request_reply_new());
    if (!rr) {
        *error = "out of memory";
        return false;
    }
    rr->request->json_txt = body.c_str();
    rr->request->data = static_cast<const unsigned char*>(data);
    rr->request->data_len = len;
    char errbuf[1024] = "";
    // One attempt: a scan the gateway took may still be running when a second one would start.
    fq_json_ptr obj(
        fq_connection_send_recv_json_data(cfg, kWorkerService, rr.get(), (uint64_t)wait_ms, 0, 0, errbuf));
    free(rr->reply->json_txt);
    rr->reply->json_txt = nullptr;
    if (!obj) {
        *error = errbuf[0] ? errbuf : "no reply from the gateway";
        return false;
    }
    *reply = json_object_to_json_string_ext(obj.get(), JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
    return true;
}

bool ping_worker(fq_connection_config* cfg, int64_t wait_ms, std::string* error)
{
    if (cfg && is_http_url(cfg->server_url)) {
        char errbuf[1024] = "";
        const std::string subject = std::string(kWorkerService) + ".ping";
        fq_json_ptr obj(fq_connection_send_recv_json(cfg, subject.c_str(), "{ \"Command\" : 3 }", (uint32_t)wait_ms,
                                                     0, errbuf));
        if (!obj)
            *error = errbuf[0] ? errbuf : "no reply from the gateway";
        return obj != nullptr;
    }
    auto* conn = cfg ? static_cast<natsConnection*>(cfg->_conn) : nullptr;
    if (!conn) {
        *error = "not connected to the broker";
        return false;
    }
    const std::string subject = std::string(kWorkerService) + ".ping";
    std::string reply;
    return s_request(conn, subject.c_str(), "{ \"Command\" : 3 }", wait_ms, &reply, error);
}

}  // namespace fqscan
