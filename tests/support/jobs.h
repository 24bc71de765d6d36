#pragma once
#include "TilegridOps/host/job.h"
#include "TilegridOps/host/ost_object.h"
#include "TilegridOps/substrate/parallel.h"

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>

namespace tilegrid::test {

inline constexpr int kThreadCounts[] = {1, 2, 8};

/// Runs `work` under a job of its own on `threads` threads. \return how often the job was polled
inline std::int64_t pollsOf(int threads, std::function<void()> const& work)
{
    Job job;
    parallel::runJob(&job, threads, work);
    return job.pollCount();
}

/// Runs `work` under a job that says yes at the n-th poll. \return whether the cancellation came out, as the exception that
/// it has to be; a failure otherwise.
inline bool cancelledAt(std::int64_t n, int threads, std::function<void()> const& work)
{
    Job job;
    job.cancelAtPoll(n);
    try {
        parallel::runJob(&job, threads, work);
    } catch (std::runtime_error const& error) {
        EXPECT_STREQ(error.what(), OST::exceptionMessage.c_str());
        return true;
    }
    return false;
}

/// Cancels `work` at every poll that an uncancelled run makes, on 1, 2 and 8 threads. `before` makes a fresh state, `after`
/// looks at what a cancelled run left. The number of polls must not depend on the threads.
inline void cancelAtEveryPoll(std::function<void()> const& before, std::function<void()> const& work,
                              std::function<void()> const& after)
{
    before();
    const std::int64_t polls = pollsOf(1, work);
    ASSERT_GT(polls, 0);
    for (int threads : kThreadCounts) {
        SCOPED_TRACE(std::to_string(threads) + " threads");
        before();
        EXPECT_EQ(pollsOf(threads, work), polls);
        for (std::int64_t n = 1; n <= polls; ++n) {
            SCOPED_TRACE("cancelled at poll " + std::to_string(n) + " of " + std::to_string(polls));
            before();
            EXPECT_TRUE(cancelledAt(n, threads, work));
            after();
        }
        before();
        EXPECT_FALSE(cancelledAt(polls + 1, threads, work));
    }
}

}  // namespace tilegrid::test
