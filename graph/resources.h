#pragma once
#include "graph/node.h"

#include <cstdint>

/// What a step takes of the machine.
namespace tilegrid::graph {

/// Bytes of the content of volumes and points. What several of them share counts for each.
std::uint64_t bytesOf(Result const& result);

/// Lets `peakMemory` count from now on, where the system can do that.
void resetPeakMemory();
/// The most bytes of memory that the process has had since; 0 where the system does not say.
std::uint64_t peakMemory();

}  // namespace tilegrid::graph
