#pragma once
#include "TilegridOps/merge/merge_volume.h"
#include "TilegridOps/merge/output_topology.h"

#include <cfloat>
#include <optional>

namespace tilegrid {

struct MergeParameters {
    MergeModes modes;
    bool enableAdaptivity = false;
    /// Scales the finest voxel of an adaptive result, if above 0.
    float adaptiveVoxelScale = 1.0f;
    /// Tolerance of an adaptive result, relative to `MergeDecisions::outputVoxelSize` times `referenceLength`.
    float maxRelativeError = 0.01f;
    /// The structure of the result; none leaves it to the inputs.
    std::optional<bool> binary;
    /// Tolerance of an adaptive result in world units, in place of the relative one.
    std::optional<float> maxError;
    /// Whether an input that was refined to a tolerance makes the result adaptive though nobody asked.
    bool followRefinedInputs = true;
    /// Whether an adaptive result is graded before its values are read from the inputs. Voxels that hang are then between voxels
    /// twice (five times) as wide, where the rule of growth has looked, so that interpolating them keeps the tolerance.
    bool graded = false;
};

/// What the inputs and parameters make of the result.
struct MergeDecisions {
    /// World size of the finest voxel: the smallest of all inputs; FLT_MAX if no input has a tree.
    float outputVoxelSize = FLT_MAX;
    /// World length of the longest side of the box around what lies inside the smallest level set, at most 1: of every level
    /// set the longest side, of those the shortest. 0 if a level set is flat.
    float referenceLength = 1.0f;
    /// Some input was refined to a tolerance, and nobody asked for another one.
    bool forcedAdaptivity = false;
    float maxRelativeError = FLT_MAX;
    /// The result is binary, else quinary.
    bool outputTraits24 = false;
    /// Tolerance of an adaptive result in world units.
    float maxError = 0.0f;
    bool adaptive = false;
};

/// The volumes as merging works on them: in the order in which they are merged, with plain channels only. A volume whose voxel
/// size is not a positive number has no place in world space; an empty one stands for it, and the user is warned.
/// \param volumes  no null element; the volumes themselves are not changed
TILEGRID_API NativeVolumes workingVolumes(NativeVolumes const& volumes, bool invertOrder, Corvid::RuntimeServices const& services);

/// \param volumes  from `workingVolumes`
/// \throws std::runtime_error (OST::exceptionMessage) on cancellation
TILEGRID_API MergeDecisions decideMerge(NativeVolumes const& volumes, MergeParameters const& parameters);

/// Joins volumes of any voxel size, structure and sample offset into a new one with corner samples. Its channels are those of
/// all inputs by name; the first volume with a name gives the type and the default value.
/// \param volumes  from `workingVolumes`
/// \throws as above
TILEGRID_API Corvid::MutablePtr<OST::Object> mergeVolumes(NativeVolumes const& volumes, MergeParameters const& parameters,
                                                          MergeDecisions const& decisions, Corvid::RuntimeServices const& services);

/// Gives a volume without tiles its tiles and fills its channels.
/// \param output  tree, topology and empty channels of structure Tr
/// \param graded  see `MergeParameters`
template <class Tr>
void mergeVolumesIntoOutput(NativeVolumes const& volumes, MergeModes const& modes, bool adaptive, float maxError, OST::Object& output,
                            Corvid::RuntimeServices const& services, bool graded = false);

}  // namespace tilegrid
