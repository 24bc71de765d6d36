#include "TilegridOps/substrate/parallel.h"

#include <tbb/blocked_range.h>
#include <tbb/global_control.h>
#include <tbb/parallel_for.h>
#include <tbb/parallel_invoke.h>
#include <tbb/task.h>
#include <tbb/task_arena.h>
#include <tbb/task_group.h>
#include <tbb/task_scheduler_observer.h>

namespace tilegrid::parallel {

namespace {

/// Lets every thread that enters a job's arena serve that job.
class JobObserver final : public tbb::task_scheduler_observer {
public:
    JobObserver(tbb::task_arena& arena, Job* job) : task_scheduler_observer(arena), job_(job) { observe(true); }
    ~JobObserver() override { observe(false); }
    void on_scheduler_entry(bool) override { scopes_.push_back(std::make_unique<Job::Scope>(job_)); }
    void on_scheduler_exit(bool) override
    {
        if (!scopes_.empty()) scopes_.pop_back();
    }

private:
    // A stack, since a thread that works for one arena may enter another and come back.
    static thread_local std::vector<std::unique_ptr<Job::Scope>> scopes_;
    Job* job_;
};
thread_local std::vector<std::unique_ptr<Job::Scope>> JobObserver::scopes_;

void reduceHalves(int64 begin, int64 end, int64 grain, ReduceBody& body)
{
    if (end - begin <= grain) return body.run(begin, end);
    const int64 middle = begin + (end - begin) / 2;
    std::unique_ptr<ReduceBody> right = body.split();
    tbb::task_group_context context(tbb::task_group_context::isolated);
    tbb::parallel_invoke([&] { reduceHalves(begin, middle, grain, body); }, [&] { reduceHalves(middle, end, grain, *right); }, context);
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
    // Isolation: a body that waits for an inner loop must not pick up another part of the outer one, or per-thread state
    // would be used twice at once. Cancellation comes from the job alone, so the group is bound to no other.
    tbb::this_task_arena::isolate([&] {
        tbb::task_group_context context(tbb::task_group_context::isolated);
        tbb::parallel_for(
            tbb::blocked_range<int64>(begin, end, static_cast<std::size_t>(2 * grain - 1)),  // halves keep the grain
            [&](tbb::blocked_range<int64> const& part) { body(part.begin(), part.end()); }, tbb::auto_partitioner(), context);
    });
}

void deterministicReduce(int64 begin, int64 end, int64 grain, ReduceBody& body)
{
    if (begin >= end) return;
    tbb::this_task_arena::isolate([&] { reduceHalves(begin, end, std::max<int64>(grain, 1), body); });
}

void cancelCurrentGroup()
{
    if (tbb::task_group_context* context = tbb::task::current_context()) context->cancel_group_execution();
}

void runJob(Job* job, int threads, FunctionRef<void()> work)
{
    const int limit = threads > 0 ? threads : tbb::task_arena::automatic;
    std::unique_ptr<tbb::global_control> more;
    if (threads > 0) more = std::make_unique<tbb::global_control>(tbb::global_control::max_allowed_parallelism, std::size_t(threads));
    tbb::task_arena arena(limit);
    JobObserver observer(arena, job);
    arena.execute([&] {
        const Job::Scope scope(job);
        work();
    });
}

}  // namespace tilegrid::parallel
