#include <gtest/gtest.h>

#include <pthread.h>
#include <semaphore.h>
#include <stdio.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <filesystem>
#include <fstream>
#include <functional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "fq_raii.h"
#include "log-helper.h"
#include "log.h"
#include "process_util.h"
#include "stderr_capture.h"

namespace fs = std::filesystem;
using fqtest::read_file;
using fqtest::StderrCapture;

namespace {

const char kTimeoutLine[] =
    "fernquill Anti-Virus: Debug-trace semaphore timeout. Trace line was possibly lost!\r\n";

// The line without its "[YYYY-MM-DD hh:mm:ss.mmm] " (or .mmmm) stamp; "" if it has none.
std::string after_ts(const std::string& line)
{
    static const std::regex stamp(R"(^\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3,4}\] )");
    std::smatch m;
    return std::regex_search(line, m, stamp) ? m.suffix().str() : "";
}

std::vector<std::string> split_lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

std::string fmt(const char* f, ...) __attribute__((format(printf, 1, 2)));
std::string fmt(const char* f, ...)
{
    char buf[1024];
    va_list ap;
    va_start(ap, f);
    vsnprintf(buf, sizeof(buf), f, ap);
    va_end(ap);
    return buf;
}

// "<LEVEL> PID: ... TID: ... prog:<func>(): " as the log writes it for this thread.
std::string head(const char* level, const char* func, unsigned long tid = (unsigned long)pthread_self())
{
    return fmt("%s PID: %6d TID: %6lu %s:%s(): ", level, (int)getpid(), tid, fq__progname, func);
}

// Seconds fn took.
double timed(const std::function<void()>& fn)
{
    const auto t0 = std::chrono::steady_clock::now();
    fn();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

std::string semaphore_name_for(const std::string& path)
{
    std::string name = "fq_log_" + path;
    for (char& c : name)
        if (c == '/')
            c = '_';
    return name;
}

std::string local_stamp(time_t t)
{
    struct tm tm;
    localtime_r(&t, &tm);
    char buf[64];
    strftime(buf, sizeof(buf), "%F__%H-%M-%S", &tm);
    return buf;
}

std::vector<std::string> zips_in(const std::string& dir)
{
    std::vector<std::string> out;
    for (const auto& e : fs::directory_iterator(dir))
        if (e.is_regular_file() && e.path().extension() == ".zip")
            out.push_back(e.path().string());
    return out;
}

class TraceLog : public ::testing::Test {
protected:
    void SetUp() override { log_reset_start_state(); }
    void TearDown() override
    {
        // Other suites in this binary log too: leave the start state behind.
        log_reset_start_state();
        sem_unlink(semaphore_name_for(trace_).c_str());
    }

    void fill(size_t bytes)
    {
        std::ofstream f(trace_, std::ios::binary | std::ios::trunc);
        const std::string row = std::string(99, 'a') + '\n';
        for (; bytes >= row.size(); bytes -= row.size())
            f << row;
        f << std::string(bytes, 'b');
    }

    // The trace file's lock can be taken (and is given back at once).
    bool lock_is_free() const
    {
        sem_t* s = sem_open(semaphore_name_for(trace_).c_str(), 0);
        const bool free = s != SEM_FAILED && sem_trywait(s) == 0;
        if (free)
            sem_post(s);
        if (s != SEM_FAILED)
            sem_close(s);
        return free;
    }

    fqtest::TempDir dir_;
    const std::string trace_ = dir_ / "trace.log";  // stays alive while the log points at it
};

TEST(TraceLogTimestamp, MillisecondsAreRoundedNotCut)
{
    const struct {
        long sec, nsec;
        const char* want;
    } cases[] = {
        {1794984310, 123456789, "2026-11-18 06:45:10.123"},
        {0, 999600000, "1970-01-01 00:00:00.1000"},
        {0, 400000, "1970-01-01 00:00:00.000"},
        {0, 1500000, "1970-01-01 00:00:00.002"},
        {LONG_MAX, 0, ""},  // a time gmtime cannot express leaves the stamp empty
    };
    for (const auto& c : cases) {
        char buf[64];
        log_format_timestamp(c.sec, c.nsec, buf, sizeof(buf));
        EXPECT_STREQ(buf, c.want) << c.sec << "." << c.nsec;
    }
}

TEST_F(TraceLog, ScreenAndFileLineFormats)
{
    // No file: the screen line with the source position; no colour codes, since stderr is no terminal here.
    StderrCapture screen;
    const int line0 = __LINE__ + 1;
    log_warn("careful %s", "now");
    EXPECT_EQ(after_ts(screen.stop()), head("WARN ", "TestBody") + fmt("careful now (test_log.cpp:%d) \n", line0));
    EXPECT_FALSE(fs::exists(trace_));

    // At trace level the file line carries the position; quiet is 0, so stderr gets it too.
    ASSERT_EQ(FQOpenTraceFile(trace_.c_str(), FQLOG_TRACE, 0), 0);
    EXPECT_STREQ(log_get_filename(), trace_.c_str());
    EXPECT_EQ(log_get_level(), FQLOG_TRACE);
    StderrCapture both;
    const int line1 = __LINE__ + 1;
    log_info("hello %d", 42);
    const std::string err = both.stop();
    auto lines = split_lines(read_file(trace_));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(after_ts(lines[0]), head("INFO ", "TestBody") + fmt("hello 42 (test_log.cpp:%d)", line1));
    EXPECT_NE(err.find("INFO  PID:"), std::string::npos) << err;
    EXPECT_EQ(err.find('\x1b'), std::string::npos) << err;
    EXPECT_NE(err.find("hello 42"), std::string::npos);

    // Below trace level: no position, no colour in the file.
    fs::remove(trace_);
    log_reset_start_state();
    ASSERT_EQ(FQOpenTraceFile(trace_.c_str(), FQLOG_INFO, 0), 0);
    log_warn("no position");
    const std::string text = read_file(trace_);
    EXPECT_EQ(text.find('\x1b'), std::string::npos);
    lines = split_lines(text);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(after_ts(lines[0]), head("WARN ", "TestBody") + "no position");
}

TEST_F(TraceLog, LinesAboveTheLevelAreDroppedAndNoTraceSilencesEverything)
{
    ASSERT_EQ(FQOpenTraceFile(trace_.c_str(), FQLOG_INFO, 0), 0);
    StderrCapture cap;
    log_debug("debug line");
    log_trace("trace line");
    EXPECT_FALSE(fs::exists(trace_));
    log_fatal("fatal line");
    log_info("info line");
    const std::string err = cap.stop();
    auto lines = split_lines(read_file(trace_));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].find("fatal line"), std::string::npos);
    EXPECT_NE(lines[1].find("info line"), std::string::npos);
    EXPECT_EQ(err.find("debug line"), std::string::npos);
    EXPECT_EQ(err.find("trace line"), std::string::npos);

    // No file name, or level 0: off, not even fatal lines on stderr.
    const std::string never = dir_ / "x";
    for (const char* name : {(const char*)nullptr, never.c_str()}) {
        log_reset_start_state();
        ASSERT_EQ(FQOpenTraceFile(name, name ? 0 : FQLOG_TRACE, 0), 0);
        EXPECT_EQ(log_get_level(), FQLOG_OFF);
        EXPECT_EQ(log_get_filename(), nullptr);
        StderrCapture off;
        log_fatal("fatal");
        log_error("error");
        log_trace("trace");
        EXPECT_EQ(off.stop(), "") << (name ? name : "no name");
        EXPECT_FALSE(fs::exists(never));
    }
}

TEST_F(TraceLog, LockAndSemaphoreFailuresAreReported)
{
    StderrCapture cap;
    // Longer than a semaphore name may be: the start state stays.
    const std::string longpath = dir_ / (std::string(300, 'n') + ".log");
    EXPECT_EQ(FQOpenTraceFile(longpath.c_str(), FQLOG_INFO, 0), -1);
    EXPECT_EQ(log_get_filename(), nullptr);
    EXPECT_EQ(log_get_level(), FQLOG_TRACE);

    EXPECT_EQ(FQLogLock(nullptr, LOG_ACTION_LOCK), -1);
    ASSERT_EQ(FQOpenTraceFile(trace_.c_str(), FQLOG_INFO, 0), 0);
    sem_t* s = sem_open(semaphore_name_for(trace_).c_str(), 0);
    ASSERT_NE(s, SEM_FAILED);
    EXPECT_EQ(FQLogLock(s, static_cast<log_lock_actions_t>(7)), -1);
    sem_close(s);
    EXPECT_TRUE(lock_is_free()) << "a refused action leaves the lock free";
    for (const char* text : {"Failed to open semaphore \"fq_log_", "Invalid semaphore handle", "Invalid action parameter value"})
        EXPECT_TRUE(cap.contains(text)) << text << " in " << cap.text();
}

TEST_F(TraceLog, LongMessagesAndNullTextsAreWritten)
{
    ASSERT_EQ(FQOpenTraceFile(trace_.c_str(), FQLOG_INFO, 0), 0);
    log_set_quiet(1);  // trace_to_screen is off once a file is open: file only
    const std::string big(200000, 'x');
    const char* volatile nothing = nullptr;  // opaque to the format checker
    const char* volatile nofmt = nullptr;
    StderrCapture cap;
    log_info("big:%s:end", big.c_str());
    log_info("null text %s", nothing);
    log_log(FQLOG_INFO, nullptr, nullptr, 7, nofmt);
    EXPECT_EQ(cap.stop(), "");

    auto lines = split_lines(read_file(trace_));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NE(lines[0].find("big:" + big + ":end"), std::string::npos);
    EXPECT_NE(lines[1].find("null text (null)"), std::string::npos);
    EXPECT_EQ(after_ts(lines[2]), head("INFO ", ""));
}

TEST_F(TraceLog, ConcurrentLinesStayWhole)
{
    ASSERT_EQ(FQOpenTraceFile(trace_.c_str(), FQLOG_INFO, 0), 0);
    log_set_quiet(1);
    constexpr int kThreads = 4, kLines = 200;
    std::vector<unsigned long> tids(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([t, &tids] {
            tids[t] = (unsigned long)pthread_self();
            for (int i = 0; i < kLines; ++i)
                log_info("thread %d line %d %s", t, i, std::string(300, 'a' + t).c_str());
        });
    for (auto& th : threads)
        th.join();

    // Every line whole: one thread's full text behind its own head, and none lost.
    auto lines = split_lines(read_file(trace_));
    ASSERT_EQ(lines.size(), (size_t)(kThreads * kLines));
    std::vector<int> per_thread(kThreads, 0);
    for (const auto& l : lines) {
        const std::string rest = after_ts(l);
        int t = -1, i = -1;
        const size_t at = rest.find("(): thread ");
        ASSERT_TRUE(at != std::string::npos && sscanf(rest.c_str() + at, "(): thread %d line %d", &t, &i) == 2 &&
                    t >= 0 && t < kThreads)
            << l.substr(0, 120);
        EXPECT_EQ(rest, head("INFO ", "operator()", tids[t]) + fmt("thread %d line %d ", t, i) + std::string(300, 'a' + t));
        per_thread[t]++;
    }
    EXPECT_EQ(per_thread, std::vector<int>(kThreads, kLines));
}

TEST_F(TraceLog, FullFileIsMovedIntoZipAtTheNextLine)
{
    ASSERT_EQ(FQOpenTraceFile(trace_.c_str(), FQLOG_INFO, 1), 0);
    EXPECT_EQ(log_get_maxsize(), 1u);
    log_set_quiet(1);

    // One byte short of the limit: the next line is still appended.
    fill(999999);
    log_info("first line");
    EXPECT_TRUE(zips_in(dir_.path()).empty());
    const std::string before = read_file(trace_);
    ASSERT_GE(before.size(), 1000000u);

    const std::string t0 = local_stamp(time(nullptr));
    log_info("second line");
    const std::string t1 = local_stamp(time(nullptr));

    auto zips = zips_in(dir_.path());
    ASSERT_EQ(zips.size(), 1u);
    const std::string prefix = trace_ + "_";
    ASSERT_EQ(zips[0].rfind(prefix, 0), 0u) << zips[0];
    const std::string stamp = zips[0].substr(prefix.size(), zips[0].size() - prefix.size() - 4);
    EXPECT_TRUE(std::regex_match(stamp, std::regex(R"(\d{4}-\d\d-\d\d__\d\d-\d\d-\d\d)"))) << stamp;
    EXPECT_GE(stamp, t0);
    EXPECT_LE(stamp, t1);

    // The triggering line opens the new file.
    auto lines = split_lines(read_file(trace_));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("second line"), std::string::npos);

    // One regular entry under the trace file's name with exactly the old content.
    fq_archive_read_ptr a(archive_read_new());
    archive_read_support_format_all(a.get());
    struct archive_entry* entry = nullptr;
    ASSERT_EQ(archive_read_open_filename(a.get(), zips[0].c_str(), 10240), ARCHIVE_OK);
    ASSERT_EQ(archive_read_next_header(a.get(), &entry), ARCHIVE_OK);
    EXPECT_STREQ(archive_entry_pathname(entry), trace_.c_str());
    std::string content(before.size() + 1, '\0');
    content.resize((size_t)std::max<la_ssize_t>(0, archive_read_data(a.get(), content.data(), content.size())));
    EXPECT_TRUE(content == before) << "archived " << content.size() << " of " << before.size();
    EXPECT_EQ(archive_read_next_header(a.get(), &entry), ARCHIVE_EOF);

    // A maximum size of 0 means no limit.
    log_reset_start_state();
    ASSERT_EQ(FQOpenTraceFile(trace_.c_str(), FQLOG_INFO, 0), 0);
    log_set_quiet(1);
    fill(2500000);
    log_info("still here");
    EXPECT_EQ(zips_in(dir_.path()).size(), 1u);
    EXPECT_NE(read_file(trace_).find("still here", 2500000), std::string::npos);
}

TEST_F(TraceLog, FailedRotationReportsWithoutWaitingOnItsOwnLock)
{
    ASSERT_EQ(FQOpenTraceFile(trace_.c_str(), FQLOG_INFO, 1), 0);
    fill(1000000);
    // Directories in the archive's place make every archive name of the next minute unusable.
    const time_t now = time(nullptr);
    for (time_t t = now - 1; t < now + 60; ++t)
        fs::create_directory(trace_ + "_" + local_stamp(t) + ".zip");

    StderrCapture cap;
    const double elapsed = timed([] { log_info("line after failed rotation"); });
    const std::string err = cap.stop();

    EXPECT_LT(elapsed, 2.5);
    EXPECT_NE(err.find("Failed to open new archive " + trace_ + "_"), std::string::npos) << err;
    EXPECT_EQ(err.find(kTimeoutLine), std::string::npos) << err;
    // The trace file is kept and gets the line, but not the report.
    const std::string text = read_file(trace_);
    EXPECT_NE(text.find("line after failed rotation", 1000000), std::string::npos);
    EXPECT_EQ(text.find("Failed to open new archive"), std::string::npos);
    EXPECT_TRUE(lock_is_free()) << "the lock was given back";
}

TEST_F(TraceLog, LineFromInsideTheLockGoesToStderrOnly)
{
    static std::atomic<int> calls{0}, depth{0};
    calls = 0;
    depth = 0;
    // A lock function that reports something, as rotation and FQLogLock may; once only, so that
    // a log that re-enters the lock cannot recurse for ever.
    log_set_lock([](void*, int action) -> int {
        calls++;
        if (action == LOG_ACTION_LOCK && depth++ == 0)
            log_error("report from inside the lock");
        return 0;
    });
    log_set_filename(trace_.c_str());
    log_set_level(FQLOG_INFO);
    log_set_screentrace(0);

    StderrCapture cap;
    log_info("outer line");
    EXPECT_EQ(calls, 2);  // lock and unlock of the outer line only
    EXPECT_EQ(depth, 1);
    EXPECT_TRUE(cap.contains("report from inside the lock"));
    auto lines = split_lines(read_file(trace_));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("outer line"), std::string::npos);
}

TEST_F(TraceLog, TakenSemaphoreLosesTheFileLineAfterFiveSeconds)
{
    ASSERT_EQ(FQOpenTraceFile(trace_.c_str(), FQLOG_INFO, 0), 0);
    // Another process holding the file's lock, as seen from here.
    sem_t* s = sem_open(semaphore_name_for(trace_).c_str(), 0);
    ASSERT_NE(s, SEM_FAILED);
    ASSERT_EQ(sem_trywait(s), 0);

    StderrCapture cap;
    const double elapsed = timed([] { log_info("lost line"); });
    const std::string err = cap.stop();
    sem_post(s);
    sem_close(s);

    EXPECT_GE(elapsed, 4.9);
    EXPECT_LT(elapsed, 8.0);
    const size_t at = err.find(kTimeoutLine);
    ASSERT_NE(at, std::string::npos) << err;
    EXPECT_GT(at, err.find("lost line")) << err;
    EXPECT_FALSE(fs::exists(trace_));

    log_set_quiet(1);
    log_info("kept line");
    EXPECT_NE(read_file(trace_).find("kept line"), std::string::npos);
}

}  // namespace
