// The queue series of fq-av-bench: how fast records go into the persistent queue, how fast the
// log dispatcher empties it into sinks on the broker, and the load a busy dispatcher puts on the
// worker's scans. Not a test: nothing here decides pass or fail of a build.
#include "bench_queue.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "fq_log.h"
#include "fq_raii.h"
#include "nats_server.h"
#include "process_util.h"

namespace fqbench {

namespace {

using s_clock = std::chrono::steady_clock;
const char s_queue_name[] = "fq-av-scanproxy.pq";

fq_pqueue* s_open(const std::string& rundir)
{
    return fq_pqueue_open(rundir.c_str(), s_queue_name, FQ_LOG_QUEUE_MAX_ELEMENTS, FQ_LOG_QUEUE_MAX_SIZE, O_CREAT,
                          RINGBUFFER);
}

}  // namespace

std::string queue_sample_record()
{
    fq_json_ptr record(fq_log_create_message());
    json_object* data = json_object_new_object();
    json_object_object_add(data, "Message",
                           json_object_new_string("Scan proxy worker, PID 4242 ready with 50 threads"));
    fq_log_add_log_section(record.get(), "StatusLog", nullptr, data);
    return json_object_to_json_string_ext(record.get(), JSON_C_TO_STRING_PLAIN);
}

double queue_push_rate(const std::string& dir, int threads, int count, const std::string& record)
{
    mkdir(dir.c_str(), 0755);
    fq_pqueue* q = s_open(dir);
    if (!q)
        return 0;
    std::atomic<int> failed{0};
    const auto t0 = s_clock::now();
    std::vector<std::thread> pushers;
    for (int t = 0; t < threads; ++t) {
        pushers.emplace_back([&, t] {
            for (int i = t; i < count; i += threads)
                if (fq_pqueue_push(q, i % 2 ? 'E' : 'L', record.data(), record.size()) != 0)
                    ++failed;
        });
    }
    for (auto& p : pushers)
        p.join();
    const double s = std::chrono::duration<double>(s_clock::now() - t0).count();
    fq_pqueue_close(q);
    return failed ? 0 : count / s;
}

double queue_delivery_rate(const std::string& rundir, fq_connection_config* cfg, natsConnection* peer, int count,
                           const std::string& record)
{
    fq_pqueue* q = s_open(rundir);
    if (!q)
        return 0;
    for (int i = 0; i < count; ++i)
        fq_pqueue_push(q, i % 2 ? 'E' : 'L', record.data(), record.size());
    auto ok = [](const std::string&) { return std::optional<std::string>("{\"ReturnCode\": 0}"); };
    fqtest::Responder logs(peer, "fq-av-log", ok);
    fqtest::Responder events(peer, "fq-av-events-dispatch", ok);
    const auto t0 = s_clock::now();
    fq_log_thread_param_t* dispatcher = fq_log_create_log_dispatcher(rundir.c_str(), cfg);
    const bool all = dispatcher && fqtest::wait_until([&] { return logs.count() + events.count() >= count; },
                                                    std::chrono::seconds(60));
    const double s = std::chrono::duration<double>(s_clock::now() - t0).count();
    if (dispatcher && fq_log_stop_log_dispatcher(dispatcher, 10000) == 0)
        fq_log_free_log_dispatcher(&dispatcher);
    fq_pqueue_purge(q);
    fq_pqueue_close(q);
    return all ? count / s : 0;
}

int queue_fill(const std::string& rundir, const std::string& record, int count)
{
    fq_pqueue* q = s_open(rundir);
    if (!q)
        return 0;
    // Under the claim lock, so that the dispatcher starts on the whole backlog at once.
    while (fq_pqueue_lock(q) != 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    int pushed = 0;
    for (int i = 0; i < count; ++i)
        pushed += fq_pqueue_push(q, i % 2 ? 'E' : 'L', record.data(), record.size()) == 0;
    fq_pqueue_unlock(q);
    fq_pqueue_close(q);
    return pushed;
}

int queue_depth(const std::string& rundir)
{
    int n = 0;
    for (const std::string& name : fqtest::list_dir(rundir + "/" + s_queue_name + "/data"))
        n += name[0] == 'L' || name[0] == 'E' || name.rfind("claimed_", 0) == 0;
    return n;
}

}  // namespace fqbench
