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

TEST(ExtraTimeout, TransferTimeAtTheBandwidthDoubledForArchivesAndForCleaning)
{
    const struct {
        size_t len;
        uint64_t bandwidth;
        const char* mime;
        bool clean;
        uint64_t want;
    } cases[] = {
        // 8 Mbit/s is 1000 bytes per millisecond; the remainder is dropped.
        {1000000, 8, "text/plain", false, 1000}, {1000000, 8, nullptr, false, 1000},
        {1000000, 8, "application/zip", false, 2000}, {1000000, 8, "text/plain", true, 2000},
        {1000000, 8, "application/zip", true, 4000}, {1999, 8, "text/plain", false, 1},
        // Below 8 Mbit/s the fraction is kept; from 8 on whole megabytes count (12 is 1000 bytes/ms).
        {1000000, 4, "text/plain", false, 2000}, {1000000, 1, "text/plain", false, 8000},
        {1000000, 12, "text/plain", false, 1000},
        // No bandwidth, no extra time; bytes per millisecond beyond 64 bits mean none either.
        {1000000, 0, "application/zip", true, 0}, {1000000, 147573952589676416ull, "text/plain", false, 0},
        {SIZE_MAX, UINT64_MAX, "text/plain", false, 1},
    };
    for (const auto& c : cases)
        EXPECT_EQ(fq_extra_timeout(c.len, c.bandwidth, c.mime, c.clean), c.want) << c.len << " at " << c.bandwidth;
}

TEST(IsArchive, ExactTypesOnly)
{
    for (const char* type : {"application/zip", "application/x-7z-compressed", "application/vnd.ms-excel",
                             "application/x-zoo", "application/gzip"})
        EXPECT_TRUE(isArchive(type)) << type;
    for (const char* type : {"APPLICATION/X-RAR", "application/zip; charset=binary", " application/zip",
                             "application/zi", "application/x-tar", "text/plain", "", static_cast<const char*>(nullptr)})
        EXPECT_FALSE(isArchive(type)) << (type ? type : "(null)");
}

}  // namespace
