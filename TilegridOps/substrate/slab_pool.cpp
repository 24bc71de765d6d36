#include "TilegridOps/substrate/slab_pool.h"

#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstring>
#include <mutex>
#include <new>
#include <vector>

namespace tilegrid {

namespace {

constexpr std::size_t kPage = 4096;
constexpr std::size_t kHugePage = std::size_t(2) << 20;

std::atomic<bool> on{false};

void* map(std::size_t bytes)
{
    void* block = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (block == MAP_FAILED) return nullptr;
    // Below this size a huge page would mostly be waste.
    if (bytes >= kHugePage) madvise(block, bytes, MADV_HUGEPAGE);
    return block;
}

/// Moves a mapping to a larger one, in place if the system can. Null if it cannot give one.
void* remap(void* block, std::size_t bytes, std::size_t grownBytes)
{
#ifdef __SANITIZE_THREAD__
    // The thread sanitizer does not see mremap: it would hold what an earlier owner of the addresses did against the new one.
    void* grown = map(grownBytes);
    if (!grown) return nullptr;
    std::memcpy(grown, block, std::min(bytes, grownBytes));
    munmap(block, bytes);
    return grown;
#else
    void* grown = mremap(block, bytes, grownBytes, MREMAP_MAYMOVE);
    return grown == MAP_FAILED ? nullptr : grown;
#endif
}

/// Free mappings by power of two. The pool may hold as much as was ever in use at once: then a stage finds what the one
/// before it left, and an idle process keeps at most twice what it needed.
class Shelves {
public:
    void* take(std::size_t bytes)
    {
        const std::lock_guard lock(mutex_);
        live_ += bytes;
        peak_ = std::max(peak_, live_);
        auto& shelf = shelf_[std::size_t(std::bit_width(bytes))];
        if (shelf.empty()) return nullptr;
        void* block = shelf.back();
        shelf.pop_back();
        held_ -= bytes;
        return block;
    }
    bool keep(void* block, std::size_t bytes)
    {
        const std::lock_guard lock(mutex_);
        live_ -= std::min(live_, bytes);  // the mapping may be older than the pool
        if (!std::has_single_bit(bytes) || held_ + bytes > peak_) return false;
        shelf_[std::size_t(std::bit_width(bytes))].push_back(block);
        held_ += bytes;
        return true;
    }
    void resized(std::size_t from, std::size_t to)
    {
        const std::lock_guard lock(mutex_);
        live_ += to - std::min(live_, from);
        peak_ = std::max(peak_, live_);
    }
    void clear()
    {
        const std::lock_guard lock(mutex_);
        for (std::size_t width = 1; width < shelf_.size(); ++width) {
            for (void* block : shelf_[width]) munmap(block, std::size_t(1) << (width - 1));
            shelf_[width].clear();
        }
        held_ = 0;
    }
    std::size_t held()
    {
        const std::lock_guard lock(mutex_);
        return held_;
    }

private:
    std::mutex mutex_;
    std::array<std::vector<void*>, 65> shelf_;
    std::size_t live_ = 0, peak_ = 0, held_ = 0;
};

Shelves& shelves()
{
    // Never destroyed: slabs of static objects may be released after every other destructor ran.
    static Shelves* const all = new Shelves;
    return *all;
}

std::size_t mappingSize(std::size_t bytes)
{
    return SlabPool::enabled() ? std::bit_ceil(std::max(bytes, kPage)) : (bytes + kPage - 1) / kPage * kPage;
}

}  // namespace

void SlabPool::enable()
{
    on.store(true, std::memory_order_relaxed);
}

bool SlabPool::enabled()
{
    return on.load(std::memory_order_relaxed);
}

std::size_t SlabPool::heldBytes()
{
    return enabled() ? shelves().held() : 0;
}

void* SlabPool::acquire(std::size_t& bytes)
{
    bytes = mappingSize(bytes);
    if (enabled())
        if (void* block = shelves().take(bytes)) return block;
    void* block = map(bytes);
    if (!block && enabled()) {
        shelves().clear();
        block = map(bytes);
    }
    if (!block) throw std::bad_alloc();
    return block;
}

void* SlabPool::grow(void* block, std::size_t bytes, std::size_t& grownBytes)
{
    grownBytes = mappingSize(grownBytes);
    void* grown = remap(block, bytes, grownBytes);
    if (!grown) throw std::bad_alloc();
    if (grownBytes >= kHugePage) madvise(grown, grownBytes, MADV_HUGEPAGE);
    if (enabled()) shelves().resized(bytes, grownBytes);
    return grown;
}

void SlabPool::release(void* block, std::size_t bytes)
{
    if (enabled() && shelves().keep(block, bytes)) return;
    munmap(block, bytes);
}

}  // namespace tilegrid
