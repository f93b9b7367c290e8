// fq-av-scan: the scan job it sends and what it makes of the worker's reply.
#pragma once

#include <json-c/json.h>
#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace fqscan {

inline constexpr const char* kDefaultServices = "fq-av-mimescan;fq-av-clamav";
inline constexpr int kDefaultScanTimeoutMs = 30000;
inline constexpr int kDefaultExtractDepth = 5;

// What the command line says about the policy; unset members leave the defaults (or the file's) alone.
struct PolicyOptions {
    std::string policy_file;
    std::string services;      // empty: unset
    int64_t timeout_ms = -1;   // SCANTIMEOUT
    int64_t max_size = -1;     // SCAN_MAX_SIZE
    int64_t depth = -1;        // SCANEXTRACT_DEPTH
};

// The defaults for every member the worker reads, the policy file's members over them, then the
// options over both. Null with the reason in *error when the file cannot be used or a member the
// worker insists on ends up empty.
json_object* build_policy(const PolicyOptions& opts, const std::string& hostname, std::string* error);

// How long to wait for the verdict: a little more than the job's own time budget.
int64_t reply_wait_ms(json_object* policy);

// The text of one job: the policy with the members of this object. kv_key may be null (empty object).
std::string job_text(json_object* policy, const std::string& object_name, size_t object_len,
                     const std::string& event_id, const char* kv_key);

// A fresh unique id for EventID.
std::string new_event_id();

enum class Verdict { Ok, Found, Blocked, Error };

struct Outcome {
    Verdict verdict = Verdict::Error;
    int rc = -1000;
    std::string reason;       // FOUND/BLOCKED: why; ERROR: what failed
    json_object* reply = nullptr;  // the parsed reply, when there was one that parsed (owned)

    Outcome() = default;
    Outcome(const Outcome&) = delete;
    Outcome& operator=(const Outcome&) = delete;
    Outcome(Outcome&& o) noexcept { *this = std::move(o); }
    Outcome& operator=(Outcome&& o) noexcept;
    ~Outcome();
};

Outcome error_outcome(const std::string& text);

// Reads a reply text. Anything that is not a well-formed scan reply with a known code is an
// error: a reply is never taken as clean unless it says so in the words of the wire.
Outcome interpret_reply(const char* text, size_t len);

// "OK", "<reason> FOUND", "<reason> BLOCKED", "ERROR <text>".
std::string verdict_text(const Outcome& o);

// One line per entry of the reply's Results, for --verbose: "<File-name>: <verdict> (<details>)".
std::vector<std::string> entry_lines(const Outcome& o);

}  // namespace fqscan
