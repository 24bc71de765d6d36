#include "TilegridOps/substrate/parallel.h"

#include <tbb/blocked_range.h>
#include <tbb/global_control.h>
#include <tbb/info.h>
#include <tbb/parallel_for.h>
#include <tbb/parallel_invoke.h>
#include <tbb/task.h>
#include <tbb/task_arena.h>
#include <tbb/task_group.h>

#include <mutex>
#include <optional>
#include <set>

namespace tilegrid::parallel {

namespace {

/// While it lives, a job may have that many threads, also more than the machine has cores. The scheduler obeys the least of
/// all limits in force, so the jobs of a process share one: the largest that a running one asked for.
class ThreadsAllowed {
public:
    explicit ThreadsAllowed(int threads)
    {
        const std::lock_guard lock(mutex_);
        mine_ = asked_.insert(threads);
        apply();
    }
    ThreadsAllowed(ThreadsAllowed const&) = delete;
    ThreadsAllowed& operator=(ThreadsAllowed const&) = delete;
    ~ThreadsAllowed()
    {
        const std::lock_guard lock(mutex_);
        asked_.erase(mine_);
        apply();
    }

private:
    static void apply()
    {
        const int most = asked_.empty() ? 0 : *asked_.rbegin();
        if (most == applied_) return;
        // The new limit is in force before the old one goes, so that there is no moment without one.
        limit_ = most == 0 ? nullptr
                           : std::make_unique<tbb::global_control>(tbb::global_control::max_allowed_parallelism, std::size_t(most));
        applied_ = most;
    }

    static inline std::mutex mutex_;
    static inline std::multiset<int> asked_;
    static inline std::unique_ptr<tbb::global_control> limit_;
    static inline int applied_ = 0;
    std::multiset<int>::iterator mine_;
};

/// Tasks may land on any thread: each brings the job that it serves, and leaves nothing behind.
void reduceHalves(Job* job, int64 begin, int64 end, int64 grain, ReduceBody& body)
{
    const Job::Scope scope(job);
    if (end - begin <= grain) return body.run(begin, end);
    const int64 middle = begin + (end - begin) / 2;
    std::unique_ptr<ReduceBody> right = body.split();
    tbb::task_group_context context(tbb::task_group_context::isolated);
    tbb::parallel_invoke([&] { reduceHalves(job, begin, middle, grain, body); }, [&] { reduceHalves(job, middle, end, grain, *right); },
                         context);
    body.join(*right);
}

}  // namespace

int maxSlots()
{
    return std::max(tbb::this_task_arena::max_concurrency(), 1) + 1;
}

int currentSlot()
{
    const int index = tbb::this_task_arena::current_thread_index();
    return index == tbb::task_arena::not_initialized ? 0 : index;
}

void forRanges(int64 begin, int64 end, int64 grain, FunctionRef<void(int64, int64)> body)
{
    if (begin >= end) return;
    grain = std::max<int64>(grain, 1);
    if (end - begin < 2 * grain) return body(begin, end);
    Job* const job = Job::current();
    // Isolation: a body that waits for an inner loop must not pick up another part of the outer one, or per-thread state
    // would be used twice at once. Cancellation comes from the job alone, so the group is bound to no other.
    tbb::this_task_arena::isolate([&] {
        tbb::task_group_context context(tbb::task_group_context::isolated);
        tbb::parallel_for(
            tbb::blocked_range<int64>(begin, end, static_cast<std::size_t>(2 * grain - 1)),  // halves keep the grain
            [&](tbb::blocked_range<int64> const& part) {
                const Job::Scope scope(job);
                body(part.begin(), part.end());
            },
            tbb::auto_partitioner(), context);
    });
}

void deterministicReduce(int64 begin, int64 end, int64 grain, ReduceBody& body)
{
    if (begin >= end) return;
    tbb::this_task_arena::isolate([&] { reduceHalves(Job::current(), begin, end, std::max<int64>(grain, 1), body); });
}

void cancelCurrentGroup()
{
    if (tbb::task_group_context* context = tbb::task::current_context()) context->cancel_group_execution();
}

void runJob(Job* job, int threads, FunctionRef<void()> work)
{
    std::optional<ThreadsAllowed> allowed;
    if (threads > tbb::info::default_concurrency()) allowed.emplace(threads);
    tbb::task_arena arena(threads > 0 ? threads : tbb::task_arena::automatic);
    arena.execute([&] {
        const Job::Scope scope(job);
        work();
    });
}

}  // namespace tilegrid::parallel
