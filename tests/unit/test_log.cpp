#include <gtest/gtest.h>

#include <ctype.h>
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <archive.h>
#include <archive_entry.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "log-helper.h"
#include "log.h"

namespace fs = std::filesystem;

namespace {

const char kTimeoutLine[] =
    "fernquill Anti-Virus: Debug-trace semaphore timeout. Trace line was possibly lost!\r\n";

std::string read_file(const std::string& p)
{
    std::ifstream f(p, std::ios::binary);
    std::stringstream ss;
    ss << f.rdbuf();
    return ss.str();
}

// 'd' in pat stands for a digit, everything else for itself.
bool matches_pattern(const std::string& s, size_t pos, const std::string& pat)
{
    if (s.size() < pos + pat.size())
        return false;
    for (size_t i = 0; i < pat.size(); ++i) {
        const char c = s[pos + i];
        if (pat[i] == 'd' ? !isdigit((unsigned char)c) : c != pat[i])
            return false;
    }
    return true;
}

// Length of the "[YYYY-MM-DD hh:mm:ss.mmm] " that opens a line, or 0 if there is none.
size_t ts_prefix_len(const std::string& line)
{
    if (matches_pattern(line, 0, "[dddd-dd-dd dd:dd:dd.ddd] "))
        return 26;
    if (matches_pattern(line, 0, "[dddd-dd-dd dd:dd:dd.dddd] "))
        return 27;
    return 0;
}

// The line without its time stamp; "" if it does not start with one.
std::string after_ts(const std::string& line)
{
    const size_t n = ts_prefix_len(line);
    return n == 0 ? std::string() : line.substr(n);
}

std::vector<std::string> split_lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line))
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

double seconds_since(std::chrono::steady_clock::time_point t0)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Redirects fd 2 into a file for the lifetime of the object (or until stop()).
class StderrCapture {
public:
    explicit StderrCapture(const std::string& path) : path_(path)
    {
        fflush(stderr);
        saved_ = dup(2);
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(fd, 2);
        close(fd);
    }
    ~StderrCapture() { stop(); }
    std::string stop()
    {
        if (saved_ >= 0) {
            fflush(stderr);
            dup2(saved_, 2);
            close(saved_);
            saved_ = -1;
        }
        return read_file(path_);
    }

private:
    std::string path_;
    int saved_ = -1;
};

std::string semaphore_name_for(const std::string& path)
{
    std::string name = "fq_log_" + path;
    for (char& c : name) {
        if (c == '/')
            c = '_';
    }
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
    for (const auto& e : fs::directory_iterator(dir)) {
        if (e.is_regular_file() && e.path().extension() == ".zip")
            out.push_back(e.path().string());
    }
    return out;
}

class TraceLog : public ::testing::Test {
protected:
    void SetUp() override
    {
        log_reset_start_state();
        char tmpl[] = "/tmp/fq_tracelog_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        trace_ = dir_ + "/trace.log";
    }
    void TearDown() override
    {
        // Other suites in this binary log too: leave the start state behind.
        log_reset_start_state();
        sem_unlink(semaphore_name_for(trace_).c_str());
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }

    std::string capture_path() const { return dir_ + "/stderr.txt"; }

    void fill(size_t bytes)
    {
        std::ofstream f(trace_, std::ios::binary | std::ios::trunc);
        std::string row(99, 'a');
        row += '\n';
        while (bytes >= row.size()) {
            f << row;
            bytes -= row.size();
        }
        f << std::string(bytes, 'b');
    }

    std::string dir_;
    std::string trace_;  // stays alive while the log points at it
};

TEST(TraceLogTimestamp, MillisecondsAreRoundedNotCut)
{
    char buf[64];
    log_format_timestamp(1794984310, 123456789, buf, sizeof(buf));
    EXPECT_STREQ(buf, "2026-11-18 06:45:10.123");
    log_format_timestamp(0, 999600000, buf, sizeof(buf));
    EXPECT_STREQ(buf, "1970-01-01 00:00:00.1000");
    log_format_timestamp(0, 400000, buf, sizeof(buf));
    EXPECT_STREQ(buf, "1970-01-01 00:00:00.000");
    log_format_timestamp(0, 1500000, buf, sizeof(buf));
    EXPECT_STREQ(buf, "1970-01-01 00:00:00.002");
    // A time gmtime cannot express leaves the stamp empty.
    log_format_timestamp(LONG_MAX, 0, buf, sizeof(buf));
    EXPECT_STREQ(buf, "");
}

TEST_F(TraceLog, StderrLineHasColourAndSourcePosition)
{
    StderrCapture cap(capture_path());
    const int line = __LINE__ + 1;
    log_warn("careful %s", "now");
    std::string err = cap.stop();

    std::string rest = fmt("\x1b[33mWARN  PID: %6d TID: %6lu %s:TestBody(): careful now \x1b[90m(test_log.cpp:%d)\x1b[0m \n",
                           (int)getpid(), (unsigned long)pthread_self(), fq__progname, line);
    EXPECT_EQ(after_ts(err), rest) << err;
    EXPECT_FALSE(fs::exists(trace_));
}

TEST_F(TraceLog, FileLineCarriesSourcePositionOnlyAtTrace)
{
    ASSERT_EQ(FQOpenTraceFile(trace_.c_str(), FQLOG_TRACE, 0), 0);
    EXPECT_STREQ(log_get_filename(), trace_.c_str());
    EXPECT_EQ(log_get_level(), FQLOG_TRACE);

    StderrCapture cap(capture_path());
    const int line1 = __LINE__ + 1;
    log_info("hello %d", 42);
    std::string err = cap.stop();

    const std::string head = fmt("INFO  PID: %6d TID: %6lu %s:TestBody(): ", (int)getpid(),
                                 (unsigned long)pthread_self(), fq__progname);
    auto lines = split_lines(read_file(trace_));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(after_ts(lines[0]), head + fmt("hello 42 (test_log.cpp:%d)", line1)) << lines[0];
    // quiet is 0: the line reaches stderr as well, with colour.
    EXPECT_NE(err.find("\x1b[32mINFO  PID:"), std::string::npos) << err;
    EXPECT_NE(err.find("hello 42"), std::string::npos);

    fs::remove(trace_);
    log_reset_start_state();
    ASSERT_EQ(FQOpenTraceFile(trace_.c_str(), FQLOG_INFO, 0), 0);
    log_warn("no position");
    std::string text = read_file(trace_);
    EXPECT_EQ(text.find('\x1b'), std::string::npos);
    lines = split_lines(text);
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(after_ts(lines[0]),
              fmt("WARN  PID: %6d TID: %6lu %s:TestBody(): no position", (int)getpid(),
                  (unsigned long)pthread_self(), fq__progname));
}

TEST_F(TraceLog, LinesAboveTheLevelAreDropped)
{
    ASSERT_EQ(FQOpenTraceFile(trace_.c_str(), FQLOG_INFO, 0), 0);
    StderrCapture cap(capture_path());
    log_debug("debug line");
    log_trace("trace line");
    EXPECT_FALSE(fs::exists(trace_));
    log_fatal("fatal line");
    log_info("info line");
    std::string err = cap.stop();

    auto lines = split_lines(read_file(trace_));
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].find("fatal line"), std::string::npos);
    EXPECT_NE(lines[1].find("info line"), std::string::npos);
    EXPECT_EQ(err.find("debug line"), std::string::npos);
    EXPECT_EQ(err.find("trace line"), std::string::npos);
}

TEST_F(TraceLog, NoTraceConfiguredSilencesEverything)
{
    const std::string never = dir_ + "/x";
    for (int variant = 0; variant < 2; ++variant) {
        log_reset_start_state();
        if (variant == 0)
            ASSERT_EQ(FQOpenTraceFile(nullptr, FQLOG_TRACE, 0), 0);
        else
            ASSERT_EQ(FQOpenTraceFile(never.c_str(), 0, 0), 0);
        EXPECT_EQ(log_get_level(), FQLOG_OFF);
        EXPECT_EQ(log_get_filename(), nullptr);

        StderrCapture cap(capture_path());
        log_fatal("fatal");
        log_error("error");
        log_info("info");
        log_trace("trace");
        EXPECT_EQ(cap.stop(), "") << "variant " << variant;
        EXPECT_FALSE(fs::exists(never));
    }
}

TEST_F(TraceLog, FailedSemaphoreOpenKeepsTheStartState)
{
    // Longer than a semaphore name may be.
    const std::string longpath = dir_ + "/" + std::string(300, 'n') + ".log";
    StderrCapture cap(capture_path());
    EXPECT_EQ(FQOpenTraceFile(longpath.c_str(), FQLOG_INFO, 0), -1);
    std::string err = cap.stop();
    EXPECT_NE(err.find("Failed to open semaphore \"fq_log_"), std::string::npos) << err;
    EXPECT_EQ(log_get_filename(), nullptr);
    EXPECT_EQ(log_get_level(), FQLOG_TRACE);
}

TEST_F(TraceLog, LongMessagesAndNullTextsAreWritten)
{
    ASSERT_EQ(FQOpenTraceFile(trace_.c_str(), FQLOG_INFO, 0), 0);
    log_set_quiet(1);  // trace_to_screen is off once a file is open: file only

    const std::string big(200000, 'x');
    const char* volatile nothing = nullptr;  // opaque to the format checker
    const char* volatile nofmt = nullptr;
    StderrCapture cap(capture_path());
    log_info("big:%s:end", big.c_str());
    log_info("null text %s", nothing);
    log_log(FQLOG_INFO, nullptr, nullptr, 7, nofmt);
    EXPECT_EQ(cap.stop(), "");

    auto lines = split_lines(read_file(trace_));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_NE(lines[0].find("big:" + big + ":end"), std::string::npos);
    EXPECT_NE(lines[1].find("null text (null)"), std::string::npos);
    EXPECT_EQ(after_ts(lines[2]),
              fmt("INFO  PID: %6d TID: %6lu %s:(): ", (int)getpid(), (unsigned long)pthread_self(),
                  fq__progname));
}

TEST_F(TraceLog, ConcurrentLinesStayWhole)
{
    ASSERT_EQ(FQOpenTraceFile(trace_.c_str(), FQLOG_INFO, 0), 0);
    log_set_quiet(1);
    constexpr int kThreads = 4;
    constexpr int kLines = 200;
    std::vector<unsigned long> tids(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &tids] {
            tids[t] = (unsigned long)pthread_self();
            for (int i = 0; i < kLines; ++i)
                log_info("thread %d line %d %s", t, i, std::string(300, 'a' + t).c_str());
        });
    }
    for (auto& th : threads)
        th.join();

    auto lines = split_lines(read_file(trace_));
    ASSERT_EQ(lines.size(), (size_t)(kThreads * kLines));
    std::vector<int> per_thread(kThreads, 0);
    for (const auto& l : lines) {
        const std::string rest = after_ts(l);
        int t = -1, i = -1;
        const size_t at = rest.find("(): thread ");
        ASSERT_NE(at, std::string::npos) << l.substr(0, 120);
        ASSERT_EQ(sscanf(rest.c_str() + at, "(): thread %d line %d", &t, &i), 2);
        ASSERT_TRUE(t >= 0 && t < kThreads);
        EXPECT_EQ(rest, fmt("INFO  PID: %6d TID: %6lu %s:operator()(): thread %d line %d ", (int)getpid(),
                            tids[t], fq__progname, t, i) +
                            std::string(300, 'a' + t));
        per_thread[t]++;
    }
    for (int n : per_thread)
        EXPECT_EQ(n, kLines);
}

TEST_F(TraceLog, FullFileIsMovedIntoZipAtTheNextLine)
{
    ASSERT_EQ(FQOpenTraceFile(trace_.c_str(), FQLOG_INFO, 1), 0);
    EXPECT_EQ(log_get_maxsize(), 1u);
    log_set_quiet(1);

    // One byte short of the limit: the next line is still appended.
    fill(999999);
    log_info("first line");
    EXPECT_TRUE(zips_in(dir_).empty());
    const std::string before = read_file(trace_);
    ASSERT_GE(before.size(), 1000000u);

    const std::string t0 = local_stamp(time(nullptr));
    log_info("second line");
    const std::string t1 = local_stamp(time(nullptr));

    auto zips = zips_in(dir_);
    ASSERT_EQ(zips.size(), 1u);
    const std::string prefix = trace_ + "_";
    ASSERT_EQ(zips[0].rfind(prefix, 0), 0u) << zips[0];
    const std::string stamp = zips[0].substr(prefix.size(), zips[0].size() - prefix.size() - 4);
    EXPECT_TRUE(stamp.size() == 20 && matches_pattern(stamp, 0, "dddd-dd-dd__dd-dd-dd")) << stamp;
    EXPECT_GE(stamp, t0);
    EXPECT_LE(stamp, t1);

    // The triggering line opens the new file.
    auto lines = split_lines(read_file(trace_));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("second line"), std::string::npos);

    struct archive* a = archive_read_new();
    archive_read_support_format_all(a);
    archive_read_support_filter_all(a);
    ASSERT_EQ(archive_read_open_filename(a, zips[0].c_str(), 10240), ARCHIVE_OK);
    struct archive_entry* entry = nullptr;
    ASSERT_EQ(archive_read_next_header(a, &entry), ARCHIVE_OK);
    EXPECT_STREQ(archive_entry_pathname(entry), trace_.c_str());
    EXPECT_EQ(archive_entry_size(entry), (la_int64_t)before.size());
    EXPECT_EQ(archive_entry_filetype(entry), (unsigned)AE_IFREG);
    std::string content;
    char buf[8192];
    la_ssize_t n;
    while ((n = archive_read_data(a, buf, sizeof(buf))) > 0)
        content.append(buf, (size_t)n);
    EXPECT_EQ(n, 0);
    EXPECT_TRUE(content == before) << "archived " << content.size() << " of " << before.size();
    EXPECT_EQ(archive_read_next_header(a, &entry), ARCHIVE_EOF);
    archive_read_free(a);
}

TEST_F(TraceLog, MaxsizeZeroNeverRotates)
{
    ASSERT_EQ(FQOpenTraceFile(trace_.c_str(), FQLOG_INFO, 0), 0);
    log_set_quiet(1);
    fill(2500000);
    log_info("still here");
    EXPECT_TRUE(zips_in(dir_).empty());
    std::string text = read_file(trace_);
    EXPECT_GT(text.size(), 2500000u);
    EXPECT_NE(text.find("still here", 2500000), std::string::npos);
}

TEST_F(TraceLog, FailedRotationReportsWithoutWaitingOnItsOwnLock)
{
    ASSERT_EQ(FQOpenTraceFile(trace_.c_str(), FQLOG_INFO, 1), 0);
    fill(1000000);
    // Directories in the archive's place make every archive name of the next minute unusable.
    const time_t now = time(nullptr);
    for (time_t t = now - 1; t < now + 60; ++t)
        fs::create_directory(trace_ + "_" + local_stamp(t) + ".zip");

    StderrCapture cap(capture_path());
    auto t0 = std::chrono::steady_clock::now();
    log_info("line after failed rotation");
    const double elapsed = seconds_since(t0);
    std::string err = cap.stop();

    EXPECT_LT(elapsed, 2.5);
    EXPECT_NE(err.find("Failed to open new archive " + trace_ + "_"), std::string::npos) << err;
    EXPECT_EQ(err.find(kTimeoutLine), std::string::npos) << err;
    // The trace file is kept and gets the line.
    std::string text = read_file(trace_);
    EXPECT_EQ(text.size() > 1000000u, true);
    EXPECT_NE(text.find("line after failed rotation", 1000000), std::string::npos);
    EXPECT_EQ(text.find("Failed to open new archive"), std::string::npos);
    // And the lock was given back.
    sem_t* s = sem_open(semaphore_name_for(trace_).c_str(), 0);
    ASSERT_NE(s, SEM_FAILED);
    EXPECT_EQ(sem_trywait(s), 0);
    sem_post(s);
    sem_close(s);
}

TEST_F(TraceLog, LineFromInsideTheLockGoesToStderrOnly)
{
    static std::atomic<int> calls{0};
    static std::atomic<int> depth{0};
    calls = 0;
    depth = 0;
    // A lock function that reports something, as rotation and FQLogLock may.
    auto reporting_lock = [](void*, int action) -> int {
        calls++;
        // Reports once only, so that a log that re-enters the lock cannot recurse for ever.
        if (action == LOG_ACTION_LOCK && depth++ == 0)
            log_error("report from inside the lock");
        return 0;
    };
    log_set_lock(reporting_lock);
    log_set_filename(trace_.c_str());
    log_set_level(FQLOG_INFO);
    log_set_screentrace(0);

    StderrCapture cap(capture_path());
    log_info("outer line");
    std::string err = cap.stop();

    EXPECT_EQ(calls, 2);  // lock and unlock of the outer line only
    EXPECT_EQ(depth, 1);
    EXPECT_NE(err.find("report from inside the lock"), std::string::npos);
    auto lines = split_lines(read_file(trace_));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("outer line"), std::string::npos);
}

TEST_F(TraceLog, LockRejectsBadArguments)
{
    StderrCapture cap(capture_path());
    EXPECT_EQ(FQLogLock(nullptr, LOG_ACTION_LOCK), -1);
    ASSERT_EQ(FQOpenTraceFile(trace_.c_str(), FQLOG_INFO, 0), 0);
    sem_t* s = sem_open(semaphore_name_for(trace_).c_str(), 0);
    ASSERT_NE(s, SEM_FAILED);
    EXPECT_EQ(FQLogLock(s, static_cast<log_lock_actions_t>(7)), -1);
    EXPECT_EQ(FQLogLock(s, LOG_ACTION_LOCK), 0);
    EXPECT_EQ(sem_trywait(s), -1);
    EXPECT_EQ(FQLogLock(s, LOG_ACTION_UNLOCK), 0);
    EXPECT_EQ(sem_trywait(s), 0);
    sem_post(s);
    sem_close(s);
    std::string err = cap.stop();
    EXPECT_NE(err.find("Invalid semaphore handle"), std::string::npos) << err;
    EXPECT_NE(err.find("Invalid action parameter value"), std::string::npos) << err;
}

TEST_F(TraceLog, TakenSemaphoreLosesTheFileLineAfterFiveSeconds)
{
    ASSERT_EQ(FQOpenTraceFile(trace_.c_str(), FQLOG_INFO, 0), 0);
    // Another process holding the file's lock, as seen from here.
    sem_t* s = sem_open(semaphore_name_for(trace_).c_str(), 0);
    ASSERT_NE(s, SEM_FAILED);
    ASSERT_EQ(sem_trywait(s), 0);

    StderrCapture cap(capture_path());
    auto t0 = std::chrono::steady_clock::now();
    log_info("lost line");
    const double elapsed = seconds_since(t0);
    std::string err = cap.stop();
    sem_post(s);
    sem_close(s);

    EXPECT_GE(elapsed, 4.9);
    EXPECT_LT(elapsed, 8.0);
    EXPECT_NE(err.find("lost line"), std::string::npos) << err;
    const size_t at = err.find(kTimeoutLine);
    ASSERT_NE(at, std::string::npos) << err;
    EXPECT_GT(at, err.find("lost line"));
    EXPECT_FALSE(fs::exists(trace_));

    log_set_quiet(1);
    log_info("kept line");
    EXPECT_NE(read_file(trace_).find("kept line"), std::string::npos);
}

}  // namespace
