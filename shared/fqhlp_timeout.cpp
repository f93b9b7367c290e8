// Time budgets in monotonic milliseconds: what is left of a scan's SCANTIMEOUT as the driver moves
// from service to service, and the extra time the transfer of a large object may take. A budget never
// wraps around: a start in the future counts as no time spent, and a spent budget stays at 0.
#include "fqhlp_timeout.h"

#include <time.h>

#include <algorithm>
#include <string>
#include <vector>

uint64_t fq_current_time_ms(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000u + static_cast<uint64_t>(ts.tv_nsec) / 1000000u;
}

uint64_t fq_elapsed_time_ms(uint64_t start_time_ms)
{
    const uint64_t now = fq_current_time_ms();
    // A start in the future would wrap to an enormous elapsed time.
    return now > start_time_ms ? now - start_time_ms : 0;
}

uint64_t fq_remaining_time_ms(uint64_t start_time_ms, uint64_t timeout_ms)
{
    // Kept in 64 bits: a 32-bit elapsed time would wrap after 49 days and revive an expired budget.
    const uint64_t elapsed = fq_elapsed_time_ms(start_time_ms);
    return elapsed >= timeout_ms ? 0 : timeout_ms - elapsed;
}

bool fq_timeout_expired(uint64_t start_time_ms, uint64_t timeout_ms)
{
    return fq_elapsed_time_ms(start_time_ms) >= timeout_ms;
}

uint64_t fq_extra_timeout(size_t data_len, uint64_t bandwidth, const char* mimetype, bool clean)
{
    uint64_t extra_timeout_ms = 0;
    uint64_t bytes_per_ms = 0;
    if (bandwidth != 0) {
        const uint64_t mbytes_per_s = bandwidth / 8;
        if (mbytes_per_s > UINT64_MAX / 1000)
            bytes_per_ms = UINT64_MAX;
        else
            bytes_per_ms = mbytes_per_s * 1000;
        // Below 8 Mbit/s the whole-byte division gives nothing; keep the fraction instead.
        if (bytes_per_ms == 0)
            bytes_per_ms = bandwidth * 1000 / 8;
    }
    if (bytes_per_ms != 0)
        extra_timeout_ms = static_cast<uint64_t>(data_len) / bytes_per_ms;
    if (isArchive(mimetype))
        extra_timeout_ms *= 2;
    if (clean)
        extra_timeout_ms *= 2;
    return extra_timeout_ms;
}

bool isArchive(const char* mimetype)
{
    if (!mimetype)
        return false;
    // Built and sorted once; the runtime guards concurrent first calls.
    static const std::vector<std::string> archives = [] {
        std::vector<std::string> v = {
            "application/zip",
            "application/gzip",
            "application/x-gzip",
            "application/x-bzip2",
            "application/x-xz",
            "application/x-lzma",
            "application/x-lzip",
            "application/x-lzop",
            "application/x-compress",
            "application/x-7z-compressed",
            "application/x-rar",
            "application/x-rar-compressed",
            "application/x-gtar",
            "application/java-archive",
            "application/x-jar",
            "application/sar",
            "application/vnd.android.package-archive",
            "application/vnd.ms-cab-compressed",
            "application/vnd.ms-excel",
            "application/vnd.ms-powerpoint",
            "application/vnd.ms-word",
            "application/x-ace-compressed",
            "application/x-alz-compressed",
            "application/x-apple-diskimage",
            "application/x-arj",
            "application/x-astrotite-afa",
            "application/x-cfs-compressed",
            "application/x-dar",
            "application/x-dgc-compressed",
            "application/x-gca-compressed",
            "application/x-lzh",
            "application/x-lzx",
            "application/x-par2",
            "application/x-stuffit",
            "application/x-stuffitx",
            "application/x-zoo",
        };
        std::sort(v.begin(), v.end());
        return v;
    }();
    return std::binary_search(archives.begin(), archives.end(), std::string(mimetype));
}
