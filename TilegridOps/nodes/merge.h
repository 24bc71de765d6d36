#pragma once
#include "TilegridOps/merge/modes.h"
#include "TilegridOps/nodes/types.h"
#include "TilegridOps/sampling/interpolation.h"

/// The node that joins volumes.
namespace Geometry::Volume {

/// Merges any number of volumes, of any voxel size, structure, sample offset and set of properties, into one.
///
/// The finest voxel of the result is as small as the finest of all inputs, its samples lie at corners, and its properties are
/// those of all inputs: the first volume with a name gives the type and the value outside, and a volume that has the name with
/// another type is left out of it. Each volume is read at the places of the result's voxels, and combined with those before.
/// Properties of float, float2, float3, float4, float3x3, float4x2, float4x4, double and double3 are merged.
///
/// \param volumes       merged in this order; one alone comes out as it is, none gives an empty object. An element that is null
///                      or no volume: an error, and an empty object
/// \param enable        false gives an empty object
/// \param invert_order  from the last to the first
/// \param level_set_mode, fog_density_mode, properties_mode  how values are combined; see merge/modes.h
/// \param alpha         weight of the later volume in `kBlend`
/// \param interpolation_type  how volumes are read between their voxels
/// \param enable_adaptivity   the tree of the result grows from its root, where its voxels cannot hold the combined level
///                      set (negative inside) within the tolerance, in place of all tiles of all inputs. Also done if this is
///                      false and an input was refined to a tolerance: with the smallest of theirs, and outside test mode only
/// \param adaptive_voxel_scale  above 0, and with `enable_adaptivity`: scales the finest voxel of the result
/// \param max_relative_error  tolerance in world units per finest voxel and unit of the smallest object's longest side (at
///                      most 1)
/// \param auto_subdivision_structure  automatic: quinary only if all inputs are and the tree is not adaptive
/// \param output        an empty object after a cancellation
TILEGRID_API void merge_volumes_internal(Corvid::Array<Corvid::Ptr<Ostara::Object>> const& volumes, bool enable, bool invert_order,
                                         LevelSetMode level_set_mode, FogDensityMode fog_density_mode, float alpha,
                                         Properties::Mode properties_mode, InterpolationMode interpolation_type, bool enable_adaptivity,
                                         float adaptive_voxel_scale, float max_relative_error,
                                         AutoSubdivisionStructure auto_subdivision_structure, Corvid::Ptr<Ostara::Object>& output,
                                         Corvid::RuntimeServices const& services);

}  // namespace Geometry::Volume
