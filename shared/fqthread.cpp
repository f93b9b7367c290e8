// Thread wrappers: starting a thread, and joining one with a time limit, so that a thread that does
// not end cannot hold up whoever waits for it (the stop sequence joins the log dispatcher and the
// update thread this way). A join that times out leaves the thread running and joinable.
#include "fqthread.h"

#include <errno.h>
#include <sys/time.h>
#include <time.h>

int FQ_CreateThread(pthread_t* pPMThread, fq_thread_entry_t ThreadEntryFunc, void* param)
{
    if (pPMThread == nullptr || ThreadEntryFunc == nullptr)
        return -1;
    return pthread_create(pPMThread, nullptr, ThreadEntryFunc, param) == 0 ? 0 : -1;
}

int FQ_CreateThread(pthread_t* pPMThread, void* ThreadEntryFunc, void* param)
{
    return FQ_CreateThread(pPMThread, reinterpret_cast<fq_thread_entry_t>(ThreadEntryFunc), param);
}

int FQ_JoinThreadTimeout(pthread_t t, unsigned int timeout_ms)
{
    if (t == (pthread_t)0)
        return -1;
    return pthread_join_timeout(t, timeout_ms);
}

unsigned int get_ticks(void)
{
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return (unsigned int)((unsigned long long)tv.tv_sec * 1000ULL + (unsigned long long)tv.tv_usec / 1000ULL);
}

int pthread_join_timeout(pthread_t wid, unsigned int msecs)
{
    // glibc's own timed join: no helper thread to start and cancel, and nothing left behind when
    // the limit passes (the thread stays joinable, as before).
    struct timespec deadline;
    clock_gettime(CLOCK_REALTIME, &deadline);
    deadline.tv_sec += msecs / 1000;
    deadline.tv_nsec += (long)(msecs % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    for (;;) {
        const int rc = pthread_timedjoin_np(wid, nullptr, &deadline);
        if (rc == 0)
            return 0;
        if (rc == ETIMEDOUT)
            return 1;
        if (rc != EINTR)
            return -1;
    }
}
