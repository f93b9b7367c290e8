#include <gtest/gtest.h>

#include <errno.h>
#include <fcntl.h>
#include <semaphore.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "fqsemaphore.h"
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

}  // namespace
