#pragma once
#include "TilegridOps/host/export.h"
#include "TilegridOps/host/job.h"
#include "TilegridOps/substrate/traits.h"

#include <algorithm>
#include <atomic>
#include <memory>
#include <utility>
#include <vector>

/// The one vocabulary of parallel work. Which scheduler stands behind it is chosen when the library is built; no other file
/// includes a scheduler. Every form waits for its work, hands the first exception of a body to the caller, and nests.
namespace tilegrid::parallel {

using OST::int64;

/// A reference to a callable that outlives the call it is passed to.
template <class Signature> class FunctionRef;
template <class R, class... Args> class FunctionRef<R(Args...)> {
public:
    template <class F> requires(!std::is_same_v<std::remove_cvref_t<F>, FunctionRef>)
    FunctionRef(F&& f) : object_(const_cast<void*>(static_cast<void const*>(std::addressof(f)))), call_([](void* o, Args... args) -> R {
        return (*static_cast<std::remove_reference_t<F>*>(o))(std::forward<Args>(args)...);
    })
    {
    }
    R operator()(Args... args) const { return call_(object_, std::forward<Args>(args)...); }

private:
    void* object_;
    R (*call_)(void*, Args...);
};

/// Threads that may work at once, and the number of the calling one among them: 0 to maxSlots() - 1, stable for the length
/// of a body.
TILEGRID_API int maxSlots();
TILEGRID_API int currentSlot();

/// Calls `body(b, e)` for disjoint parts of [begin, end) that cover it, on all threads. Parts have at least `grain`
/// entries unless the range is smaller. No cancellation test.
TILEGRID_API void forRanges(int64 begin, int64 end, int64 grain, FunctionRef<void(int64, int64)> body);

/// Throws the cancellation (std::runtime_error with OST::exceptionMessage) if the job was cancelled. One poll.
TILEGRID_API void endStage();

/// The loop of operators: a range not above the grain runs inline and is not a stage; a larger one runs in parallel and
/// ends with `endStage`.
TILEGRID_API void loop(int64 begin, int64 end, int64 grain, FunctionRef<void(int64, int64)> body);

/// A value that is reduced over a range in a fixed tree of halves, whatever the threads: equal results, bit for bit.
class TILEGRID_API ReduceBody {
public:
    virtual ~ReduceBody();
    virtual void run(int64 begin, int64 end) = 0;
    /// A body with the identity, for the right half.
    virtual std::unique_ptr<ReduceBody> split() const = 0;
    /// Takes in the result of the half to the right.
    virtual void join(ReduceBody& right) = 0;
};

/// Halves the range at begin + (end - begin)/2 while it is above `grain`; bodies see the parts in order. No cancellation test.
TILEGRID_API void deterministicReduce(int64 begin, int64 end, int64 grain, ReduceBody& body);

/// Stops the sibling tasks of the group that the calling task belongs to, if it runs inside one.
TILEGRID_API void cancelCurrentGroup();

/// Runs `work` under a job (null: none) on at most `threads` threads (0: as many as the machine has). All parallel work
/// that starts inside serves the job, on whatever thread it lands; jobs do not see each other.
TILEGRID_API void runJob(Job* job, int threads, FunctionRef<void()> work);

/// One value per thread, made on first use by a copy of `prototype` or by `make`. Bodies use `local()`; afterwards the owner
/// walks the values, in no particular order.
template <class T> class PerThread {
public:
    explicit PerThread(std::size_t slots = static_cast<std::size_t>(maxSlots())) : values_(slots) {}
    template <class Make> T& local(Make const& make)
    {
        auto& value = values_[currentSlot()];
        if (!value) value = make();
        return *value;
    }
    template <class F> void forEach(F f)
    {
        for (auto& value : values_)
            if (value) f(*value);
    }

private:
    std::vector<std::unique_ptr<T>> values_;
};

/// Sorts by a total order (no two entries are equal under it, or equal ones cannot be told apart): the result does not
/// depend on the threads. No cancellation test.
template <class T, class Less> void sort(T* begin, T* end, Less less)
{
    constexpr int64 kRun = 1 << 14;
    const int64 n = end - begin;
    const int64 runs = (n + kRun - 1) / kRun;
    forRanges(0, runs, 1, [&](int64 b, int64 e) {
        for (int64 r = b; r < e; ++r) std::sort(begin + r * kRun, begin + std::min(n, (r + 1) * kRun), less);
    });
    if (runs < 2) return;
    std::vector<T> scratch(begin, end);
    T *from = begin, *to = scratch.data();
    for (int64 width = kRun; width < n; width *= 2, std::swap(from, to)) {
        forRanges(0, (n + 2 * width - 1) / (2 * width), 1, [&](int64 b, int64 e) {
            for (int64 p = b; p < e; ++p) {
                const int64 low = p * 2 * width, middle = std::min(n, low + width), high = std::min(n, low + 2 * width);
                std::merge(from + low, from + middle, from + middle, from + high, to + low, less);
            }
        });
    }
    if (from != begin) std::copy(from, from + n, begin);
}

}  // namespace tilegrid::parallel
