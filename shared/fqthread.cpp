// Thread wrappers: starting a thread, and joining one with a time limit, so that a thread that does
// not end cannot hold up whoever waits for it. The helper thread that does the waiting is always gone
// when the join returns, whichever way it ends.
#include "fqthread.h"

#include <sys/time.h>

#include <atomic>

#include <czmq.h>

namespace {

struct waitData {
    pthread_t waitID;
    pthread_t helpID;
    // Written by the helper, polled by the waiting thread.
    std::atomic<int> done;
};

}  // namespace

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

void* join_timeout_helper(void* arg)
{
    waitData* data = static_cast<waitData*>(arg);
    // pthread_join is a cancellation point: a cancelled helper leaves waitID joinable.
    pthread_join(data->waitID, nullptr);
    data->done.store(1);
    return nullptr;
}

int pthread_join_timeout(pthread_t wid, unsigned int msecs)
{
    waitData data;
    const unsigned int start = get_ticks();
    data.done.store(0);
    data.waitID = wid;

    if (pthread_create(&data.helpID, nullptr, join_timeout_helper, &data) != 0)
        return -1;

    while (!data.done.load()) {
        zclock_sleep(10);
        if (get_ticks() - start >= msecs)
            break;
    }

    if (!data.done.load())
        pthread_cancel(data.helpID);
    // The record lives on this stack: the helper must be gone before we return.
    pthread_join(data.helpID, nullptr);
    // The helper may have finished the join just before it was cancelled.
    return data.done.load() ? 0 : 1;
}
