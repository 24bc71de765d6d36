// What the libraries that our importers stand on do with bad files, so that the fuzzers find our own faults behind them.

#include <cstddef>
#include <cstdlib>
#include <new>

// They allocate whatever size a file claims and rely on std::bad_alloc; the sanitizer's own operator new would end the program.
namespace {

constexpr std::size_t kMostAtOnce = std::size_t(1) << 30;

void* allocate(std::size_t size, std::size_t alignment)
{
    if (size > kMostAtOnce) throw std::bad_alloc();
    void* memory = nullptr;
    if (alignment <= alignof(std::max_align_t))
        memory = std::malloc(size ? size : 1);
    else if (posix_memalign(&memory, alignment, size) != 0)
        memory = nullptr;
    if (!memory) throw std::bad_alloc();
    return memory;
}

}  // namespace

#define TILEGRID_VISIBLE __attribute__((visibility("default")))

TILEGRID_VISIBLE void* operator new(std::size_t size) { return allocate(size, 1); }
TILEGRID_VISIBLE void* operator new[](std::size_t size) { return allocate(size, 1); }
TILEGRID_VISIBLE void* operator new(std::size_t size, std::align_val_t at) { return allocate(size, std::size_t(at)); }
TILEGRID_VISIBLE void* operator new[](std::size_t size, std::align_val_t at) { return allocate(size, std::size_t(at)); }
TILEGRID_VISIBLE void* operator new(std::size_t size, std::nothrow_t const&) noexcept { return std::malloc(size ? size : 1); }
TILEGRID_VISIBLE void* operator new[](std::size_t size, std::nothrow_t const&) noexcept { return std::malloc(size ? size : 1); }
TILEGRID_VISIBLE void operator delete(void* memory) noexcept { std::free(memory); }
TILEGRID_VISIBLE void operator delete[](void* memory) noexcept { std::free(memory); }
TILEGRID_VISIBLE void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
TILEGRID_VISIBLE void operator delete[](void* memory, std::size_t) noexcept { std::free(memory); }
TILEGRID_VISIBLE void operator delete(void* memory, std::align_val_t) noexcept { std::free(memory); }
TILEGRID_VISIBLE void operator delete[](void* memory, std::align_val_t) noexcept { std::free(memory); }
TILEGRID_VISIBLE void operator delete(void* memory, std::size_t, std::align_val_t) noexcept { std::free(memory); }
TILEGRID_VISIBLE void operator delete[](void* memory, std::size_t, std::align_val_t) noexcept { std::free(memory); }

// OpenVDB loses the node that it was reading when a file ends or errs in the middle.
extern "C" TILEGRID_VISIBLE char const* __lsan_default_suppressions()
{
    return "leak:openvdb::*::RootNode*::readTopology\nleak:libopenvdb\n";
}
