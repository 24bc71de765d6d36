#pragma once
#include "TilegridOps/host/export.h"

#include <atomic>
#include <cstdint>

namespace tilegrid {

/// One piece of work that a caller can stop, and that asks now and then whether it was stopped. Shared by all threads that
/// serve it; outlives every call made under it.
class TILEGRID_API Job {
public:
    Job() = default;
    Job(Job const&) = delete;
    Job& operator=(Job const&) = delete;

    /// Asks the job to stop. From any thread and from a signal handler, any number of times.
    void cancel() noexcept { cancelled_.store(true, std::memory_order_relaxed); }
    /// Makes the n-th poll from now on (1 is the next) answer yes, and all after it. 0 takes such a wish back.
    void cancelAtPoll(std::int64_t n) noexcept;
    /// Takes a cancellation back and sets the count of polls to zero.
    void reset() noexcept;
    /// How often the job was asked since it was made or reset.
    std::int64_t pollCount() const noexcept { return polls_.load(std::memory_order_relaxed); }
    /// Whether it was cancelled, without counting as a poll.
    bool cancelled() const noexcept { return cancelled_.load(std::memory_order_relaxed); }
    /// One poll.
    bool poll() noexcept;

    /// The job that the calling thread serves, or null. Each thread has its own.
    static Job* current() noexcept;

    /// While it lives, the calling thread serves `job` (null: none).
    class TILEGRID_API Scope {
    public:
        explicit Scope(Job* job) noexcept;
        Scope(Scope const&) = delete;
        Scope& operator=(Scope const&) = delete;
        ~Scope();

    private:
        Job* previous_;
    };

private:
    std::atomic<bool> cancelled_{false};
    std::atomic<std::int64_t> polls_{0};
    std::atomic<std::int64_t> cancelAt_{0};
};

}  // namespace tilegrid
