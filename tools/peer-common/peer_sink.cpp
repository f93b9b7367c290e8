// The record sinks fq-av-log and fq-av-events-dispatch: one program, built once per subject
// (FQ_SINK_NAME). Each record a worker delivers is appended to a file as one line of compact
// JSON; a request that is no JSON object is answered -1 and not written. A record whose EventID
// was written already (a delivery repeated after a lost acknowledgement) is answered 0 and not
// written again, also across a restart of the sink.
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <deque>
#include <mutex>
#include <atomic>
#include <string>
#include <unordered_set>

#include "fq_request_reply_types.h"
#include "fqhlp_replies.h"
#include "log.h"
#include "peer_common.h"

#ifndef FQ_SINK_NAME
#error "FQ_SINK_NAME names the program and the subject it serves"
#endif
#ifndef FQ_SINK_WHAT
#define FQ_SINK_WHAT "records"
#endif

namespace {

std::string s_path;
// One writer at a time, so that lines never interleave; the descriptor is swapped under it too.
std::mutex s_write_mu;
int s_fd = -1;
// Set by SIGHUP, taken by whichever serving thread writes next.
std::atomic<int> s_reopen{0};

// EventIDs written lately, oldest first in s_seen_order; under s_write_mu.
constexpr size_t s_seen_max = 100000;
// At start the EventIDs of the file's last this many bytes are read back.
constexpr off_t s_seen_tail_bytes = 16 << 20;
std::unordered_set<std::string> s_seen;
std::deque<std::string> s_seen_order;

void s_remember(const std::string& id)
{
    if (id.empty() || !s_seen.insert(id).second)
        return;
    s_seen_order.push_back(id);
    if (s_seen_order.size() > s_seen_max) {
        s_seen.erase(s_seen_order.front());
        s_seen_order.pop_front();
    }
}

std::string s_event_id(json_object* record)
{
    json_object* id = nullptr;
    if (!json_object_object_get_ex(record, "EventID", &id) || !json_object_is_type(id, json_type_string))
        return "";
    return json_object_get_string(id);
}

// The records a previous run of the sink wrote are known again after a restart.
void s_load_seen(int fd)
{
    struct stat st;
    if (fstat(fd, &st) != 0 || st.st_size == 0)
        return;
    const off_t from = st.st_size > s_seen_tail_bytes ? st.st_size - s_seen_tail_bytes : 0;
    std::string tail(static_cast<size_t>(st.st_size - from), '\0');
    const ssize_t got = pread(fd, tail.data(), tail.size(), from);
    if (got <= 0)
        return;
    tail.resize(static_cast<size_t>(got));
    size_t pos = 0;
    if (from > 0)
        pos = tail.find('\n') == std::string::npos ? tail.size() : tail.find('\n') + 1;  // a cut first line
    while (pos < tail.size()) {
        size_t end = tail.find('\n', pos);
        if (end == std::string::npos)
            end = tail.size();
        fq_json_ptr record(peer_parse_object(tail.substr(pos, end - pos).c_str()));
        if (record)
            s_remember(s_event_id(record.get()));
        pos = end + 1;
    }
}

void s_on_hangup(int)
{
    s_reopen = 1;
}

int s_open_file(std::string* error)
{
    const int fd = open(s_path.c_str(), O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, 0640);
    if (fd < 0)
        *error = "cannot open " + s_path + ": " + strerror(errno);
    return fd;
}

// After a rotation (SIGHUP) the file is opened anew; the old descriptor stays if that fails.
void s_reopen_if_asked()
{
    if (!s_reopen.exchange(0))
        return;
    std::string error;
    const int fd = s_open_file(&error);
    if (fd < 0) {
        log_error("%s; still writing to the file opened before", error.c_str());
        return;
    }
    close(s_fd);
    s_fd = fd;
    log_info("Reopened %s", s_path.c_str());
}

bool s_append_line(const std::string& line, const std::string& id, std::string* error)
{
    std::lock_guard<std::mutex> lock(s_write_mu);
    if (!id.empty() && s_seen.count(id))
        return true;
    s_reopen_if_asked();
    const off_t before = lseek(s_fd, 0, SEEK_END);
    size_t done = 0;
    while (done < line.size()) {
        const ssize_t w = write(s_fd, line.data() + done, line.size() - done);
        if (w < 0 && errno == EINTR)
            continue;
        if (w <= 0) {
            *error = "cannot write " + s_path + ": " + strerror(w < 0 ? errno : EIO);
            // A line cut short would glue itself to the next record.
            if (done > 0 && before >= 0 && ftruncate(s_fd, before) != 0)
                log_error("cannot cut the partial line from %s: %s", s_path.c_str(), strerror(errno));
            return false;
        }
        done += (size_t)w;
    }
    s_remember(id);
    return true;
}

// {"Command": 3} and nothing else is a liveness probe, not a record.
bool s_is_ping(json_object* obj)
{
    return json_object_object_length(obj) == 1 && peer_read_command(obj) == PING_SERVICE;
}

int s_sink_handler(void* context, fq_const_request_reply_t* rr)
{
    (void)context;
    if (!rr || !rr->reply)
        return -1;
    fq_json_ptr record(rr->request ? peer_parse_object(rr->request->json_txt) : nullptr);
    if (!record) {
        peer_set_error(rr, -1, "Request is not a JSON object; not written");
        return -1;
    }
    if (s_is_ping(record.get()))
        return fq_reply_set_OK(&rr->reply->json_txt);
    // json-c escapes line breaks inside strings, so the plain form is exactly one line.
    std::string line =
        json_object_to_json_string_ext(record.get(), JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
    line += '\n';
    std::string error;
    if (!s_append_line(line, s_event_id(record.get()), &error)) {
        // The sender keeps a record that was not answered 0 and delivers it again.
        peer_set_error(rr, -1, "%s", error.c_str());
        return -1;
    }
    return fq_reply_set_OK(&rr->reply->json_txt);
}

}  // namespace

int main(int argc, char** argv)
{
    peer_program_t program{
        FQ_SINK_NAME,
        "--file PATH [options]",
        "Serves " FQ_SINK_NAME " in its queue group and appends each of the " FQ_SINK_WHAT " it is sent to\n"
        "PATH as one line of compact JSON, answering {\"ReturnCode\": 0}. A request that is not a JSON\n"
        "object is answered {\"ReturnCode\": -1, \"Error\": ...} and not written; so is a record that\n"
        "cannot be written. {\"Command\": 3} alone is a ping: answered 0, not written. A record whose\n"
        "EventID is in PATH already is answered 0 and not written again. SIGHUP reopens PATH (after a\n"
        "rotation).",
        {
            {"file", "PATH", "file the records are appended to; created (mode 0640) if missing (required)",
             [](const char* v) {
                 s_path = v;
                 return !s_path.empty();
             }},
        },
    };
    peer_options_t opts;
    const int rc = peer_parse_command_line(argc, argv, program, &opts);
    if (rc >= 0)
        return rc;
    if (s_path.empty()) {
        fprintf(stderr, "%s: --file is required (see --help)\n", program.name);
        return PEER_EXIT_USAGE;
    }
    std::string error;
    s_fd = s_open_file(&error);
    if (s_fd < 0) {
        fprintf(stderr, "%s: %s\n", program.name, error.c_str());
        return PEER_EXIT_USAGE;
    }
    s_load_seen(s_fd);
    struct sigaction sa;
    memset(&sa, 0, sizeof(sa));
    sa.sa_handler = s_on_hangup;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGHUP, &sa, nullptr);

    // The descriptor stays open to the end of the process: a thread still busy when the stop
    // gives up waiting may be writing.
    return peer_serve(program, opts, {FQ_SINK_NAME, s_sink_handler, nullptr, false});
}
