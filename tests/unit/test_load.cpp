#include <gtest/gtest.h>

#include <vector>

#include "fq_worker.h"

namespace {

struct Threads {
    std::vector<fq_worker_thread_t> records;
    zlist_t* list = zlist_new();

    explicit Threads(int n) : records(static_cast<size_t>(n))
    {
        for (auto& r : records)
            zlist_append(list, &r);
    }
    ~Threads() { zlist_destroy(&list); }
    void busy(int n)
    {
        for (size_t i = 0; i < records.size(); ++i)
            records[i].currentstatus = static_cast<int>(i) < n ? BUSY : READY;
    }
};

TEST(Load, FiguresComeOnceTheWindowHasFilledAndMoveOnBySamples)
{
    Threads t(4);
    t.busy(4);
    std::vector<int> samples(6);
    fqctrl_initialize_load_sample_array(samples.data(), 6);
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(-1, fqworker_get_load(t.list, 6, samples.data())) << i;
    EXPECT_EQ(100, fqworker_get_load(t.list, 6, samples.data()));
    t.busy(0);
    EXPECT_EQ(83, fqworker_get_load(t.list, 6, samples.data()));

    // A sample is the integer percentage of busy threads.
    Threads eight(8);
    eight.busy(3);
    std::vector<int> two(2, -1);
    fqworker_get_load(eight.list, 2, two.data());
    EXPECT_EQ(37, two[1]);
    EXPECT_EQ(37, fqworker_get_load(eight.list, 2, two.data()));

    // Without threads there is no figure, so no event.
    Threads none(0);
    EXPECT_EQ(-1, fqworker_get_load(none.list, 2, two.data()));
}

}  // namespace
