#include <gtest/gtest.h>

#include <signal.h>

#include <vector>

#include "fq_worker.h"

namespace {

struct Threads {
    std::vector<fq_worker_thread_t> records;
    zlist_t* list = zlist_new();

    explicit Threads(int n) : records(static_cast<size_t>(n))
    {
        for (auto& r : records) {
            r.currentstatus = READY;
            zlist_append(list, &r);
        }
    }
    ~Threads() { zlist_destroy(&list); }
    void busy(int n)
    {
        for (size_t i = 0; i < records.size(); ++i)
            records[i].currentstatus = static_cast<int>(i) < n ? BUSY : READY;
    }
};

TEST(Load, FirstFigureAfterTheArrayHasFilled)
{
    Threads t(4);
    t.busy(4);
    std::vector<int> samples(6);
    fqctrl_initialize_load_sample_array(samples.data(), 6);
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(-1, fqworker_get_load(t.list, 6, samples.data())) << i;
    EXPECT_EQ(100, fqworker_get_load(t.list, 6, samples.data()));
    t.busy(0);
    // The window moves on by one sample per call.
    EXPECT_EQ(83, fqworker_get_load(t.list, 6, samples.data()));
}

TEST(Load, SampleIsIntegerPercentage)
{
    Threads t(8);
    t.busy(3);
    std::vector<int> samples(2, -1);
    fqworker_get_load(t.list, 2, samples.data());
    EXPECT_EQ(37, samples[1]);
    EXPECT_EQ(37, fqworker_get_load(t.list, 2, samples.data()));
}

TEST(Load, NoThreadsGiveNoFigure)
{
    zlist_t* empty = zlist_new();
    std::vector<int> samples(2, 0);
    EXPECT_EQ(-1, fqworker_get_load(empty, 2, samples.data()));
    zlist_destroy(&empty);
}

TEST(Load, TerminateMarksEveryRecordAndKeepsThem)
{
    Threads t(3);
    zlist_t* list = zlist_dup(t.list);
    fq_worker_terminate_all_threads(list);
    for (const auto& r : t.records)
        EXPECT_EQ(TERMINATED, r.targetstatus);
}

TEST(Signals, HandlerOnlySetsTheStopFlag)
{
    killed = 0;
    sigterm_handler_fn(SIGTERM);
    EXPECT_EQ(1, killed);
    sigterm_handler_fn(SIGINT);
    EXPECT_EQ(1, killed);
    killed = 0;
}

}  // namespace
