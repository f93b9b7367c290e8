// Placeholder until the full trace log lands: stderr only.
#include "log.h"

#include <stdio.h>

const char* fq__progname = "fq-av-scanproxy";

void log_log(int level, const char* func, const char* file, int line, const char* fmt, ...)
{
    (void)level;
    va_list ap;
    va_start(ap, fmt);
    fprintf(stderr, "%s(): ", func);
    vfprintf(stderr, fmt, ap);
    fprintf(stderr, " (%s:%d)\n", file, line);
    va_end(ap);
}
