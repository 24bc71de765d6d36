#pragma once
#include "TilegridOps/merge/merge_volumes.h"

namespace tilegrid {

/// About how many bytes the values of a merge's result take, for a caller that refuses what would not fit. Made from the
/// inputs' tiles alone, before any tile of the result is. An adaptive result is taken to be refined to the finest depth all
/// along the surfaces, so that it can come out much smaller, hardly larger.
/// \param volumes  from `workingVolumes`
/// \param decisions  of these volumes
TILEGRID_API double estimateMergeBytes(NativeVolumes const& volumes, MergeDecisions const& decisions);

}  // namespace tilegrid
