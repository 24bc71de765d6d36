#include "TilegridOps/substrate/parallel.h"

/// The back end without threads: everything runs in the caller, in order. A loop is one part, and no group has siblings.
namespace tilegrid::parallel {

int maxSlots()
{
    return 1;
}

int currentSlot()
{
    return 0;
}

void forRanges(int64 begin, int64 end, int64, FunctionRef<void(int64, int64)> body)
{
    if (begin < end) body(begin, end);
}

void deterministicReduce(int64 begin, int64 end, int64 grain, ReduceBody& body)
{
    if (begin >= end) return;
    grain = std::max<int64>(grain, 1);
    if (end - begin <= grain) return body.run(begin, end);
    const int64 middle = begin + (end - begin) / 2;
    const std::unique_ptr<ReduceBody> right = body.split();
    deterministicReduce(begin, middle, grain, body);
    deterministicReduce(middle, end, grain, *right);
    body.join(*right);
}

void cancelCurrentGroup() {}

void runJob(Job* job, int, FunctionRef<void()> work)
{
    const Job::Scope scope(job);
    work();
}

}  // namespace tilegrid::parallel
