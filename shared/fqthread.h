// POSIX threads with default attributes, and a join with a time limit.
#pragma once

#include <pthread.h>

typedef void* (*fq_thread_entry_t)(void*);

// pthread_create with default attributes; the id goes to *pPMThread. 0 or -1.
int FQ_CreateThread(pthread_t* pPMThread, fq_thread_entry_t ThreadEntryFunc, void* param);
// The same, for an entry function handed over as a plain pointer.
int FQ_CreateThread(pthread_t* pPMThread, void* ThreadEntryFunc, void* param);

// Waits at most timeout_ms for thread t to end: 0 joined, 1 still running,
// -1 for a zero thread id or when the helper thread could not be started.
int FQ_JoinThreadTimeout(pthread_t t, unsigned int timeout_ms);

// 0 if wid ended within msecs and was joined, 1 if the time ran out (wid runs on
// and stays joinable), -1 if the helper thread could not be started.
int pthread_join_timeout(pthread_t wid, unsigned int msecs);


// Wall-clock milliseconds, wrapping at 32 bits: only differences mean anything.
unsigned int get_ticks(void);
