// The persistent queue on disk: layout, limits, claims between threads and processes, stale claims.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "fq_pqueue.h"
#include "process_util.h"
#include "stderr_capture.h"

using fqtest::read_file;
using fqtest::write_file;
using Names = std::vector<std::string>;

namespace {

struct QueueDeleter {
    void operator()(fq_pqueue* q) const { fq_pqueue_close(q); }
};
using QueuePtr = std::unique_ptr<fq_pqueue, QueueDeleter>;

class PQueue : public ::testing::Test {
protected:
    QueuePtr open(size_t max_entries = 10000, size_t max_size = 50000000, fq_pqueue_full_behaviour mode = RINGBUFFER)
    {
        return QueuePtr(fq_pqueue_open(dir.path().c_str(), "t.pq", max_entries, max_size, O_CREAT, mode));
    }
    std::string data() const { return dir / "t.pq/data"; }
    Names entries() const { return fqtest::list_dir(data()); }
    void push(fq_pqueue* q, char prefix, const std::string& text)
    {
        ASSERT_EQ(fq_pqueue_push(q, prefix, text.data(), text.size()), 0) << text;
    }
    // Claims with the lock held, as the dispatcher does: the contents in claim order. The files are
    // deleted as if delivered, unless keep.
    Names claim(fq_pqueue* q, const char* filter, size_t max, bool keep = false)
    {
        Names got;
        if (fq_pqueue_lock(q) != 0)
            return got;
        fq_pqueue_data** batch = nullptr;
        const int n = fq_pqueue_claim_batch(q, filter, max, &batch);
        fq_pqueue_unlock(q);
        for (int i = 0; i < n; ++i) {
            EXPECT_EQ(fq_pqueue_data_read(batch[i]), 0);
            got.emplace_back(static_cast<char*>(batch[i]->data), batch[i]->datalen);
            EXPECT_EQ(std::string(batch[i]->id), data() + "/claimed_" + std::to_string(getpid()) + "_" +
                                                     std::string(batch[i]->restore_id).substr(data().size() + 1));
            if (!keep)
                unlink(batch[i]->id);
            fq_pqueue_data_free(batch[i]);
        }
        EXPECT_TRUE(n > 0 || batch == nullptr);
        free(batch);
        return got;
    }
    fqtest::TempDir dir;
};

TEST_F(PQueue, NewQueueLayoutAndAControlFileThatWinsOverTheCaller)
{
    ASSERT_TRUE(open());
    EXPECT_EQ(read_file(dir / "t.pq/control"), "10000\n50000000\n1\n");
    EXPECT_TRUE(entries().empty());
    const std::vector<std::pair<std::string, unsigned>> modes = {
        {dir / "t.pq", 0770u}, {data(), 0770u}, {dir / "t.pq/control", 0666u}};
    for (const auto& [path, mode] : modes) {
        struct stat st;
        ASSERT_EQ(stat(path.c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, mode) << path;
    }
    EXPECT_EQ(open(5, 10, FAIL)->max_elements, 10000u);

    // Values that would refuse every entry are not taken: the caller's limits stand.
    write_file(dir / "t.pq/control", "0\nlots\n1\n");
    fqtest::StderrCapture err;
    EXPECT_EQ(open(7, 70, FAIL)->max_elements, 7u);
    EXPECT_TRUE(err.contains("Failed to read controlfile"));
    // A lost control file comes back with the caller's limits, and with it the lock.
    ASSERT_EQ(unlink((dir / "t.pq/control").c_str()), 0);
    QueuePtr lost = open(8, 80, FAIL);
    EXPECT_EQ(read_file(dir / "t.pq/control"), "8\n80\n2\n");
    EXPECT_EQ(fq_pqueue_lock(lost.get()), 0);

    write_file(dir / "plain", "in the way");
    EXPECT_EQ(fq_pqueue_open(dir.path().c_str(), "plain", 1, 1, O_CREAT, FAIL), nullptr);
    EXPECT_TRUE(err.contains("not writable")) << err.text();
    EXPECT_EQ(fq_pqueue_open(dir.path().c_str(), "x.pq", 1, 1, O_CREAT | O_APPEND, FAIL), nullptr);
}

TEST_F(PQueue, PushWritesOneWholeFilePerEntryNamedByKind)
{
    QueuePtr q = open();
    push(q.get(), 'L', "{\"a\": 1}");
    push(q.get(), 'E', "{\"b\": 2}");
    EXPECT_EQ(fq_pqueue_push(q.get(), 'L', "x", 0), -1);
    EXPECT_EQ(fq_pqueue_push(q.get(), 'L', nullptr, 3), -1);
    const std::string big(FQ_PQUEUE_MAX_ENTRY_BYTES + 1, 'x');
    EXPECT_EQ(fq_pqueue_push(q.get(), 'L', big.data(), big.size()), -1);
    const Names names = entries();
    ASSERT_EQ(names.size(), 2u);
    const std::regex form("[EL][0-9a-f]{8}-[0-9a-f]{4}-1[0-9a-f]{3}-[0-9a-f]{4}-[0-9a-f]{12}\\.dat");
    for (const auto& n : names)
        EXPECT_TRUE(std::regex_match(n, form)) << n;
    EXPECT_EQ(read_file(data() + "/" + names[0]), "{\"b\": 2}");
    EXPECT_EQ(read_file(data() + "/" + names[1]), "{\"a\": 1}");
    EXPECT_EQ(fq_pqueue_purge(q.get()), 0);
    EXPECT_TRUE(entries().empty());
}

// Both values of the full behaviour refuse new entries; nothing is dropped to make room.
TEST_F(PQueue, FullQueueRefusesByCountAndBytesAndTakesEntriesOnceEmptied)
{
    for (fq_pqueue_full_behaviour mode : {RINGBUFFER, FAIL}) {
        SCOPED_TRACE(mode);
        ASSERT_EQ(system(("rm -rf " + dir / "t.pq").c_str()), 0);
        QueuePtr q = open(3, 100, mode);
        push(q.get(), 'L', "1");
        push(q.get(), 'E', "2");
        ASSERT_EQ(claim(q.get(), "E", 1, true).size(), 1u);  // a claimed entry still takes room
        push(q.get(), 'L', "3");
        fqtest::StderrCapture err;
        EXPECT_EQ(fq_pqueue_push(q.get(), 'L', "4", 1), -1);
        EXPECT_TRUE(err.contains("Queue full: 3 Elements (max 3)")) << err.text();
        EXPECT_EQ(entries().size(), 3u);

        // Removed by whoever delivered them: the next push sees the room at once.
        ASSERT_EQ(claim(q.get(), "L", 10).size(), 2u);
        push(q.get(), 'L', std::string(90, 'x'));
        EXPECT_EQ(fq_pqueue_push(q.get(), 'L', "0123456789", 10), -1);
        EXPECT_TRUE(err.contains("bytes (max 100)")) << err.text();
        EXPECT_EQ(fq_pqueue_push(q.get(), 'L', "012345678", 9), 0);
    }
}

TEST_F(PQueue, ClaimTakesTheOldestOfTheFilteredKindsOnly)
{
    QueuePtr q = open();
    for (int i = 0; i < 6; ++i)
        push(q.get(), i % 2 ? 'E' : 'L', std::to_string(i));
    write_file(data() + "/X-not-a-kind.dat", "x");
    write_file(data() + "/temp_Lhalf.dat", "x");
    EXPECT_EQ(claim(q.get(), "L", 2), (Names{"0", "2"}));
    EXPECT_EQ(claim(q.get(), "LE", 3, true), (Names{"1", "3", "4"}));
    EXPECT_EQ(fq_pqueue_pending(q.get(), "LE"), 4) << "claimed by this process, not yet delivered";
    EXPECT_EQ(claim(q.get(), "LE", 10), (Names{"5"}));
    ASSERT_EQ(system(("rm -f " + data() + "/claimed_*").c_str()), 0);
    EXPECT_TRUE(claim(q.get(), "LE", 10).empty());
    EXPECT_EQ(entries(), (Names{"X-not-a-kind.dat", "temp_Lhalf.dat"}));
}

TEST_F(PQueue, ClaimersOnTheirOwnDescriptorsNeverShareAnEntry)
{
    QueuePtr q = open();
    constexpr int kEntries = 1200;
    for (int i = 0; i < kEntries; ++i)
        push(q.get(), i % 3 ? 'L' : 'E', std::to_string(i));

    // Another process finds the lock taken and does not wait for it.
    ASSERT_EQ(fq_pqueue_lock(q.get()), 0);
    const pid_t child = fork();
    if (child == 0) {
        fq_pqueue* other = fq_pqueue_open(dir.path().c_str(), "t.pq", 1, 1, O_CREAT, FAIL);
        _exit(other && fq_pqueue_lock(other) == -1 ? 0 : 1);
    }
    int status = -1;
    ASSERT_TRUE(fqtest::wait_exit(child, std::chrono::seconds(20), &status));
    EXPECT_EQ(status, 0);
    fq_pqueue_unlock(q.get());

    std::mutex mu;
    std::multiset<std::string> seen;
    std::vector<std::thread> claimers;
    for (int t = 0; t < 4; ++t) {
        claimers.emplace_back([&] {
            QueuePtr mine = open();
            while (fq_pqueue_pending(mine.get(), "LE") > 0) {
                const Names got = claim(mine.get(), "LE", 16);
                std::lock_guard<std::mutex> lock(mu);
                seen.insert(got.begin(), got.end());
            }
        });
    }
    for (auto& c : claimers)
        c.join();
    ASSERT_EQ(seen.size(), static_cast<size_t>(kEntries));
    for (int i = 0; i < kEntries; ++i)
        EXPECT_EQ(seen.count(std::to_string(i)), 1u) << i;
    EXPECT_TRUE(entries().empty());
}

TEST_F(PQueue, StaleSweepReturnsOldClaimsOnlyAndRemovesAbandonedTemporaries)
{
    QueuePtr q = open();
    const std::string uuid = "0d8e6a3c-c4b1-11f1-9a2e-0242ac120002.dat";
    const std::vector<std::pair<std::string, int>> files = {
        {"claimed_999_L" + uuid, 7200}, {"claimed_999_E" + uuid, 60},  // its process may be gone: still too young
        {"claimed_abc_L1.dat", 7200},   {"claimed_12_X1.dat", 7200},
        {"temp_L" + uuid, 7200},        {"temp_E" + uuid, 60}};
    for (const auto& [name, age_s] : files) {
        write_file(data() + "/" + name, "{}");
        struct timeval tv[2];
        gettimeofday(&tv[0], nullptr);
        tv[0].tv_sec -= age_s;
        tv[1] = tv[0];
        ASSERT_EQ(utimes((data() + "/" + name).c_str(), tv), 0);
    }
    // Another holder of the lock: the sweep is skipped for now.
    QueuePtr other = open();
    ASSERT_EQ(fq_pqueue_lock(other.get()), 0);
    EXPECT_EQ(fq_pqueue_reclaim_stale_claims(q.get(), 3600), 0);
    fq_pqueue_unlock(other.get());

    fqtest::StderrCapture err;
    EXPECT_EQ(fq_pqueue_reclaim_stale_claims(q.get(), 3600), 1);
    EXPECT_EQ(entries(), (Names{"L" + uuid, "claimed_12_X1.dat", "claimed_999_E" + uuid, "claimed_abc_L1.dat",
                                "temp_E" + uuid}));
    EXPECT_TRUE(err.contains("Cannot parse claim filename 'claimed_abc_L1.dat'; leaving in place"));
    EXPECT_TRUE(err.contains("Cannot parse claim filename 'claimed_12_X1.dat'; leaving in place"));
    EXPECT_TRUE(err.contains("Re-entered 1 stale claimed queue entry into the dispatch pool"));
}

TEST_F(PQueue, ReadLoadsContentWithANulAndRefusesOversizedFiles)
{
    ASSERT_TRUE(open());
    std::string path = data() + "/Lentry.dat";
    fq_pqueue_data e{};
    e.id = path.data();
    for (const std::string& content : {std::string(), std::string("{\"k\": 1}")}) {
        write_file(path, content);
        ASSERT_EQ(fq_pqueue_data_read(&e), 0);
        EXPECT_EQ(e.datalen, content.size());
        EXPECT_STREQ(static_cast<char*>(e.data), content.c_str());
    }
    write_file(path, std::string(FQ_PQUEUE_MAX_ENTRY_BYTES + 1, 'x'));
    EXPECT_EQ(fq_pqueue_data_read(&e), -1);
    EXPECT_EQ(e.data, nullptr);
}

}  // namespace
