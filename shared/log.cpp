// The trace log: every diagnostic of every thread goes through log_log, to stderr and, once a trace
// file is open, to that file under its lock. Its settings are made during start-up and read by all
// threads without a lock. It never ends the process (FATAL is a severity only), and a long or null
// text never costs a line.
#include "log.h"

#include <math.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <string>

#include "log-helper.h"

const char* fq__progname = "fq-av-scanproxy";

namespace {

// Written during start-up only; atomics so that every thread may read them at any time.
struct log_state_t {
    std::atomic<void*> udata{nullptr};
    std::atomic<log_LockFn> lock{nullptr};
    std::atomic<int> level{FQLOG_TRACE};
    std::atomic<int> quiet{0};
    std::atomic<size_t> maxsize_mb{0};
    std::atomic<const char*> filename{nullptr};
    std::atomic<bool> trace_to_screen{true};
};

log_state_t s_log;

// Set while this thread holds the trace file's lock: a line logged from in there
// (a failure inside the lock function or the rotation) must not wait on that lock.
thread_local bool s_in_file_section = false;

const char* const s_level_names[] = {"OFF", "FATAL", "ERROR", "WARN", "INFO", "DEBUG", "TRACE"};
const char* const s_level_colors[] = {"\x1b[94m", "\x1b[36m", "\x1b[31m", "\x1b[33m",
                                      "\x1b[32m", "\x1b[35m", "\x1b[34m"};

const char s_timeout_line[] =
    "fernquill Anti-Virus: Debug-trace semaphore timeout. Trace line was possibly lost!\r\n";

void s_appendf(std::string& out, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

void s_appendf(std::string& out, const char* fmt, ...)
{
    char buf[512];
    va_list ap;
    va_start(ap, fmt);
    int n = vsnprintf(buf, sizeof(buf), fmt, ap);
    va_end(ap);
    if (n < 0)
        return;
    if ((size_t)n < sizeof(buf)) {
        out.append(buf, (size_t)n);
        return;
    }
    size_t old = out.size();
    out.resize(old + (size_t)n + 1);
    va_start(ap, fmt);
    vsnprintf(&out[old], (size_t)n + 1, fmt, ap);
    va_end(ap);
    out.resize(old + (size_t)n);
}

// The caller's message, however long.
std::string s_format_message(const char* fmt, va_list ap)
{
    std::string msg;
    if (fmt == nullptr)
        return msg;
    char buf[1024];
    va_list ap2;
    va_copy(ap2, ap);
    int n = vsnprintf(buf, sizeof(buf), fmt, ap2);
    va_end(ap2);
    if (n < 0)
        return msg;
    if ((size_t)n < sizeof(buf)) {
        msg.assign(buf, (size_t)n);
        return msg;
    }
    msg.resize((size_t)n + 1);
    vsnprintf(msg.data(), (size_t)n + 1, fmt, ap);
    msg.resize((size_t)n);
    return msg;
}

void s_write_stderr(const std::string& text)
{
    // One write per line keeps lines of different threads apart as far as stdio allows.
    fwrite(text.data(), 1, text.size(), stderr);
    fflush(stderr);
}

}  // namespace

void log_format_timestamp(long tv_sec, long tv_nsec, char* buf, size_t buflen)
{
    if (buf == nullptr || buflen == 0)
        return;
    buf[0] = '\0';
    time_t secs = (time_t)tv_sec;
    struct tm tm;
    if (gmtime_r(&secs, &tm) == nullptr)
        return;
    char date[64];
    if (strftime(date, sizeof(date), "%Y-%m-%d %H:%M:%S", &tm) == 0)
        return;
    // Rounded, not cut off: 999.6 ms reads 1000.
    snprintf(buf, buflen, "%s.%03ld", date, lround((double)tv_nsec / 1e6));
}

void log_log(int level, const char* func, const char* file, int line, const char* fmt, ...)
{
    const int configured = s_log.level.load(std::memory_order_acquire);
    if (level > configured)
        return;
    const char* filename = s_log.filename.load(std::memory_order_acquire);
    const bool have_file = filename != nullptr && filename[0] != '\0';
    const bool to_screen = s_log.trace_to_screen.load(std::memory_order_acquire);
    if (!have_file && !to_screen)
        return;

    try {
        struct timespec now = {0, 0};
        clock_gettime(CLOCK_REALTIME, &now);
        char ts[96];
        log_format_timestamp((long)now.tv_sec, now.tv_nsec, ts, sizeof(ts));

        va_list ap;
        va_start(ap, fmt);
        std::string msg = s_format_message(fmt, ap);
        va_end(ap);

        const int idx = (level >= FQLOG_OFF && level <= FQLOG_TRACE) ? level : -1;
        const char* name = idx >= 0 ? s_level_names[idx] : "";
        // Colour codes only for a person at a terminal: files, pipes and the journal get plain text.
        const bool colour = isatty(STDERR_FILENO) == 1;
        const char* color = colour && idx >= 0 ? s_level_colors[idx] : "";
        const char* prog = fq__progname ? fq__progname : "";
        if (func == nullptr)
            func = "";
        if (file == nullptr)
            file = "";
        const int pid = (int)getpid();
        const unsigned long tid = (unsigned long)pthread_self();

        const bool nested = s_in_file_section;
        if (s_log.quiet.load(std::memory_order_acquire) == 0 || to_screen || nested) {
            std::string out;
            out.reserve(msg.size() + 256);
            s_appendf(out, "[%s] %s%-5s PID: %6d TID: %6lu %s:%s(): ", ts, color, name, pid, tid, prog,
                      func);
            out += msg;
            if (colour)
                s_appendf(out, " \x1b[90m(%s:%d)\x1b[0m \n", file, line);
            else
                s_appendf(out, " (%s:%d) \n", file, line);
            s_write_stderr(out);
        }

        // This thread already holds the file: the line above on stderr is all it gets.
        if (!have_file || nested)
            return;

        std::string out;
        out.reserve(msg.size() + 256);
        s_appendf(out, "[%s] %-5s PID: %6d TID: %6lu %s:%s(): ", ts, name, pid, tid, prog, func);
        out += msg;
        if (configured == FQLOG_TRACE)
            s_appendf(out, " (%s:%d)", file, line);
        out += '\n';

        s_in_file_section = true;
        struct section_guard {
            ~section_guard() { s_in_file_section = false; }
        } guard;

        log_LockFn lock = s_log.lock.load(std::memory_order_acquire);
        void* udata = s_log.udata.load(std::memory_order_acquire);
        if (lock != nullptr && lock(udata, LOG_ACTION_LOCK) == -1) {
            fputs(s_timeout_line, stderr);
            fflush(stderr);
            return;
        }

        const size_t maxsize = s_log.maxsize_mb.load(std::memory_order_acquire);
        if (maxsize != 0)
            FQLogCheckLogSwitch(const_cast<char*>(filename), maxsize);

        FILE* fp = fopen(filename, "a");
        if (fp != nullptr) {
            fwrite(out.data(), 1, out.size(), fp);
            fflush(fp);
            fclose(fp);
        }

        if (lock != nullptr)
            lock(udata, LOG_ACTION_UNLOCK);
    } catch (...) {
        // Out of memory while building a line: the line is lost, the caller goes on.
    }
}

void log_set_udata(void* udata)
{
    s_log.udata.store(udata, std::memory_order_release);
}

void log_set_lock(log_LockFn fn)
{
    s_log.lock.store(fn, std::memory_order_release);
}

void log_set_level(int level)
{
    s_log.level.store(level, std::memory_order_release);
}

void log_set_quiet(int enable)
{
    s_log.quiet.store(enable != 0 ? 1 : 0, std::memory_order_release);
}

void log_set_filename(const char* filename)
{
    s_log.filename.store(filename, std::memory_order_release);
}

void log_set_screentrace(int enable)
{
    s_log.trace_to_screen.store(enable != 0, std::memory_order_release);
}

void log_set_maxsize(size_t maxsize_mb)
{
    s_log.maxsize_mb.store(maxsize_mb, std::memory_order_release);
}

const char* log_get_filename(void)
{
    return s_log.filename.load(std::memory_order_acquire);
}

size_t log_get_maxsize(void)
{
    return s_log.maxsize_mb.load(std::memory_order_acquire);
}

int log_get_level(void)
{
    return s_log.level.load(std::memory_order_acquire);
}

void log_reset_start_state(void)
{
    s_log.filename.store(nullptr, std::memory_order_release);
    s_log.lock.store(nullptr, std::memory_order_release);
    s_log.udata.store(nullptr, std::memory_order_release);
    s_log.maxsize_mb.store(0, std::memory_order_release);
    s_log.quiet.store(0, std::memory_order_release);
    s_log.trace_to_screen.store(true, std::memory_order_release);
    s_log.level.store(FQLOG_TRACE, std::memory_order_release);
}
