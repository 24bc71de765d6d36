#pragma once
#include "TilegridOps/host/job.h"
#include "support/volumes.h"

namespace tilegrid::test {

/// Expects an empty object of a node that is cancelled, at each poll that an uncancelled run makes.
/// \param run  `run(job)` gives what the node gave under the job
template <class Run> void expectEmptyWhenCancelled(Run const& run)
{
    Job whole;
    run(whole);
    ASSERT_GT(whole.pollCount(), 2);
    for (std::int64_t n = 1; n <= whole.pollCount(); ++n) {
        Job job;
        job.cancelAtPoll(n);
        const Terminations terminations;
        EXPECT_TRUE(isEmptyObject(run(job))) << n;
    }
}

}  // namespace tilegrid::test
