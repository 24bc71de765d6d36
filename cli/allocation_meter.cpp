// Counts what the whole program allocates by operator new: this one takes the place of the one of the standard library, for
// all libraries that the program loads. A thread reports what it has allocated or freed in batches, so that threads do not wait
// for each other at one counter; the count is off by a batch a thread at the most.
#include "cli/allocation_meter.h"

#include "io/allocation_limit.h"

#include <malloc.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <new>

namespace {

constexpr std::int64_t kBatch = std::int64_t(1) << 16;
constexpr std::int64_t kNoLimit = std::numeric_limits<std::int64_t>::max();

constinit std::atomic<std::int64_t> inUse{0}, limit{kNoLimit};
constinit thread_local std::int64_t unreported = 0;

void count(std::int64_t bytes)
{
    unreported += bytes;
    if (unreported < kBatch && unreported > -kBatch) return;
    inUse.fetch_add(unreported, std::memory_order_relaxed);
    unreported = 0;
}

bool isAllowed(std::size_t size)
{
    const std::int64_t most = limit.load(std::memory_order_relaxed);
    if (most == kNoLimit) return true;
    const std::int64_t left = most - inUse.load(std::memory_order_relaxed) - unreported;
    return left >= 0 && size <= std::uint64_t(left);
}

/// Null if the limit or the system refuses.
void* allocated(std::size_t size, std::size_t alignment) noexcept
{
    if (!isAllowed(size)) return nullptr;
    void* memory = nullptr;
    if (alignment <= alignof(std::max_align_t))
        memory = std::malloc(size > 0 ? size : 1);
    else if (posix_memalign(&memory, alignment, size) != 0)
        memory = nullptr;
    if (memory) count(std::int64_t(malloc_usable_size(memory)));
    return memory;
}

void* required(std::size_t size, std::size_t alignment)
{
    void* memory = allocated(size, alignment);
    if (!memory) throw std::bad_alloc();
    return memory;
}

void release(void* memory) noexcept
{
    if (!memory) return;
    count(-std::int64_t(malloc_usable_size(memory)));
    std::free(memory);
}

std::int64_t bytesInUse() noexcept { return inUse.load(std::memory_order_relaxed) + unreported; }

std::int64_t setLimit(std::int64_t bytes) noexcept { return limit.exchange(bytes, std::memory_order_relaxed); }

}  // namespace

namespace tilegrid::cli {

void offerAllocationMeter() noexcept { io::setAllocationMeter({bytesInUse, setLimit}); }

}  // namespace tilegrid::cli

// All forms: a sanitizer has some of its own that do not lead to the others.
#define TILEGRID_VISIBLE __attribute__((visibility("default")))

TILEGRID_VISIBLE void* operator new(std::size_t size) { return required(size, 1); }
TILEGRID_VISIBLE void* operator new[](std::size_t size) { return required(size, 1); }
TILEGRID_VISIBLE void* operator new(std::size_t size, std::align_val_t at) { return required(size, std::size_t(at)); }
TILEGRID_VISIBLE void* operator new[](std::size_t size, std::align_val_t at) { return required(size, std::size_t(at)); }
TILEGRID_VISIBLE void* operator new(std::size_t size, std::nothrow_t const&) noexcept { return allocated(size, 1); }
TILEGRID_VISIBLE void* operator new[](std::size_t size, std::nothrow_t const&) noexcept { return allocated(size, 1); }
TILEGRID_VISIBLE void* operator new(std::size_t size, std::align_val_t at, std::nothrow_t const&) noexcept
{
    return allocated(size, std::size_t(at));
}
TILEGRID_VISIBLE void* operator new[](std::size_t size, std::align_val_t at, std::nothrow_t const&) noexcept
{
    return allocated(size, std::size_t(at));
}
TILEGRID_VISIBLE void operator delete(void* memory) noexcept { release(memory); }
TILEGRID_VISIBLE void operator delete[](void* memory) noexcept { release(memory); }
TILEGRID_VISIBLE void operator delete(void* memory, std::size_t) noexcept { release(memory); }
TILEGRID_VISIBLE void operator delete[](void* memory, std::size_t) noexcept { release(memory); }
TILEGRID_VISIBLE void operator delete(void* memory, std::align_val_t) noexcept { release(memory); }
TILEGRID_VISIBLE void operator delete[](void* memory, std::align_val_t) noexcept { release(memory); }
TILEGRID_VISIBLE void operator delete(void* memory, std::size_t, std::align_val_t) noexcept { release(memory); }
TILEGRID_VISIBLE void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept { release(memory); }
TILEGRID_VISIBLE void operator delete(void* memory, std::nothrow_t const&) noexcept { release(memory); }
TILEGRID_VISIBLE void operator delete[](void* memory, std::nothrow_t const&) noexcept { release(memory); }
TILEGRID_VISIBLE void operator delete(void* memory, std::align_val_t, std::nothrow_t const&) noexcept
{
    release(memory);
}
TILEGRID_VISIBLE void operator delete[](void* memory, std::align_val_t, std::nothrow_t const&) noexcept
{
    release(memory);
}
