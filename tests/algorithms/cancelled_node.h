#pragma once
#include "TilegridOps/host/job.h"
#include "support/volumes.h"

namespace tilegrid::test {

/// Expects an empty object of a node that is cancelled, at each poll that an uncancelled run makes, and that the host is told its
/// name unless the node has not begun.
/// \param run  `run(job)` gives what the node gave under the job
template <class Run> void expectEmptyWhenCancelled(std::string const& name, Run const& run)
{
    Job whole;
    run(whole);
    ASSERT_GT(whole.pollCount(), 2);
    for (std::int64_t n = 1; n <= whole.pollCount(); ++n) {
        Job job;
        job.cancelAtPoll(n);
        const Terminations terminations;
        EXPECT_TRUE(isEmptyObject(run(job))) << n;
        EXPECT_EQ(terminations.names(), n == 1 ? std::vector<std::string>() : std::vector<std::string>{name});
    }
}

}  // namespace tilegrid::test
