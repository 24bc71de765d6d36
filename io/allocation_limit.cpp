#include "io/allocation_limit.h"

#include <algorithm>
#include <limits>

namespace tilegrid::io {

namespace {

AllocationMeter meter;

}  // namespace

void setAllocationMeter(AllocationMeter const& offered) noexcept { meter = offered; }

AllocationLimit::AllocationLimit(std::uint64_t maxBytes) noexcept
{
    if (maxBytes == 0 || !meter.setLimit) return;
    constexpr std::int64_t kNoLimit = std::numeric_limits<std::int64_t>::max();
    const std::int64_t used = std::max<std::int64_t>(meter.bytesInUse(), 0);
    const std::int64_t limit = maxBytes < std::uint64_t(kNoLimit - used) ? used + std::int64_t(maxBytes) : kNoLimit;
    before_ = meter.setLimit(limit);
    // The narrower of two that hold.
    if (before_ < limit) meter.setLimit(before_);
    set_ = true;
}

AllocationLimit::~AllocationLimit()
{
    if (set_) meter.setLimit(before_);
}

}  // namespace tilegrid::io
