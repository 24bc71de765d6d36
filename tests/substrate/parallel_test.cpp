#include "TilegridOps/host/runtime.h"
#include "support/jobs.h"
#include "support/structures.h"

#include <numeric>
#include <set>
#include <thread>

namespace tilegrid::test {
namespace {

using OST::int64;

TEST(Parallel, ranges_cover_every_entry_once_for_any_grain_and_any_threads)
{
    for (int threads : kThreadCounts)
        for (int64 count : {0, 1, 7, 64, 1000})
            for (int64 grain : {1, 3, 64, 5000}) {
                std::vector<std::atomic<int>> hits(count);
                std::atomic<int> small{0}, parts{0};
                parallel::runJob(nullptr, threads, [&] {
                    parallel::forRanges(-5, count - 5, grain, [&](int64 begin, int64 end) {
                        ++parts;
                        if (end - begin < std::min(grain, count)) ++small;
                        for (int64 n = begin; n < end; ++n) ++hits[n + 5];
                    });
                });
                for (auto const& hit : hits) EXPECT_EQ(hit, 1);
                EXPECT_EQ(small, 0) << "count " << count << ", grain " << grain << ", " << threads << " threads";
                if (count == 0) {
                    EXPECT_EQ(parts, 0);
                }
            }
}

TEST(Parallel, work_runs_on_as_many_threads_as_asked_even_above_the_cores)
{
    // Eight bodies that wait for each other meet only if eight threads run at once. The limit is for the case that they do not.
    std::atomic<int> arrived{0}, alone{0};
    parallel::runJob(nullptr, 8, [&] {
        if (parallel::maxSlots() == 1) GTEST_SKIP() << "this build has one thread";
        EXPECT_GE(parallel::maxSlots(), 8);
        parallel::forRanges(0, 8, 1, [&](int64 begin, int64 end) {
            arrived += static_cast<int>(end - begin);
            const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(60);
            while (arrived < 8 && std::chrono::steady_clock::now() < limit) std::this_thread::yield();
            alone += arrived < 8;
        });
        EXPECT_EQ(alone, 0) << "bodies that waited in vain for the others";
        EXPECT_EQ(arrived, 8);
    });
}

TEST(Parallel, one_thread_means_the_calling_work_and_nobody_else)
{
    std::mutex mutex;
    std::set<std::thread::id> threads;
    parallel::runJob(nullptr, 1, [&] {
        parallel::forRanges(0, 1000, 1, [&](int64, int64) {
            const std::scoped_lock lock(mutex);
            threads.insert(std::this_thread::get_id());
        });
    });
    EXPECT_EQ(threads.size(), 1u);
}

TEST(Parallel, slots_stay_below_their_number_and_no_two_bodies_share_one_at_a_time)
{
    parallel::runJob(nullptr, 8, [&] {
        const int slots = parallel::maxSlots();
        std::vector<std::atomic<int>> busy(slots);
        std::atomic<int> wrong{0};
        parallel::forRanges(0, 4000, 1, [&](int64, int64) {
            const int mine = parallel::currentSlot();
            if (mine < 0 || mine >= slots) {
                ++wrong;
                return;
            }
            wrong += busy[mine].exchange(1);
            wrong += parallel::currentSlot() != mine;
            busy[mine] = 0;
        });
        EXPECT_EQ(wrong, 0);
    });
}

TEST(Parallel, per_thread_values_add_up_to_the_whole)
{
    for (int threads : kThreadCounts)
        parallel::runJob(nullptr, threads, [&] {
            parallel::PerThread<int64> sums;
            parallel::forRanges(0, 10000, 1, [&](int64 begin, int64 end) {
                int64& mine = sums.local([] { return std::make_unique<int64>(0); });
                for (int64 n = begin; n < end; ++n) mine += n;
            });
            int64 total = 0;
            sums.forEach([&total](int64 part) { total += part; });
            EXPECT_EQ(total, 9999 * 5000);
        });
}

TEST(Parallel, an_exception_of_a_body_reaches_the_caller_and_the_next_call_is_right)
{
    for (int threads : kThreadCounts)
        parallel::runJob(nullptr, threads, [&] {
            EXPECT_THROW(parallel::forRanges(0, 1000, 1,
                                             [](int64 begin, int64 end) {
                                                 if (begin <= 700 && 700 < end) throw std::out_of_range("700");
                                             }),
                         std::out_of_range);
            std::atomic<int64> sum{0};
            parallel::forRanges(0, 1000, 1, [&](int64 begin, int64 end) {
                for (int64 n = begin; n < end; ++n) sum += n;
            });
            EXPECT_EQ(sum, 999 * 500);
        });
}

TEST(Parallel, loops_nest)
{
    std::atomic<int64> inner{0};
    parallel::runJob(nullptr, 8, [&] {
        parallel::forRanges(0, 40, 1, [&](int64 begin, int64 end) {
            for (int64 n = begin; n < end; ++n)
                parallel::forRanges(0, 50, 1, [&](int64 b, int64 e) { inner += e - b; });
        });
    });
    EXPECT_EQ(inner, 2000);
}

TEST(ParallelLoop, up_to_the_grain_runs_inline_in_one_part_and_asks_nobody)
{
    Job job;
    job.cancel();
    std::vector<std::pair<int64, int64>> parts;
    EXPECT_NO_THROW(parallel::runJob(&job, 8, [&] {
        parallel::loop(3, 13, 10, [&](int64 b, int64 e) { parts.push_back({b, e}); });
    }));
    EXPECT_EQ(parts, (std::vector<std::pair<int64, int64>>{{3, 13}}));
    EXPECT_EQ(job.pollCount(), 0);
}

TEST(ParallelLoop, above_the_grain_ends_with_one_poll_after_the_whole_range)
{
    for (int threads : kThreadCounts) {
        std::atomic<int64> done{0};
        cancelAtEveryPoll([&] { done = 0; },
                          [&] { parallel::loop(0, 1000, 10, [&](int64 b, int64 e) { done += e - b; }); },
                          [&] { EXPECT_EQ(done, 1000); });
        EXPECT_EQ(pollsOf(threads, [] { parallel::loop(0, 11, 10, [](int64, int64) {}); }), 1);
    }
}

TEST(ParallelLoop, over_an_empty_range_is_no_stage)
{
    EXPECT_EQ(pollsOf(2, [] { parallel::loop(5, 5, 1, [](int64 b, int64 e) { EXPECT_EQ(b, e); }); }), 0);
}

/// Notes the tree of halves as text: "(left right)" around the parts.
struct Noting final : parallel::ReduceBody {
    std::string text;
    void run(int64 begin, int64 end) override { text += "[" + std::to_string(begin) + "," + std::to_string(end) + "]"; }
    std::unique_ptr<ReduceBody> split() const override { return std::make_unique<Noting>(); }
    void join(ReduceBody& right) override { text = "(" + text + static_cast<Noting&>(right).text + ")"; }
};

std::string halves(int64 begin, int64 end, int64 grain)
{
    if (end - begin <= grain) return "[" + std::to_string(begin) + "," + std::to_string(end) + "]";
    const int64 middle = begin + (end - begin) / 2;
    return "(" + halves(begin, middle, grain) + halves(middle, end, grain) + ")";
}

TEST(DeterministicReduce, halves_the_range_the_same_way_on_any_number_of_threads)
{
    for (int threads : kThreadCounts)
        for (auto [begin, end, grain] : {std::array<int64, 3>{0, 1, 1}, {0, 9, 1}, {-7, 100, 3}, {5, 2000, 50}})
            parallel::runJob(nullptr, threads, [&, b = begin, e = end, g = grain] {
                Noting body;
                parallel::deterministicReduce(b, e, g, body);
                EXPECT_EQ(body.text, halves(b, e, g)) << threads << " threads";
            });
}

TEST(DeterministicReduce, gives_the_same_float_sum_bit_for_bit)
{
    struct Sum final : parallel::ReduceBody {
        float sum = 0;
        void run(int64 begin, int64 end) override
        {
            for (int64 n = begin; n < end; ++n) sum += 1.0f / static_cast<float>(n + 1);
        }
        std::unique_ptr<ReduceBody> split() const override { return std::make_unique<Sum>(); }
        void join(ReduceBody& right) override { sum += static_cast<Sum&>(right).sum; }
    };
    std::set<float> sums;
    for (int repeat = 0; repeat < 20; ++repeat)
        for (int threads : kThreadCounts)
            parallel::runJob(nullptr, threads, [&] {
                Sum body;
                parallel::deterministicReduce(0, 100000, 13, body);
                sums.insert(body.sum);
            });
    EXPECT_EQ(sums.size(), 1u);
}

TEST(ParallelSort, sorts_like_the_serial_one)
{
    for (int64 count : {0, 1, 2, 16384, 16385, 100000})
        for (int threads : kThreadCounts) {
            Random random(static_cast<std::uint64_t>(count));
            std::vector<std::pair<int, int64>> values;
            for (int64 n = 0; n < count; ++n) values.push_back({static_cast<int>(random.below(500)), n});
            auto expected = values;
            std::sort(expected.begin(), expected.end());
            parallel::runJob(nullptr, threads,
                             [&] { parallel::sort(values.data(), values.data() + count, std::less<>()); });
            EXPECT_TRUE(values == expected) << count;
        }
}

TEST(ParallelJob, is_the_job_that_every_worker_serves_and_ends_with_the_call)
{
    Job job;
    std::atomic<int> wrong{0};
    parallel::runJob(&job, 8,
                     [&] { parallel::forRanges(0, 1000, 1, [&](int64, int64) { wrong += Job::current() != &job; }); });
    EXPECT_EQ(wrong, 0);
    EXPECT_EQ(Job::current(), nullptr);
}

TEST(ParallelJob, with_no_job_is_never_cancelled)
{
    EXPECT_NO_THROW(parallel::runJob(nullptr, 2, [] {
        EXPECT_FALSE(Corvid::isJobCancelled());
        parallel::endStage();
    }));
    EXPECT_NO_THROW(parallel::endStage());
    EXPECT_NO_THROW(parallel::cancelCurrentGroup());
}

TEST(ParallelJob, of_the_machines_own_size_covers_the_range)
{
    std::atomic<int64> done{0};
    parallel::runJob(nullptr, 0, [&] { parallel::forRanges(0, 500, 1, [&](int64 b, int64 e) { done += e - b; }); });
    EXPECT_EQ(done, 500);
}

}  // namespace
}  // namespace tilegrid::test
