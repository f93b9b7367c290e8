// Creates on a broker what the worker and its peers bind to: the KV buckets (staged payloads,
// registry, verdict cache) and, per service, the work-queue stream with its durable consumer. Used by
// fq-av-provision and the test fixtures, never by the worker, which expects all of it to exist
// before it starts. What exists already is left as it is: nothing is changed or deleted here.
#include "fq_provision.h"

#include <stdio.h>
#include <string.h>

#include <string>

#include "fq_nats_client.h"
#include "log.h"

namespace {

constexpr int64_t s_ns_per_ms = 1000000;

void s_set_error(char* errormsg, const std::string& text)
{
    log_error("%s", text.c_str());
    if (errormsg)
        snprintf(errormsg, 1024, "%s", text.c_str());
}

std::string s_status_text(natsStatus s, jsErrCode jerr)
{
    std::string text = natsStatus_GetText(s);
    const char* last = nats_GetLastError(nullptr);
    if (last && *last)
        text += std::string(" — ") + last;
    if (jerr)
        text += " (jerr=" + std::to_string((int)jerr) + ")";
    return text;
}

bool s_stream_exists(jsCtx* js, const char* stream)
{
    jsStreamInfo* si = nullptr;
    natsStatus s = js_GetStreamInfo(&si, js, stream, nullptr, nullptr);
    jsStreamInfo_Destroy(si);
    return s == NATS_OK;
}

bool s_consumer_exists(jsCtx* js, const char* stream, const char* durable)
{
    jsConsumerInfo* ci = nullptr;
    natsStatus s = js_GetConsumerInfo(&ci, js, stream, durable, nullptr, nullptr);
    jsConsumerInfo_Destroy(ci);
    return s == NATS_OK;
}

std::string s_url_host(const char* url)
{
    const char* p = strstr(url, "://");
    p = p ? p + 3 : url;
    const char* end = p + strcspn(p, "/");
    const char* at = static_cast<const char*>(memchr(p, '@', (size_t)(end - p)));
    if (at)
        p = at + 1;
    return std::string(p, strcspn(p, ":/"));
}

}  // namespace

int fq_provision_connect(const char* url, const char* user, const char* password, const char* ca_file,
                         natsConnection** out_conn, jsCtx** out_js, char* errormsg)
{
    if (!url || !*url || !out_conn || !out_js) {
        s_set_error(errormsg, "provision: no broker URL");
        return -1;
    }
    *out_conn = nullptr;
    *out_js = nullptr;
    natsOptions* opts = nullptr;
    natsStatus s = natsOptions_Create(&opts);
    if (s != NATS_OK) {
        s_set_error(errormsg, std::string("provision: cannot create connection options: ") + natsStatus_GetText(s));
        return -1;
    }
    natsOptions_SetURL(opts, url);
    natsOptions_SetSendAsap(opts, true);
    natsOptions_SetIgnoreDiscoveredServers(opts, true);
    natsOptions_SetTimeout(opts, 5000);
    if (user && password)
        natsOptions_SetUserInfo(opts, user, password);
    const bool tls = strncmp(url, "tls://", 6) == 0 || strncmp(url, "wss://", 6) == 0;
    if (tls) {
        s = natsOptions_SetSecure(opts, true);
        const std::string host = s_url_host(url);
        if (s == NATS_OK && !host.empty())
            s = natsOptions_SetExpectedHostname(opts, host.c_str());
    }
    if (s == NATS_OK && ca_file && *ca_file) {
        s = natsOptions_LoadCATrustedCertificates(opts, ca_file);
        if (s != NATS_OK) {
            s_set_error(errormsg, "provision: cannot load CA file '" + std::string(ca_file) +
                                      "': " + s_status_text(s, (jsErrCode)0));
            natsOptions_Destroy(opts);
            return -1;
        }
    }
    if (s != NATS_OK) {
        s_set_error(errormsg, "provision: cannot set up TLS: " + s_status_text(s, (jsErrCode)0));
        natsOptions_Destroy(opts);
        return -1;
    }
    natsConnection* conn = nullptr;
    s = natsConnection_Connect(&conn, opts);
    natsOptions_Destroy(opts);
    if (s != NATS_OK) {
        natsConnection_Destroy(conn);
        s_set_error(errormsg, "provision: cannot connect to " + std::string(url) + ": " + s_status_text(s, (jsErrCode)0));
        return -1;
    }
    jsCtx* js = nullptr;
    s = natsConnection_JetStream(&js, conn, nullptr);
    if (s == NATS_OK) {
        // The context is local; whether the server runs JetStream shows at the first API call.
        jsAccountInfo* ai = nullptr;
        s = js_GetAccountInfo(&ai, js, nullptr, nullptr);
        jsAccountInfo_Destroy(ai);
        if (s != NATS_OK)
            jsCtx_Destroy(js);
    }
    if (s != NATS_OK) {
        natsConnection_Destroy(conn);
        s_set_error(errormsg, "provision: broker " + std::string(url) +
                                  " offers no JetStream: " + s_status_text(s, (jsErrCode)0));
        return -1;
    }
    *out_conn = conn;
    *out_js = js;
    return 0;
}

void fq_provision_opts_defaults(fq_provision_opts_t* opts)
{
    if (!opts)
        return;
    opts->scan_data_max_age_ms = FQ_PROVISION_SCAN_DATA_MAX_AGE_MS;
    opts->registry_max_age_ms = FQ_PROVISION_REGISTRY_MAX_AGE_MS;
    opts->dedup_max_age_ms = FQ_PROVISION_DEDUP_MAX_AGE_MS;
    opts->jobs_max_age_ms = FQ_PROVISION_JOBS_MAX_AGE_MS;
    opts->ack_wait_ms = FQ_PROVISION_ACK_WAIT_MS;
    opts->max_deliver = FQ_PROVISION_MAX_DELIVER;
    opts->replicas = 1;
}

int fq_provision_bucket(jsCtx* js, const char* bucket, int64_t max_age_ms, int replicas, char* errormsg)
{
    if (!js || !bucket || !*bucket || max_age_ms < 0) {
        s_set_error(errormsg, "provision: invalid parameters for bucket");
        return -1;
    }
    // This library version cannot ask for AllowMsgTTL on the bucket's stream: the max age
    // is what expires entries, per-message TTL headers or not.
    kvConfig kc;
    kvConfig_Init(&kc);
    kc.Bucket = bucket;
    kc.History = 1;
    kc.TTL = max_age_ms * s_ns_per_ms;  // nanoseconds, like every JetStream duration
    kc.Replicas = replicas > 0 ? replicas : 1;
    kc.StorageType = js_FileStorage;
    kvStore* kv = nullptr;
    natsStatus s = js_CreateKeyValue(&kv, js, &kc);
    if (s == NATS_OK) {
        kvStore_Destroy(kv);
        log_info("provision: bucket '%s' ready (max age %lld ms)", bucket, (long long)max_age_ms);
        return 0;
    }
    const std::string why = s_status_text(s, (jsErrCode)0);
    // A bucket made earlier with other settings is kept as it is.
    kv = nullptr;
    if (js_KeyValue(&kv, js, bucket) == NATS_OK) {
        kvStore_Destroy(kv);
        log_info("provision: bucket '%s' exists with other settings; left as it is (%s)", bucket, why.c_str());
        return 0;
    }
    s_set_error(errormsg, "provision: cannot create bucket '" + std::string(bucket) + "': " + why);
    return -1;
}

int fq_provision_buckets(jsCtx* js, const fq_provision_opts_t* opts, char* errormsg)
{
    fq_provision_opts_t defaults;
    if (!opts) {
        fq_provision_opts_defaults(&defaults);
        opts = &defaults;
    }
    if (fq_provision_bucket(js, FQ_KV_SCAN_DATA_BUCKET, opts->scan_data_max_age_ms, opts->replicas, errormsg) != 0 ||
        fq_provision_bucket(js, FQ_KV_REGISTRY_BUCKET, opts->registry_max_age_ms, opts->replicas, errormsg) != 0 ||
        fq_provision_bucket(js, FQ_KV_WQ_DEDUP_BUCKET, opts->dedup_max_age_ms, opts->replicas, errormsg) != 0)
        return -1;
    return 0;
}

int fq_provision_work_queue(jsCtx* js, const char* service, const fq_provision_opts_t* opts, char* errormsg)
{
    fq_provision_opts_t defaults;
    if (!opts) {
        fq_provision_opts_defaults(&defaults);
        opts = &defaults;
    }
    if (!js || !service || !*service || opts->ack_wait_ms <= 0) {
        s_set_error(errormsg, "provision: invalid parameters for work queue");
        return -1;
    }
    char subject[256];
    char stream[256];
    char durable[256];
    fq_nats_wq_subject(service, subject, sizeof(subject));
    fq_nats_wq_stream(service, stream, sizeof(stream));
    fq_nats_wq_durable(service, durable, sizeof(durable));

    jsStreamConfig sc;
    jsStreamConfig_Init(&sc);
    const char* subjects[] = {subject};
    sc.Name = stream;
    sc.Subjects = subjects;
    sc.SubjectsLen = 1;
    sc.Retention = js_WorkQueuePolicy;
    sc.Storage = js_FileStorage;
    sc.MaxAge = opts->jobs_max_age_ms * s_ns_per_ms;
    sc.Replicas = opts->replicas > 0 ? opts->replicas : 1;
    jsStreamInfo* si = nullptr;
    jsErrCode jerr = (jsErrCode)0;
    natsStatus s = js_AddStream(&si, js, &sc, nullptr, &jerr);
    jsStreamInfo_Destroy(si);
    if (s == NATS_OK) {
        log_info("provision: stream '%s' on '%s' ready", stream, subject);
    } else {
        const std::string why = s_status_text(s, jerr);
        if (!s_stream_exists(js, stream)) {
            s_set_error(errormsg, "provision: cannot create stream '" + std::string(stream) + "': " + why);
            return -1;
        }
        log_info("provision: stream '%s' exists with other settings; left as it is (%s)", stream, why.c_str());
    }

    jsConsumerConfig cc;
    jsConsumerConfig_Init(&cc);
    cc.Durable = durable;
    cc.AckPolicy = js_AckExplicit;
    cc.AckWait = opts->ack_wait_ms * s_ns_per_ms;
    cc.MaxDeliver = opts->max_deliver;
    cc.FilterSubject = subject;
    cc.DeliverPolicy = js_DeliverAll;
    jsConsumerInfo* ci = nullptr;
    jerr = (jsErrCode)0;
    s = js_AddConsumer(&ci, js, stream, &cc, nullptr, &jerr);
    jsConsumerInfo_Destroy(ci);
    if (s == NATS_OK) {
        log_info("provision: consumer '%s' on '%s' ready (AckWait %lld ms, MaxDeliver %lld)", durable, stream,
                 (long long)opts->ack_wait_ms, (long long)opts->max_deliver);
        return 0;
    }
    const std::string why = s_status_text(s, jerr);
    if (!s_consumer_exists(js, stream, durable)) {
        s_set_error(errormsg, "provision: cannot create consumer '" + std::string(durable) + "': " + why);
        return -1;
    }
    log_info("provision: consumer '%s' exists with other settings; left as it is (%s)", durable, why.c_str());
    return 0;
}

int fq_provision_all(jsCtx* js, const fq_provision_opts_t* opts, const char* services_csv, char* errormsg)
{
    if (fq_provision_buckets(js, opts, errormsg) != 0)
        return -1;
    if (!services_csv)
        return 0;
    const std::string csv(services_csv);
    size_t pos = 0;
    while (pos <= csv.size()) {
        size_t end = csv.find(',', pos);
        if (end == std::string::npos)
            end = csv.size();
        std::string name = csv.substr(pos, end - pos);
        const size_t first = name.find_first_not_of(" \t");
        const size_t last = name.find_last_not_of(" \t");
        name = first == std::string::npos ? "" : name.substr(first, last - first + 1);
        if (!name.empty() && fq_provision_work_queue(js, name.c_str(), opts, errormsg) != 0)
            return -1;
        pos = end + 1;
    }
    return 0;
}
