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
#include "process_util.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

long ms_since(Clock::time_point t0)
{
    return (long)std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count();
}

TEST(NamedSemaphore, SharedByNameAndWaitedOnWithADeadline)
{
    const std::string name = "fq_test_sem_" + std::to_string(getpid());
    sem_t* sem = FQsem_open(name.c_str(), O_CREAT | O_EXCL, 0600, 0, 1);
    ASSERT_NE(sem, SEM_FAILED);
    // A second open of the same name sees the same semaphore, created with its maximum.
    sem_t* other = FQsem_open(name.c_str(), 0, 0, 0, 0);
    ASSERT_NE(other, SEM_FAILED);
    EXPECT_EQ(FQsem_timedwait(other, 0), 0);
    EXPECT_EQ(FQsem_open((name + "_missing").c_str(), 0, 0, 0, 1), SEM_FAILED);

    // Taken: no wait at all, or a wait that ends at the deadline.
    auto t0 = Clock::now();
    EXPECT_EQ(FQsem_timedwait(sem, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_LT(ms_since(t0), 100);
    t0 = Clock::now();
    EXPECT_EQ(FQsem_timedwait(sem, 200), -1);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_GE(ms_since(t0), 190);
    EXPECT_LT(ms_since(t0), 2000);

    // A post from another thread ends the wait.
    std::atomic<bool> waiting{false};
    std::thread poster([&] {
        fqtest::wait_until([&] { return waiting.load(); }, 5s);
        FQsem_post(other);
    });
    t0 = Clock::now();
    waiting = true;
    EXPECT_EQ(FQsem_timedwait(sem, 5000), 0);
    EXPECT_LT(ms_since(t0), 4000);
    poster.join();
    sem_close(other);
    sem_close(sem);
    sem_unlink(name.c_str());
}

TEST(NamedSemaphore, DeadlineNanosecondsCarryIntoSeconds)
{
    const struct {
        struct timespec from;
        time_t add_ms;
        struct timespec want;
    } cases[] = {{{10, 999000000}, 1, {11, 0}},
                 {{10, 500000000}, 1500, {12, 0}},
                 {{10, 1}, 999, {10, 999000001}},
                 {{10, 999999999}, 5001, {16, 999999}}};
    for (const auto& c : cases) {
        struct timespec ts = c.from;
        FQsem_deadline_add(&ts, c.add_ms);
        EXPECT_EQ(ts.tv_sec, c.want.tv_sec) << c.add_ms;
        EXPECT_EQ(ts.tv_nsec, c.want.tv_nsec) << c.add_ms;
    }
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

TEST(ThreadJoin, EndedEndingAndRunningThreads)
{
    EXPECT_EQ(FQ_JoinThreadTimeout((pthread_t)0, 1000), -1);

    // A thread that has ended, and one that ends during the wait, are joined.
    for (bool ends_during_the_wait : {false, true}) {
        Runner r;
        r.stop = !ends_during_the_wait;
        pthread_t t = 0;
        ASSERT_EQ(FQ_CreateThread(&t, run_until_stopped, &r), 0);
        std::thread stopper([&] {
            fqtest::wait_until([&] { return r.stop.load() || r.beats.load() > 50; }, 5s);
            r.stop = true;
        });
        const auto t0 = Clock::now();
        EXPECT_EQ(FQ_JoinThreadTimeout(t, 3000), 0);
        EXPECT_LT(ms_since(t0), 2500);
        stopper.join();
    }

    // One that runs on outlives the limit, and is still joinable by its owner.
    Runner r;
    pthread_t t = 0;
    ASSERT_EQ(FQ_CreateThread(&t, reinterpret_cast<void*>(run_until_stopped), &r), 0);
    const auto t0 = Clock::now();
    EXPECT_EQ(FQ_JoinThreadTimeout(t, 300), 1);
    EXPECT_GE(ms_since(t0), 290);
    EXPECT_LT(ms_since(t0), 2000);
    const long seen = r.beats.load();
    EXPECT_TRUE(fqtest::wait_until([&] { return r.beats.load() > seen + 5; }, 5s));
    r.stop = true;
    EXPECT_EQ(pthread_join(t, nullptr), 0);
}

}  // namespace
