// Named semaphores: the locks shared between processes, such as the one every line written to a trace
// file is taken under. A wait has a deadline that a signal never stretches, so a lock held by a hung
// process is given up after its limit instead of being waited on for ever.
#include "fqsemaphore.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>

#include "log.h"

sem_t* FQsem_open(const char* semname, int mode, int permissions, int initial, int max)
{
    (void)initial;
    char name[4096];
    snprintf(name, sizeof(name), "%s", semname ? semname : "");
    sem_t* rc = sem_open(name, mode, (mode_t)permissions, (unsigned int)max);
    log_trace("Exiting, rc=%p", (void*)rc);
    return rc;
}

void FQsem_deadline_add(struct timespec* ts, time_t timeout_ms)
{
    ts->tv_sec += timeout_ms / 1000;
    ts->tv_nsec += (long)(timeout_ms % 1000) * 1000000L;
    if (ts->tv_nsec > 999999999L) {
        ts->tv_sec += 1;
        ts->tv_nsec -= 1000000000L;
    }
}

int FQsem_timedwait(sem_t* sem, time_t timeout_ms)
{
    int rc;
    if (timeout_ms < 1) {
        do {
            rc = sem_trywait(sem);
        } while (rc == -1 && errno == EINTR);
        return rc == 0 ? 0 : -1;
    }

    struct timespec deadline;
    if (clock_gettime(CLOCK_REALTIME, &deadline) == -1)
        return -1;
    FQsem_deadline_add(&deadline, timeout_ms);
    // A signal must not extend the wait: retry against the same deadline.
    do {
        rc = sem_timedwait(sem, &deadline);
    } while (rc == -1 && errno == EINTR);
    return rc == 0 ? 0 : -1;
}

int FQsem_post(sem_t* sem)
{
    return sem_post(sem);
}
