#pragma once
#include "TilegridOps/merge/merge_volumes.h"

/// How many bytes a merge's result takes, before its values are made: tiles, child tables and the values of every property.
namespace tilegrid {

/// Roughly how many a plain result takes: as many voxels as the inputs have, each carried over to the next finer depth of the
/// result. From numbers of tiles alone, for a caller that refuses what would not fit.
/// \param volumes  from `workingVolumes`
/// \param decisions  of these volumes
TILEGRID_API double roughBytesOfPlainMerge(NativeVolumes const& volumes, MergeDecisions const& decisions);

/// Exactly how many a plain result takes. Makes its tiles, but no values.
/// \throws std::runtime_error (OST::exceptionMessage) on cancellation
TILEGRID_API double bytesOfPlainMerge(NativeVolumes const& volumes, MergeDecisions const& decisions, Corvid::RuntimeServices const& services);

/// About how many an adaptive result takes, whatever its size: the tree grows depth by depth, and of each depth a sample of at
/// most 512 tiles grows on, each of which stands for the others. Off by a few per cent, more where few tiles hold most of the
/// refinement. What grading adds is not counted: a twentieth to nearly a half. Same result for any number of threads.
/// \return 0 if no volume has a level set
/// \throws as above
TILEGRID_API double bytesOfAdaptiveMerge(NativeVolumes const& volumes, Geometry::Volume::LevelSetMode mode, MergeDecisions const& decisions);

}  // namespace tilegrid
