#include "TilegridOps/host/job.h"
#include "TilegridOps/host/runtime.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace tilegrid::test {
namespace {

TEST(HostJob, answers_no_until_it_is_cancelled_and_yes_from_then_on)
{
    Job job;
    EXPECT_FALSE(job.poll());
    EXPECT_FALSE(job.cancelled());
    job.cancel();
    job.cancel();
    EXPECT_TRUE(job.cancelled());
    EXPECT_TRUE(job.poll());
    EXPECT_TRUE(job.poll());
    EXPECT_EQ(job.pollCount(), 3);
    job.reset();
    EXPECT_FALSE(job.cancelled());
    EXPECT_EQ(job.pollCount(), 0);
    EXPECT_FALSE(job.poll());
}

TEST(HostJob, says_yes_from_the_nth_poll_on_counted_from_the_wish)
{
    for (int before : {0, 3})
        for (int n = 1; n <= 4; ++n) {
            Job job;
            for (int p = 0; p < before; ++p) EXPECT_FALSE(job.poll());
            job.cancelAtPoll(n);
            for (int p = 1; p < n; ++p) EXPECT_FALSE(job.poll());
            EXPECT_TRUE(job.poll());
            EXPECT_TRUE(job.poll());
        }
}

TEST(HostJob, takes_the_wish_back_with_0)
{
    Job job;
    job.cancelAtPoll(2);
    job.cancelAtPoll(0);
    for (int p = 0; p < 5; ++p) EXPECT_FALSE(job.poll());
}

TEST(HostJob, serves_a_thread_for_as_long_as_a_scope_lives)
{
    Job outer, inner;
    EXPECT_EQ(Job::current(), nullptr);
    EXPECT_FALSE(Corvid::isJobCancelled());
    {
        const Job::Scope a(&outer);
        EXPECT_EQ(Job::current(), &outer);
        inner.cancel();
        EXPECT_FALSE(Corvid::isJobCancelled());
        {
            const Job::Scope b(&inner);
            EXPECT_EQ(Job::current(), &inner);
            EXPECT_TRUE(Corvid::isJobCancelled());
            const Job::Scope c(nullptr);
            EXPECT_FALSE(Corvid::isJobCancelled());
        }
        EXPECT_EQ(Job::current(), &outer);
    }
    EXPECT_EQ(Job::current(), nullptr);
    EXPECT_EQ(outer.pollCount(), 1);
    EXPECT_EQ(inner.pollCount(), 1);
}

TEST(HostJob, is_each_threads_own_matter)
{
    Job job;
    const Job::Scope scope(&job);
    Job* other = &job;
    std::thread([&other] { other = Job::current(); }).join();
    EXPECT_EQ(other, nullptr);
}

TEST(HostJob, counts_every_poll_of_many_threads_and_says_yes_at_exactly_the_nth)
{
    constexpr int kThreads = 8, kPolls = 5000;
    Job job;
    job.cancelAtPoll(kThreads * kPolls / 2);
    std::atomic<int> yes{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&] {
            const Job::Scope scope(&job);
            for (int p = 0; p < kPolls; ++p) yes += Corvid::isJobCancelled();
        });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(job.pollCount(), kThreads * kPolls);
    EXPECT_TRUE(job.cancelled());
    // The polls from the n-th on say yes; one that was counted before but asked last may say so too.
    EXPECT_GE(yes, kThreads * kPolls / 2 + 1);
    EXPECT_LE(yes, kThreads * kPolls / 2 + kThreads);
}

TEST(HostJob, can_be_cancelled_from_another_thread)
{
    Job job;
    std::thread canceller([&job] { job.cancel(); });
    canceller.join();
    EXPECT_TRUE(job.poll());
}

}  // namespace
}  // namespace tilegrid::test
