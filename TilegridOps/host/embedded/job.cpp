#include "TilegridOps/host/job.h"

#include "TilegridOps/host/runtime.h"

namespace tilegrid {

namespace {
thread_local Job* currentJob = nullptr;
}

void Job::cancelAtPoll(std::int64_t n) noexcept
{
    cancelAt_.store(n > 0 ? polls_.load(std::memory_order_relaxed) + n : 0, std::memory_order_relaxed);
}

void Job::reset() noexcept
{
    cancelled_.store(false, std::memory_order_relaxed);
    polls_.store(0, std::memory_order_relaxed);
    cancelAt_.store(0, std::memory_order_relaxed);
}

bool Job::poll() noexcept
{
    const std::int64_t count = polls_.fetch_add(1, std::memory_order_relaxed) + 1;
    const std::int64_t at = cancelAt_.load(std::memory_order_relaxed);
    if (at > 0 && count >= at) cancel();
    return cancelled();
}

Job* Job::current() noexcept
{
    return currentJob;
}

Job::Scope::Scope(Job* job) noexcept : previous_(currentJob)
{
    currentJob = job;
}

Job::Scope::~Scope()
{
    currentJob = previous_;
}

}  // namespace tilegrid

bool Corvid::isJobCancelled()
{
    tilegrid::Job* job = tilegrid::Job::current();
    return job && job->poll();
}
