#include <gtest/gtest.h>

#include <stdint.h>
#include <time.h>

#include "fqhlp_timeout.h"

namespace {

TEST(Clock, BudgetsNeverWrapAround)
{
    const uint64_t hour = 3600 * 1000;
    const uint64_t now = fq_current_time_ms();
    ASSERT_GT(now, 1000u);
    // The monotonic clock: setting the wall clock never touches a budget.
    struct timespec mono;
    clock_gettime(CLOCK_MONOTONIC, &mono);
    const uint64_t mono_ms = static_cast<uint64_t>(mono.tv_sec) * 1000 + static_cast<uint64_t>(mono.tv_nsec) / 1000000;
    EXPECT_LE(now, mono_ms);
    EXPECT_GT(now + 1000, mono_ms);
    // Exactly timeout_ms ago (or a moment more): nothing left, and expired; long past: still 0.
    EXPECT_EQ(fq_remaining_time_ms(now - 1000, 1000), 0u);
    EXPECT_TRUE(fq_timeout_expired(now - 1000, 1000));
    EXPECT_EQ(fq_remaining_time_ms(now - 1000, 10), 0u);
    EXPECT_TRUE(fq_timeout_expired(fq_current_time_ms(), 0));
    // A fresh budget is almost whole.
    EXPECT_GT(fq_remaining_time_ms(now, hour), hour - 1000);
    EXPECT_FALSE(fq_timeout_expired(now, hour));
    // A start ahead of the clock counts as no time spent, not as an enormous one.
    EXPECT_EQ(fq_elapsed_time_ms(now + hour), 0u);
    EXPECT_EQ(fq_remaining_time_ms(now + hour, 500), 500u);
}

}  // namespace
