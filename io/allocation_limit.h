#pragma once
#include <cstdint>

namespace tilegrid::io {

/// What a program offers that counts its own allocations (operator new). A library cannot do that for it.
struct AllocationMeter {
    /// Bytes in use now, in all threads.
    std::int64_t (*bytesInUse)() noexcept = nullptr;
    /// From now on an allocation that would lead beyond so many bytes in use throws std::bad_alloc. \return the limit before
    std::int64_t (*setLimit)(std::int64_t bytes) noexcept = nullptr;
};

/// Once, before any other thread starts.
void setAllocationMeter(AllocationMeter const& meter) noexcept;

/// While it lives, the process may allocate `maxBytes` more than it has now, in all threads together: what a library below
/// allocates for a damaged file is refused with std::bad_alloc. Does nothing in a program without a meter, or for 0.
class AllocationLimit {
public:
    explicit AllocationLimit(std::uint64_t maxBytes) noexcept;
    AllocationLimit(AllocationLimit const&) = delete;
    AllocationLimit& operator=(AllocationLimit const&) = delete;
    ~AllocationLimit();

private:
    bool set_ = false;
    std::int64_t before_ = 0;
};

}  // namespace tilegrid::io
