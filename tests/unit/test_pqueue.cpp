// The persistent queue on disk: layout, limits, claims between threads and processes, stale claims.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "fq_pqueue.h"
#include "process_util.h"
#include "stderr_capture.h"

using fqtest::list_dir;
using fqtest::read_file;
using fqtest::write_file;

namespace {

struct QueueDeleter {
    void operator()(fq_pqueue* q) const { fq_pqueue_close(q); }
};
using QueuePtr = std::unique_ptr<fq_pqueue, QueueDeleter>;

class PQueue : public ::testing::Test {
protected:
    QueuePtr open(size_t max_entries = 10000, size_t max_size = 50000000,
                  fq_pqueue_full_behaviour if_full = RINGBUFFER, int flags = O_CREAT)
    {
        return QueuePtr(fq_pqueue_open(dir.path().c_str(), "t.pq", max_entries, max_size, flags, if_full));
    }
    std::string data() const { return dir / "t.pq/data"; }
    std::vector<std::string> entries() const { return list_dir(data()); }
    void push(fq_pqueue* q, char prefix, const std::string& text)
    {
        ASSERT_EQ(fq_pqueue_push(q, prefix, text.data(), text.size()), 0) << text;
    }
    // Claims with the lock held, as the dispatcher does; the contents in claim order.
    std::vector<std::string> claim(fq_pqueue* q, const char* filter, size_t max, bool unlink_them = true)
    {
        std::vector<std::string> got;
        if (fq_pqueue_lock(q) != 0)
            return got;
        fq_pqueue_data** batch = nullptr;
        const int n = fq_pqueue_claim_batch(q, filter, max, &batch);
        fq_pqueue_unlock(q);
        if (n <= 0) {
            EXPECT_EQ(batch, nullptr);
        }
        for (int i = 0; i < n; ++i) {
            EXPECT_EQ(fq_pqueue_data_read(batch[i]), 0);
            got.emplace_back(static_cast<char*>(batch[i]->data), batch[i]->datalen);
            if (unlink_them)
                unlink(batch[i]->id);
            fq_pqueue_data_free(batch[i]);
        }
        free(batch);
        return got;
    }
    fqtest::TempDir dir;
};

TEST_F(PQueue, NewQueueLayoutAndAControlFileThatWinsOverTheCaller)
{
    {
        QueuePtr q = open();
        ASSERT_TRUE(q);
        EXPECT_EQ(read_file(dir / "t.pq/control"), "10000\n50000000\n1\n");
        EXPECT_TRUE(entries().empty());
        struct stat st;
        ASSERT_EQ(stat((dir / "t.pq").c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0770u);
        ASSERT_EQ(stat(data().c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0770u);
        ASSERT_EQ(stat((dir / "t.pq/control").c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 07777, 0666u);
    }
    QueuePtr again = open(5, 10, FAIL);
    ASSERT_TRUE(again);
    EXPECT_EQ(again->max_elements, 10000u);
    EXPECT_EQ(again->max_size, 50000000u);
    EXPECT_EQ(again->if_full, RINGBUFFER);
    again.reset();

    // Values that would refuse every entry are not taken: the caller's limits stand.
    write_file(dir / "t.pq/control", "0\nlots\n1\n");
    fqtest::StderrCapture err;
    QueuePtr bad = open(7, 70, FAIL);
    ASSERT_TRUE(bad);
    EXPECT_EQ(bad->max_elements, 7u);
    EXPECT_TRUE(err.contains("Failed to read controlfile"));
    bad.reset();

    // A lost control file comes back with the caller's limits, and with it the lock.
    ASSERT_EQ(unlink((dir / "t.pq/control").c_str()), 0);
    QueuePtr lost = open(8, 80, FAIL);
    EXPECT_EQ(read_file(dir / "t.pq/control"), "8\n80\n2\n");
    EXPECT_EQ(fq_pqueue_lock(lost.get()), 0);
}

TEST_F(PQueue, PathThatIsAPlainFileIsNotWritable)
{
    write_file(dir / "t.pq", "in the way");
    fqtest::StderrCapture err;
    EXPECT_FALSE(open());
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
    const auto names = entries();
    ASSERT_EQ(names.size(), 2u);
    const std::regex form("[EL][0-9a-f]{8}-[0-9a-f]{4}-1[0-9a-f]{3}-[0-9a-f]{4}-[0-9a-f]{12}\\.dat");
    for (const auto& n : names)
        EXPECT_TRUE(std::regex_match(n, form)) << n;
    EXPECT_EQ(read_file(data() + "/" + names[0]), "{\"b\": 2}");
    EXPECT_EQ(read_file(data() + "/" + names[1]), "{\"a\": 1}");
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
        // A claimed entry still takes room.
        ASSERT_EQ(claim(q.get(), "E", 1, false).size(), 1u);
        push(q.get(), 'L', "3");
        fqtest::StderrCapture err;
        EXPECT_EQ(fq_pqueue_push(q.get(), 'L', "4", 1), -1);
        EXPECT_TRUE(err.contains("Queue full: 3 Elements (max 3)")) << err.text();
        EXPECT_EQ(entries().size(), 3u);

        // Removed by whoever delivered it: the next push sees the room at once.
        ASSERT_EQ(claim(q.get(), "L", 10).size(), 2u);
        const std::string big(90, 'x');
        push(q.get(), 'L', big);
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
    EXPECT_EQ(claim(q.get(), "L", 2), (std::vector<std::string>{"0", "2"}));

    ASSERT_EQ(fq_pqueue_lock(q.get()), 0);
    fq_pqueue_data** batch = nullptr;
    ASSERT_EQ(fq_pqueue_claim_batch(q.get(), "LE", 10, &batch), 4);
    fq_pqueue_unlock(q.get());
    EXPECT_EQ(batch[0]->prefix, 'E');
    EXPECT_EQ(std::string(batch[0]->id), data() + "/claimed_" + std::to_string(getpid()) + "_" +
                                             std::string(batch[0]->restore_id).substr(data().size() + 1));
    EXPECT_EQ(fq_pqueue_pending(q.get(), "LE"), 4) << "claimed by this process, not yet delivered";
    for (int i = 0; i < 4; ++i)
        fq_pqueue_data_free(batch[i]);
    free(batch);
    ASSERT_EQ(system(("rm -f " + data() + "/claimed_*").c_str()), 0);
    EXPECT_TRUE(claim(q.get(), "LE", 10).empty());
    EXPECT_EQ(entries(), (std::vector<std::string>{"X-not-a-kind.dat", "temp_Lhalf.dat"}));
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
                const auto got = claim(mine.get(), "LE", 16);
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
    auto file = [&](const std::string& name, int age_s) {
        const std::string path = data() + "/" + name;
        write_file(path, "{}");
        struct timeval tv[2];
        gettimeofday(&tv[0], nullptr);
        tv[0].tv_sec -= age_s;
        tv[1] = tv[0];
        utimes(path.c_str(), tv);
    };
    const std::string uuid = "0d8e6a3c-c4b1-11f1-9a2e-0242ac120002.dat";
    file("claimed_999_L" + uuid, 7200);
    file("claimed_999_E" + uuid, 60);  // its process may be gone: still too young
    file("claimed_abc_L1.dat", 7200);
    file("claimed_12_X1.dat", 7200);
    file("temp_L" + uuid, 7200);
    file("temp_E" + uuid, 60);

    // Another holder of the lock: the sweep is skipped for now.
    QueuePtr other = open();
    ASSERT_EQ(fq_pqueue_lock(other.get()), 0);
    EXPECT_EQ(fq_pqueue_reclaim_stale_claims(q.get(), 3600), 0);
    fq_pqueue_unlock(other.get());

    fqtest::StderrCapture err;
    EXPECT_EQ(fq_pqueue_reclaim_stale_claims(q.get(), 3600), 1);
    EXPECT_EQ(entries(), (std::vector<std::string>{"L" + uuid, "claimed_12_X1.dat", "claimed_999_E" + uuid,
                                                   "claimed_abc_L1.dat", "temp_E" + uuid}));
    EXPECT_TRUE(err.contains("Cannot parse claim filename 'claimed_abc_L1.dat'; leaving in place"));
    EXPECT_TRUE(err.contains("Cannot parse claim filename 'claimed_12_X1.dat'; leaving in place"));
    EXPECT_TRUE(err.contains("Re-entered 1 stale claimed queue entry into the dispatch pool"));
}

TEST_F(PQueue, ReadLoadsContentWithANulAndRefusesOversizedFiles)
{
    QueuePtr q = open();
    fq_pqueue_data e{};
    std::string path = data() + "/Lempty.dat";
    e.id = path.data();
    write_file(path, "");
    EXPECT_EQ(fq_pqueue_data_read(&e), 0);
    EXPECT_EQ(e.datalen, 0u);
    write_file(path, "{\"k\": 1}");
    ASSERT_EQ(fq_pqueue_data_read(&e), 0);
    EXPECT_STREQ(static_cast<char*>(e.data), "{\"k\": 1}");
    write_file(path, std::string(FQ_PQUEUE_MAX_ENTRY_BYTES + 1, 'x'));
    EXPECT_EQ(fq_pqueue_data_read(&e), -1);
    EXPECT_EQ(e.data, nullptr);
    EXPECT_EQ(fq_pqueue_push(q.get(), 'L', std::string(FQ_PQUEUE_MAX_ENTRY_BYTES + 1, 'x').c_str(),
                             FQ_PQUEUE_MAX_ENTRY_BYTES + 1),
              -1);

    push(q.get(), 'L', "1");
    EXPECT_EQ(fq_pqueue_purge(q.get()), 0);
    EXPECT_TRUE(entries().empty());
    EXPECT_EQ(read_file(dir / "t.pq/control"), "10000\n50000000\n1\n");
}

}  // namespace
