// Named semaphores with a time-limited wait.
#pragma once

#include <semaphore.h>
#include <time.h>

// sem_open of semname; the semaphore is created with the value `max` (`initial`
// has no effect). Returns SEM_FAILED as sem_open gives it.
sem_t* FQsem_open(const char* semname, int mode, int permissions, int initial, int max);

// Takes the semaphore, waiting at most timeout_ms (below 1: not at all).
// 0 when taken, -1 otherwise with errno from the last try (EAGAIN, ETIMEDOUT, ...).
int FQsem_timedwait(sem_t* sem, time_t timeout_ms);

int FQsem_post(sem_t* sem);

// Adds timeout_ms to *ts, carrying whole seconds out of tv_nsec.
void FQsem_deadline_add(struct timespec* ts, time_t timeout_ms);
