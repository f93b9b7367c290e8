// Trace log: every diagnostic of the worker goes through log_log.
#pragma once

#include <stdarg.h>
#include <stdbool.h>
#include <stddef.h>

typedef enum {
    FQLOG_OFF = 0,
    FQLOG_FATAL = 1,
    FQLOG_ERROR = 2,
    FQLOG_WARN = 3,
    FQLOG_INFO = 4,
    FQLOG_DEBUG = 5,
    FQLOG_TRACE = 6,
} log_level_t;

typedef enum {
    LOG_ACTION_UNLOCK = 0,
    LOG_ACTION_LOCK = 1,
} log_lock_actions_t;

typedef int (*log_LockFn)(void* udata, int action);

// argv[0] of the process; shown in every line.
extern const char* fq__progname;

void log_log(int level, const char* func, const char* file, int line, const char* fmt, ...)
    __attribute__((format(printf, 5, 6)));

void log_set_udata(void* udata);
void log_set_lock(log_LockFn fn);
void log_set_level(int level);
void log_set_quiet(int enable);
void log_set_filename(const char* filename);
void log_set_screentrace(int enable);
void log_set_maxsize(size_t maxsize_mb);
const char* log_get_filename(void);
size_t log_get_maxsize(void);
int log_get_level(void);

// Puts the log into the state main() starts with: level TRACE, stderr on, no file.
void log_reset_start_state(void);

// Formats the time stamp of a line ("%Y-%m-%d %H:%M:%S.mmm", UTC) into buf.
void log_format_timestamp(long tv_sec, long tv_nsec, char* buf, size_t buflen);

#define log_fatal(...) log_log(FQLOG_FATAL, __func__, __FILE_NAME__, __LINE__, __VA_ARGS__)
#define log_error(...) log_log(FQLOG_ERROR, __func__, __FILE_NAME__, __LINE__, __VA_ARGS__)
#define log_warn(...) log_log(FQLOG_WARN, __func__, __FILE_NAME__, __LINE__, __VA_ARGS__)
#define log_info(...) log_log(FQLOG_INFO, __func__, __FILE_NAME__, __LINE__, __VA_ARGS__)
#define log_debug(...) log_log(FQLOG_DEBUG, __func__, __FILE_NAME__, __LINE__, __VA_ARGS__)
#define log_trace(...) log_log(FQLOG_TRACE, __func__, __FILE_NAME__, __LINE__, __VA_ARGS__)
