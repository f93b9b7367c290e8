// Millisecond clock for time budgets, extra time by data size, and archive MIME types.
#pragma once

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

// Milliseconds on the monotonic clock.
uint64_t fq_current_time_ms(void);
// Milliseconds since start_time_ms; 0 if start_time_ms lies ahead of the clock.
uint64_t fq_elapsed_time_ms(uint64_t start_time_ms);
// What is left of timeout_ms counted from start_time_ms; 0 once it is used up.
uint64_t fq_remaining_time_ms(uint64_t start_time_ms, uint64_t timeout_ms);
// True once timeout_ms has passed since start_time_ms (at once for a timeout of 0).
bool fq_timeout_expired(uint64_t start_time_ms, uint64_t timeout_ms);

// Transfer time of data_len bytes at bandwidth megabits per second, doubled for an archive
// and doubled again when the object is to be cleaned. A bandwidth of 0 gives 0.
uint64_t fq_extra_timeout(size_t data_len, uint64_t bandwidth, const char* mimetype, bool clean);
// Whether mimetype (exact, case-sensitive, no parameters) is an archive type. Null gives false.
bool isArchive(const char* mimetype);
