// Back-off for a request that finds nobody subscribed. The broker says "no responders" at once, so a
// few short pauses (25 ms, doubling, 400 ms at most in all) let a service that is just starting or
// resubscribing be found instead of failing the request. Every core request of the messaging layer
// uses it; it never sleeps beyond the request's own budget.
#include "fq_nats_nr_backoff.h"

#include <nats/nats.h>

#include "log.h"

namespace {

int64_t s_mono_ms_since(const struct timespec& t0)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (int64_t)(now.tv_sec - t0.tv_sec) * 1000 + (now.tv_nsec - t0.tv_nsec) / 1000000;
}

}  // namespace

void fq_nats_nr_init(fq_nats_nr_state_t* st)
{
    if (!st)
        return;
    clock_gettime(CLOCK_MONOTONIC, &st->t0);
    st->retries = 0;
    st->waited_ms = 0;
}

int64_t fq_nats_nr_attempt_timeout_ms(const fq_nats_nr_state_t* st, int64_t budget_ms)
{
    if (!st)
        return budget_ms;
    const int64_t left = budget_ms - (int64_t)st->waited_ms;
    return left < 0 ? 0 : left;
}

int fq_nats_nr_should_retry(fq_nats_nr_state_t* st, int64_t budget_ms, const char* label)
{
    if (!st || st->retries >= FQ_NATS_NR_MAX_RETRIES)
        return 0;
    uint64_t delay = (uint64_t)FQ_NATS_NR_BASE_MS << st->retries;
    // Jitter from the clock's nanoseconds keeps callers that failed together apart.
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    delay += (uint64_t)now.tv_nsec % (delay / 2 + 1);

    const int64_t elapsed = s_mono_ms_since(st->t0);
    if (delay + st->waited_ms > FQ_NATS_NR_MAX_TOTAL_MS)
        return 0;
    if (budget_ms <= (int64_t)delay + elapsed)
        return 0;
    log_debug("nats: no responders for %s - backoff %lums, retry %u/%u", label ? label : "(unknown)",
              (unsigned long)delay, st->retries + 1, (unsigned)FQ_NATS_NR_MAX_RETRIES);
    nats_Sleep((int64_t)delay);
    st->waited_ms += delay;
    st->retries += 1;
    return 1;
}
