#include "TilegridOps/host/runtime.h"
#include "support/jobs.h"

#include <chrono>
#include <numeric>
#include <thread>

namespace tilegrid::test {
namespace {

using OST::int64;

/// Keeps a worker busy for a moment, so that others come to help.
void workABit()
{
    std::array<int, 400> values;
    std::iota(values.begin(), values.end(), 0);
    int* volatile used = values.data();
    for (int n = 1; n < 400; ++n) used[n] ^= used[n - 1];
}

/// How many parts of a loop run under another job than `job`.
int partsUnderAnotherJob(Job* job)
{
    std::atomic<int> wrong{0};
    parallel::forRanges(0, 500, 1, [&](int64, int64) {
        workABit();
        wrong += Job::current() != job;
    });
    return wrong;
}

TEST(ParallelJobs, leave_no_worker_behind_that_still_serves_one_that_ended)
{
    for (int round = 0; round < 400 && !HasFailure(); ++round) {
        {
            Job job;
            parallel::runJob(&job, 8, [] {
                // Whoever waits for the others is surely inside when the job ends.
                std::atomic<int64> met{0};
                parallel::forRanges(0, 8, 1, [&met](int64 begin, int64 end) {
                    met += end - begin;
                    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::milliseconds(20);
                    while (met < 8 && std::chrono::steady_clock::now() < giveUp) std::this_thread::yield();
                });
            });
        }
        EXPECT_EQ(partsUnderAnotherJob(nullptr), 0) << "round " << round;
    }
}

TEST(ParallelJobs, that_run_at_the_same_time_do_not_see_each_other)
{
    std::vector<std::thread> users;
    std::atomic<int> wrong{0};
    for (int user = 0; user < 4; ++user)
        users.emplace_back([user, &wrong] {
            for (int round = 0; round < 50; ++round) {
                Job job;
                if (user == 0) job.cancel();
                const bool stopped = [&] {
                    try {
                        parallel::runJob(&job, user + 1, [&] {
                            wrong += partsUnderAnotherJob(&job);
                            parallel::endStage();
                        });
                        return false;
                    } catch (std::runtime_error const&) {
                        return true;
                    }
                }();
                wrong += stopped != (user == 0);
            }
        });
    for (std::thread& user : users) user.join();
    EXPECT_EQ(wrong, 0);
}

TEST(ParallelJobs, go_with_the_inner_loops_and_reductions_of_a_body)
{
    struct Asking final : parallel::ReduceBody {
        Job* job;
        int wrong = 0;
        explicit Asking(Job* j) : job(j) {}
        void run(int64, int64) override { wrong += partsUnderAnotherJob(job) + (Job::current() != job); }
        std::unique_ptr<ReduceBody> split() const override { return std::make_unique<Asking>(job); }
        void join(ReduceBody& right) override { wrong += static_cast<Asking&>(right).wrong + (Job::current() != job); }
    };
    for (int threads : kThreadCounts) {
        Job job;
        std::atomic<int> wrong{0};
        parallel::runJob(&job, threads, [&] {
            parallel::forRanges(0, 6, 1, [&](int64, int64) {
                Asking body(&job);
                parallel::deterministicReduce(0, 8, 1, body);
                wrong += body.wrong;
            });
        });
        EXPECT_EQ(wrong, 0) << threads << " threads";
    }
}

TEST(ParallelJobs, may_be_nested_and_give_the_outer_one_back)
{
    Job outer, inner;
    parallel::runJob(&outer, 2, [&] {
        const int slot = parallel::currentSlot();
        parallel::runJob(&inner, 8, [&] { EXPECT_EQ(partsUnderAnotherJob(&inner), 0); });
        EXPECT_EQ(Job::current(), &outer);
        EXPECT_EQ(parallel::currentSlot(), slot);
        EXPECT_EQ(partsUnderAnotherJob(&outer), 0);
        EXPECT_THROW(parallel::runJob(nullptr, 3, [] { throw std::out_of_range("inner"); }), std::out_of_range);
        EXPECT_EQ(partsUnderAnotherJob(&outer), 0);
    });
}

TEST(ParallelSlots, of_inner_loops_are_not_shared_by_two_bodies_at_a_time)
{
    for (int threads : kThreadCounts)
        parallel::runJob(nullptr, threads, [&] {
            // What a body of the outer loop keeps in its slot must be its own until it ends, whatever helps it inside.
            std::vector<std::atomic<int>> busy(static_cast<std::size_t>(parallel::maxSlots()));
            std::atomic<int> wrong{0};
            parallel::forRanges(0, 40, 1, [&](int64, int64) {
                const auto mine = static_cast<std::size_t>(parallel::currentSlot());
                wrong += busy[mine].exchange(1);
                parallel::forRanges(0, 40, 1, [](int64, int64) { workABit(); });
                wrong += static_cast<std::size_t>(parallel::currentSlot()) != mine;
                busy[mine] = 0;
            });
            EXPECT_EQ(wrong, 0) << threads << " threads";
        });
}

TEST(ParallelGroup, that_is_cancelled_ends_without_an_exception_and_leaves_the_next_loop_whole)
{
    for (int threads : kThreadCounts)
        parallel::runJob(nullptr, threads, [&] {
            std::atomic<int64> done{0};
            EXPECT_NO_THROW(parallel::forRanges(0, 1000, 1, [&](int64 begin, int64 end) {
                done += end - begin;
                parallel::cancelCurrentGroup();
            }));
            EXPECT_GT(done, 0);
            EXPECT_LE(done, 1000);
            done = 0;
            parallel::forRanges(0, 1000, 1, [&](int64 begin, int64 end) { done += end - begin; });
            EXPECT_EQ(done, 1000);
        });
}

TEST(ParallelExceptions, come_out_of_inner_loops_and_of_reductions)
{
    struct Failing final : parallel::ReduceBody {
        void run(int64 begin, int64 end) override
        {
            if (begin <= 77 && 77 < end) throw std::out_of_range("77");
        }
        std::unique_ptr<ReduceBody> split() const override { return std::make_unique<Failing>(); }
        void join(ReduceBody&) override {}
    };
    for (int threads : kThreadCounts)
        parallel::runJob(nullptr, threads, [&] {
            EXPECT_THROW(parallel::forRanges(0, 50, 1,
                                             [](int64, int64) {
                                                 parallel::forRanges(0, 100, 1, [](int64 begin, int64 end) {
                                                     if (begin <= 42 && 42 < end) throw std::out_of_range("42");
                                                 });
                                             }),
                         std::out_of_range);
            Failing body;
            EXPECT_THROW(parallel::deterministicReduce(0, 100, 3, body), std::out_of_range);
        });
}

}  // namespace
}  // namespace tilegrid::test
