// The worker's and the peers' side of systemd's notify protocol. A service unit of Type=notify
// learns from here when a program really serves (not merely when its process exists), when it
// stops, and through the watchdog whether its supervising loop still turns. Nothing here may
// block or fail a program: without a manager, or when a message cannot be sent, the calls are
// silent no-ops.
#include "fq_service_manager.h"

#include <systemd/sd-daemon.h>
#include <time.h>

#include <atomic>
#include <string>

namespace {

std::atomic<int64_t> s_last_watchdog_ms{0};

int64_t s_now_ms()
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (int64_t)ts.tv_sec * 1000 + ts.tv_nsec / 1000000;
}

void s_notify(const std::string& state)
{
    sd_notify(0, state.c_str());
}

}  // namespace

void fq_sm_ready(const char* status)
{
    s_notify(std::string("READY=1\nSTATUS=") + (status ? status : "serving"));
}

void fq_sm_stopping(const char* status)
{
    s_notify(std::string("STOPPING=1\nSTATUS=") + (status ? status : "stopping"));
}

void fq_sm_status(const char* status)
{
    if (status)
        s_notify(std::string("STATUS=") + status);
}

void fq_sm_watchdog(void)
{
    uint64_t usec = 0;
    if (sd_watchdog_enabled(0, &usec) <= 0 || usec == 0)
        return;
    const int64_t now = s_now_ms();
    const int64_t half = (int64_t)(usec / 2000);
    if (now - s_last_watchdog_ms.load() < half)
        return;
    s_last_watchdog_ms.store(now);
    sd_notify(0, "WATCHDOG=1");
}
