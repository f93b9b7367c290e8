// Creates on a broker what the worker binds to: the KV buckets and, per service, the
// work-queue stream with its durable pull consumer. Existing ones are left as they are.
#pragma once

#include <nats/nats.h>
#include <stdint.h>

typedef struct fq_provision_opts_t {
    int64_t scan_data_max_age_ms;  // fq-av-scan-data: staged payloads nobody deleted
    int64_t registry_max_age_ms;   // fq-av-worker-registry: records nobody refreshed
    int64_t dedup_max_age_ms;      // fq-av-wq-dedup: cached verdicts
    int64_t jobs_max_age_ms;       // JOBS_<svc>: jobs nobody pulled; 0 keeps them
    int64_t ack_wait_ms;           // WORK_<svc>: time a pulled job may go unacknowledged
    int64_t max_deliver;           // WORK_<svc>: deliveries of one job, -1 unlimited
    int replicas;
} fq_provision_opts_t;

#define FQ_PROVISION_SCAN_DATA_MAX_AGE_MS 900000
#define FQ_PROVISION_REGISTRY_MAX_AGE_MS 60000
#define FQ_PROVISION_DEDUP_MAX_AGE_MS 300000
#define FQ_PROVISION_JOBS_MAX_AGE_MS 3600000
#define FQ_PROVISION_ACK_WAIT_MS 30000
#define FQ_PROVISION_MAX_DELIVER 5

void fq_provision_opts_defaults(fq_provision_opts_t* opts);

// A plain connection for provisioning (no start-up retries, SendAsap on) and its JetStream
// context. TLS for tls:// and wss:// URLs, checked against ca_file and the URL's host.
int fq_provision_connect(const char* url, const char* user, const char* password, const char* ca_file,
                         natsConnection** out_conn, jsCtx** out_js, char* errormsg);

// Each returns 0 or -1 with the reason in errormsg (1024 bytes, may be null).
int fq_provision_bucket(jsCtx* js, const char* bucket, int64_t max_age_ms, int replicas, char* errormsg);
int fq_provision_buckets(jsCtx* js, const fq_provision_opts_t* opts, char* errormsg);
int fq_provision_work_queue(jsCtx* js, const char* service, const fq_provision_opts_t* opts, char* errormsg);
// The buckets, then a work queue for each name of the comma-separated services (may be null).
int fq_provision_all(jsCtx* js, const fq_provision_opts_t* opts, const char* services_csv, char* errormsg);
