#include <gtest/gtest.h>

#include <stdint.h>
#include <time.h>

#include <string>

#include "fqhlp_timeout.h"

namespace {

uint64_t mono_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000 + static_cast<uint64_t>(ts.tv_nsec) / 1000000;
}

TEST(Clock, CurrentTimeIsTheMonotonicClockInMilliseconds)
{
    const uint64_t before = mono_ms();
    const uint64_t now = fq_current_time_ms();
    const uint64_t after = mono_ms();
    EXPECT_GE(now, before);
    EXPECT_LE(now, after);
}

TEST(Clock, BudgetIsUsedUpAtTheInstantOfExpiry)
{
    const uint64_t now = fq_current_time_ms();
    ASSERT_GT(now, 1000u);
    // Exactly timeout_ms ago (or a moment more): nothing left, and expired.
    EXPECT_EQ(fq_remaining_time_ms(now - 1000, 1000), 0u);
    EXPECT_TRUE(fq_timeout_expired(now - 1000, 1000));
    // Long past: still 0, never a wrapped-around large value.
    EXPECT_EQ(fq_remaining_time_ms(now - 1000, 10), 0u);
    EXPECT_TRUE(fq_timeout_expired(now - 1000, 10));
    // A budget of 0 is used up at once.
    EXPECT_TRUE(fq_timeout_expired(fq_current_time_ms(), 0));
    EXPECT_EQ(fq_remaining_time_ms(fq_current_time_ms(), 0), 0u);
}

TEST(Clock, FreshBudgetIsAlmostWhole)
{
    const uint64_t hour = 3600 * 1000;
    const uint64_t start = fq_current_time_ms();
    const uint64_t left = fq_remaining_time_ms(start, hour);
    EXPECT_LE(left, hour);
    EXPECT_GT(left, hour - 1000);
    EXPECT_FALSE(fq_timeout_expired(start, hour));
    EXPECT_LT(fq_elapsed_time_ms(start), 1000u);
    // A start ahead of the clock counts as no time spent, not as an enormous one.
    EXPECT_EQ(fq_elapsed_time_ms(start + hour), 0u);
    EXPECT_EQ(fq_remaining_time_ms(start + hour, 500), 500u);
    EXPECT_FALSE(fq_timeout_expired(start + hour, 500));
}

TEST(ExtraTimeout, TransferTimeDoubledForArchivesAndForCleaning)
{
    // 8 Mbit/s is 1000 bytes per millisecond.
    EXPECT_EQ(fq_extra_timeout(1000000, 8, "text/plain", false), 1000u);
    EXPECT_EQ(fq_extra_timeout(1000000, 8, "application/zip", false), 2000u);
    EXPECT_EQ(fq_extra_timeout(1000000, 8, "application/zip", true), 4000u);
    EXPECT_EQ(fq_extra_timeout(1000000, 8, "text/plain", true), 2000u);
    EXPECT_EQ(fq_extra_timeout(1000000, 8, nullptr, false), 1000u);
    // The remainder is dropped.
    EXPECT_EQ(fq_extra_timeout(1999, 8, "text/plain", false), 1u);
    EXPECT_EQ(fq_extra_timeout(999, 8, "application/zip", true), 0u);
}

TEST(ExtraTimeout, BandwidthConversion)
{
    // Below 8 Mbit/s the fraction is kept: 4 gives 500 bytes/ms, 1 gives 125.
    EXPECT_EQ(fq_extra_timeout(1000000, 4, "text/plain", false), 2000u);
    EXPECT_EQ(fq_extra_timeout(1000000, 1, "text/plain", false), 8000u);
    // From 8 on whole megabytes count: 12 gives 1000 bytes/ms, not 1500.
    EXPECT_EQ(fq_extra_timeout(1000000, 12, "text/plain", false), 1000u);
    EXPECT_EQ(fq_extra_timeout(1000000, 16, "text/plain", false), 500u);
    // No bandwidth, no extra time, whatever the object.
    EXPECT_EQ(fq_extra_timeout(1000000, 0, "application/zip", true), 0u);
    // A bandwidth whose bytes per millisecond overflow 64 bits means no extra time; wrapped
    // around, this one would be a divisor of 384.
    EXPECT_EQ(fq_extra_timeout(1000000, 147573952589676416ull, "text/plain", false), 0u);
    EXPECT_EQ(fq_extra_timeout(SIZE_MAX, UINT64_MAX, "text/plain", false), 1u);
}

TEST(IsArchive, KnowsExactlyTheTableTypes)
{
    const char* table[] = {
        "application/gzip",
        "application/java-archive",
        "application/sar",
        "application/vnd.android.package-archive",
        "application/vnd.ms-cab-compressed",
        "application/vnd.ms-excel",
        "application/vnd.ms-powerpoint",
        "application/vnd.ms-word",
        "application/x-7z-compressed",
        "application/x-ace-compressed",
        "application/x-alz-compressed",
        "application/x-apple-diskimage",
        "application/x-arj",
        "application/x-astrotite-afa",
        "application/x-bzip2",
        "application/x-cfs-compressed",
        "application/x-compress",
        "application/x-dar",
        "application/x-dgc-compressed",
        "application/x-gca-compressed",
        "application/x-gtar",
        "application/x-gzip",
        "application/x-jar",
        "application/x-lzh",
        "application/x-lzip",
        "application/x-lzma",
        "application/x-lzop",
        "application/x-lzx",
        "application/x-par2",
        "application/x-rar",
        "application/x-rar-compressed",
        "application/x-stuffit",
        "application/x-stuffitx",
        "application/x-xz",
        "application/x-zoo",
        "application/zip",
    };
    for (const char* type : table)
        EXPECT_TRUE(isArchive(type)) << type;
}

TEST(IsArchive, ComparisonIsExact)
{
    EXPECT_FALSE(isArchive("APPLICATION/X-RAR"));
    EXPECT_FALSE(isArchive("Application/Zip"));
    EXPECT_FALSE(isArchive("application/zip; charset=binary"));
    EXPECT_FALSE(isArchive(" application/zip"));
    EXPECT_FALSE(isArchive("application/zi"));
    EXPECT_FALSE(isArchive("application/x-tar"));
    EXPECT_FALSE(isArchive("text/plain"));
    EXPECT_FALSE(isArchive(""));
    EXPECT_FALSE(isArchive(nullptr));
}

}  // namespace
