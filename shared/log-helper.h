// Trace file set-up: the cross-process lock and the rotation into zip archives.
#pragma once

#include <semaphore.h>
#include <stddef.h>

#include "log.h"

int FQOpenTraceFile(const char* logfilename, int level, size_t maxsize);
// Stops tracing to the file at the end of the process, and removes the file's semaphore from
// /dev/shm unless another process still traces to the same file.
void FQCloseTraceFile(void);
int FQLogLock(sem_t* s, log_lock_actions_t action);
int FQLogCheckLogSwitch(char* filename, size_t maxsize);
