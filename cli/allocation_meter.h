#pragma once

namespace tilegrid::cli {

/// Lets the readers of files limit what libraries below them allocate (io/allocation_limit.h). First of all in `main`.
void offerAllocationMeter() noexcept;

}  // namespace tilegrid::cli
