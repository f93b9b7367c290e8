#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "fqsemaphore.h"
#include "fqthread.h"

namespace {

using Clock = std::chrono::steady_clock;

long ms_since(Clock::time_point t0)
{
    return (long)std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count();
}

// Polls cond every millisecond for at most limit_ms.
template <typename F>
bool wait_for(F cond, int limit_ms = 5000)
{
    auto t0 = Clock::now();
    while (!cond()) {
        if (ms_since(t0) > limit_ms)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

class NamedSemaphore : public ::testing::Test {
protected:
    void SetUp() override
    {
        static std::atomic<int> counter{0};
        name_ = "fq_test_sem_" + std::to_string(getpid()) + "_" + std::to_string(counter++);
        sem_ = FQsem_open(name_.c_str(), O_CREAT | O_EXCL, 0600, 0, 1);
        ASSERT_NE(sem_, SEM_FAILED) << name_;
    }
    void TearDown() override
    {
        if (sem_ != SEM_FAILED)
            sem_close(sem_);
        sem_unlink(name_.c_str());
    }

    std::string name_;
    sem_t* sem_ = SEM_FAILED;
};

TEST_F(NamedSemaphore, CreatedWithTheMaximumAndShared)
{
    int value = -1;
    ASSERT_EQ(sem_getvalue(sem_, &value), 0);
    EXPECT_EQ(value, 1);

    // A second open of the same name sees the same semaphore.
    sem_t* other = FQsem_open(name_.c_str(), 0, 0, 0, 0);
    ASSERT_NE(other, SEM_FAILED);
    EXPECT_EQ(FQsem_timedwait(other, 0), 0);
    ASSERT_EQ(sem_getvalue(sem_, &value), 0);
    EXPECT_EQ(value, 0);
    EXPECT_EQ(FQsem_post(other), 0);
    sem_close(other);

    EXPECT_EQ(FQsem_open((name_ + "_missing").c_str(), 0, 0, 0, 1), SEM_FAILED);
}

TEST_F(NamedSemaphore, TakenSemaphoreFailsAtOnceOrAfterTheLimit)
{
    ASSERT_EQ(FQsem_timedwait(sem_, 0), 0);

    auto t0 = Clock::now();
    errno = 0;
    EXPECT_EQ(FQsem_timedwait(sem_, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_LT(ms_since(t0), 100);

    t0 = Clock::now();
    errno = 0;
    EXPECT_EQ(FQsem_timedwait(sem_, 200), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    const long waited = ms_since(t0);
    EXPECT_GE(waited, 190);
    EXPECT_LT(waited, 2000);

    EXPECT_EQ(FQsem_post(sem_), 0);
    t0 = Clock::now();
    EXPECT_EQ(FQsem_timedwait(sem_, 200), 0);
    EXPECT_LT(ms_since(t0), 100);
}

TEST_F(NamedSemaphore, PostFromAnotherThreadEndsTheWait)
{
    ASSERT_EQ(FQsem_timedwait(sem_, 0), 0);
    std::atomic<bool> waiting{false};
    std::thread poster([&] {
        wait_for([&] { return waiting.load(); });
        FQsem_post(sem_);
    });
    auto t0 = Clock::now();
    waiting = true;
    EXPECT_EQ(FQsem_timedwait(sem_, 5000), 0);
    EXPECT_LT(ms_since(t0), 4000);
    poster.join();
}

TEST(SemaphoreDeadline, NanosecondsCarryIntoSeconds)
{
    struct timespec ts = {10, 999000000};
    FQsem_deadline_add(&ts, 1);
    EXPECT_EQ(ts.tv_sec, 11);
    EXPECT_EQ(ts.tv_nsec, 0);

    ts = {10, 500000000};
    FQsem_deadline_add(&ts, 1500);
    EXPECT_EQ(ts.tv_sec, 12);
    EXPECT_EQ(ts.tv_nsec, 0);

    ts = {10, 1};
    FQsem_deadline_add(&ts, 999);
    EXPECT_EQ(ts.tv_sec, 10);
    EXPECT_EQ(ts.tv_nsec, 999000001);

    ts = {10, 999999999};
    FQsem_deadline_add(&ts, 5001);
    EXPECT_EQ(ts.tv_sec, 16);
    EXPECT_EQ(ts.tv_nsec, 999999);
}

void* mark_finished(void* p)
{
    static_cast<std::atomic<bool>*>(p)->store(true);
    return nullptr;
}

struct Runner {
    std::atomic<bool> stop{false};
    std::atomic<long> beats{0};
};

void* run_until_stopped(void* p)
{
    auto* r = static_cast<Runner*>(p);
    // Bounded, so that a failing test cannot leave it running for ever.
    for (int i = 0; i < 30000 && !r->stop.load(); ++i) {
        r->beats++;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return nullptr;
}

TEST(ThreadJoin, ZeroThreadIdIsRefused)
{
    auto t0 = Clock::now();
    EXPECT_EQ(FQ_JoinThreadTimeout((pthread_t)0, 1000), -1);
    EXPECT_LT(ms_since(t0), 100);
}

TEST(ThreadJoin, EndedThreadIsJoined)
{
    std::atomic<bool> finished{false};
    pthread_t t = 0;
    ASSERT_EQ(FQ_CreateThread(&t, mark_finished, &finished), 0);
    ASSERT_NE(t, (pthread_t)0);
    ASSERT_TRUE(wait_for([&] { return finished.load(); }));
    auto t0 = Clock::now();
    EXPECT_EQ(FQ_JoinThreadTimeout(t, 2000), 0);
    EXPECT_LT(ms_since(t0), 1000);
}

TEST(ThreadJoin, ThreadEndingDuringTheWaitIsJoined)
{
    Runner r;
    pthread_t t = 0;
    ASSERT_EQ(FQ_CreateThread(&t, reinterpret_cast<void*>(run_until_stopped), &r), 0);
    std::thread stopper([&] {
        wait_for([&] { return r.beats.load() > 50; });
        r.stop = true;
    });
    auto t0 = Clock::now();
    EXPECT_EQ(FQ_JoinThreadTimeout(t, 3000), 0);
    EXPECT_LT(ms_since(t0), 2500);
    stopper.join();
}

TEST(ThreadJoin, RunningThreadOutlivesTheLimit)
{
    Runner r;
    pthread_t t = 0;
    ASSERT_EQ(FQ_CreateThread(&t, run_until_stopped, &r), 0);

    auto t0 = Clock::now();
    EXPECT_EQ(FQ_JoinThreadTimeout(t, 300), 1);
    const long waited = ms_since(t0);
    EXPECT_GE(waited, 290);
    EXPECT_LT(waited, 2000);

    // Still running, and still joinable by its owner.
    const long seen = r.beats.load();
    EXPECT_TRUE(wait_for([&] { return r.beats.load() > seen + 5; }));
    r.stop = true;
    EXPECT_EQ(pthread_join(t, nullptr), 0);
}

}  // namespace
