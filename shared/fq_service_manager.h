// Talking to a service manager (systemd's notify protocol): readiness, the watchdog, the stop and a
// one-line status. Without a manager (no NOTIFY_SOCKET) every call does nothing, so the programs
// behave the same when started by hand.
#pragma once

#include <stdint.h>

// The program serves now; status is a line for `systemctl status`.
void fq_sm_ready(const char* status);
// The program is stopping.
void fq_sm_stopping(const char* status);
// A new status line.
void fq_sm_status(const char* status);
// Proof of life, sent at most once per half of the watchdog interval the manager asked for; call
// it from the loop whose stalling should count as a hang. Does nothing when no watchdog is set.
void fq_sm_watchdog(void);
