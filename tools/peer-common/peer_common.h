// What the reference peers have in common: the command line, the start against the broker with a
// bounded wait, serving one subject in a queue group with several threads, and the orderly stop.
#pragma once

#include <json-c/json.h>
#include <signal.h>
#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <string>
#include <vector>

#include "fq_connection_client.h"
#include "fq_raii.h"
#include "fq_request_reply_types.h"

// Exit statuses of every peer.
enum {
    PEER_EXIT_OK = 0,          // orderly stop, or --help
    PEER_EXIT_USAGE = 1,       // the command line or the local set-up is wrong
    PEER_EXIT_BROKER = 2,      // the broker could not be reached or refused us at start
    PEER_EXIT_CONN_LOST = 3,   // the connection closed for good while serving
};

struct peer_options_t {
    std::string broker = "nats://127.0.0.1:4222";
    std::string user;
    std::string password;
    std::string ca_file;
    int threads = 4;
    int64_t wait_ms = 10000;
    int log_level = 4;  // FQLOG_INFO
};

// An option of one program, beside the common ones. apply gets the value (null for a flag) and
// says whether it is acceptable.
struct peer_option_t {
    const char* name;
    const char* arg;  // placeholder shown in --help; null for a flag
    const char* help;
    std::function<bool(const char* value)> apply;
};

struct peer_program_t {
    const char* name;         // program name, also in every log line
    const char* synopsis;     // what follows "Usage: <name> " in --help
    const char* description;  // what it serves and what it answers
    std::vector<peer_option_t> options;
};

// Reads the command line into opts (and through the program's own options). -1 to go on, or
// the status to exit with: 0 after --help, PEER_EXIT_USAGE for a usage error (already reported).
int peer_parse_command_line(int argc, char** argv, const peer_program_t& program, peer_options_t* opts);

struct peer_service_t {
    std::string subject;
    fq_request_handler_f_t handler;
    void* context;
    bool needs_jetstream;  // objects arrive staged in the KV store
};

// Connects (waiting up to opts.wait_ms for the broker), serves the subject with opts.threads
// threads until SIGTERM or SIGINT, then stops in order. Returns the exit status.
int peer_serve(const peer_program_t& program, const peer_options_t& opts, const peer_service_t& service);

// The steps of peer_serve, for a program that serves something else than a subject.
// Sets the log level and the stop signals, waits for the broker and connects: -1 with the record
// in *cfg to go on, or the status to exit with (already reported).
int peer_connect(const peer_program_t& program, const peer_options_t& opts, bool needs_jetstream,
                 fq_connection_config** cfg);
// Until SIGTERM, SIGINT or the connection's closing for good; status, or PEER_EXIT_CONN_LOST.
int peer_wait_for_stop(const peer_program_t& program, fq_connection_config* cfg, int status);
// Closes the connection and frees the record; null is ignored.
void peer_disconnect(fq_connection_config* cfg);

// Set by SIGTERM and SIGINT; the serving threads look at it between requests.
extern fq_stop_flag_t peer_stop;

// "1500ms", "30s", "30" (seconds), "2m", "1h", "7d" in milliseconds; false for anything else.
bool peer_parse_duration_ms(const char* text, int64_t* out);
bool peer_parse_int(const char* text, int64_t min, int64_t max, int64_t* out);

// The request text as a JSON object; null if it is not exactly one JSON object (trailing
// white space aside).
json_object* peer_parse_object(const char* text);
// "Command" of a request, or -1 without one.
int peer_read_command(json_object* request);
// Leaves obj's compact text as the reply; false if it could not be made.
bool peer_set_reply(fq_const_request_reply_t* rr, json_object* obj);
// {"ReturnCode": code, "Error": text, ...}, logged at ERROR level.
void peer_set_error(fq_const_request_reply_t* rr, int code, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
