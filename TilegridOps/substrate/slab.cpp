#include "TilegridOps/substrate/slab.h"

#include "TilegridOps/substrate/slab_pool.h"

#include <algorithm>
#include <cstdlib>
#include <new>

void* OST::allocate_jemalloc(std::size_t size, std::size_t alignment)
{
    void* pointer = nullptr;
    if (posix_memalign(&pointer, std::max(alignment, sizeof(void*)), std::max<std::size_t>(size, 1)) != 0)
        throw std::bad_alloc();
    return pointer;
}

void OST::deallocate_jemalloc(void* pointer)
{
    std::free(pointer);
}

namespace tilegrid {

namespace {

// From this size on a slab is a mapping of its own, which the system can grow without copying.
constexpr std::size_t kMappedBytes = 128 * 1024;
// Two cache lines, as the largest elements want. The front margin takes as much, so that the data starts at such a place.
constexpr std::size_t kAlignment = 128;
constexpr std::size_t kMargins = kAlignment + RawSlab::kMargin;
static_assert(kAlignment >= RawSlab::kMargin);

bool isMapped(std::size_t capacity)
{
    return capacity >= kMappedBytes;
}

/// Room for `capacity` bytes and the margins; the capacity may come out larger.
std::byte* acquire(std::size_t& capacity)
{
    if (!isMapped(capacity))
        return static_cast<std::byte*>(OST::allocate_jemalloc(capacity + kMargins, kAlignment)) + kAlignment;
    std::size_t bytes = capacity + kMargins;
    void* block = SlabPool::acquire(bytes);
    capacity = bytes - kMargins;
    return static_cast<std::byte*>(block) + kAlignment;
}

void release(std::byte* data, std::size_t capacity)
{
    if (!data) return;
    if (isMapped(capacity))
        SlabPool::release(data - kAlignment, capacity + kMargins);
    else
        OST::deallocate_jemalloc(data - kAlignment);
}

}  // namespace

RawSlab::RawSlab(RawSlab const& other)
{
    resize(other.size_);
    if (size_) std::memcpy(data_, other.data_, size_);
}

RawSlab::~RawSlab()
{
    release(data_, capacity_);
}

void RawSlab::swap(RawSlab& other) noexcept
{
    std::swap(data_, other.data_);
    std::swap(size_, other.size_);
    std::swap(capacity_, other.capacity_);
}

void RawSlab::resize(std::size_t bytes)
{
    // Growth by half again keeps repeated appends linear; a first sizing is exact.
    if (bytes > capacity_) reallocate(size_ ? std::max(bytes, capacity_ + capacity_ / 2) : bytes);
    size_ = bytes;
}

void RawSlab::reserve(std::size_t bytes)
{
    if (bytes > capacity_) reallocate(bytes);
}

void RawSlab::reallocate(std::size_t capacity)
{
    if (data_ && isMapped(capacity_) && isMapped(capacity)) {
        std::size_t bytes = capacity + kMargins;
        void* block = SlabPool::grow(data_ - kAlignment, capacity_ + kMargins, bytes);
        capacity = bytes - kMargins;
        data_ = static_cast<std::byte*>(block) + kAlignment;
    } else {
        std::byte* grown = acquire(capacity);
        if (size_) std::memcpy(grown, data_, size_);
        release(data_, capacity_);
        data_ = grown;
    }
    capacity_ = capacity;
}

}  // namespace tilegrid
