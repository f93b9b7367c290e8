// Back-off for a request that finds no subscriber on its subject: the broker says so
// at once, so a short pause can outlast a service that is just (re)subscribing.
#pragma once

#include <stdint.h>
#include <time.h>

#define FQ_NATS_NR_MAX_RETRIES 4
#define FQ_NATS_NR_BASE_MS 25
#define FQ_NATS_NR_MAX_TOTAL_MS 400

typedef struct fq_nats_nr_state_t {
    struct timespec t0;  // monotonic, start of the request
    uint32_t retries;    // back-off sleeps so far
    uint64_t waited_ms;  // milliseconds slept so far
} fq_nats_nr_state_t;

void fq_nats_nr_init(fq_nats_nr_state_t* st);
// What is left of budget_ms for the next attempt once the back-off sleeps are taken off.
int64_t fq_nats_nr_attempt_timeout_ms(const fq_nats_nr_state_t* st, int64_t budget_ms);
// Sleeps and returns 1 when one more try fits the limits and the budget; 0 at once otherwise.
int fq_nats_nr_should_retry(fq_nats_nr_state_t* st, int64_t budget_ms, const char* label);
