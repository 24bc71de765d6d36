#pragma once
#include "TilegridOps/nodes/types.h"

/// Nodes that report on a volume and change nothing. Each writes its defaults first, and leaves them if the job is cancelled
/// or the object is not a volume (one error message).
namespace Geometry::Volume {

/// World size of a voxel of the finest depth. Default 1, which a volume without a tree keeps.
TILEGRID_API void get_voxel_size(Ostara::Object const& volume, float& voxel_size, Corvid::RuntimeServices const& services);

/// Voxels stored at all depths, those that have children too. Default 0.
TILEGRID_API void get_voxel_count(Ostara::Object const& volume, int64& count, Corvid::RuntimeServices const& services);

/// World box of what the volume shows (`Ostara::GeometryAlgorithms::getVolumeBounds`). Default (0,0,0) twice.
TILEGRID_API void volume_bounds(Ostara::Object const& volume, Ostara::Math::float3& min, Ostara::Math::float3& max,
                                Corvid::RuntimeServices const& services);

/// Lists all tiles, depth 0 first and in index order within a depth.
/// \param tile_depths, tile_positions, tile_voxel_widths  per tile its depth, low corner in tile space, and voxel width in
///        tile-space units
/// \param leaf_voxels  per tile W^3 entries, i fastest: whether the voxel's child cell has no child
/// \param structure, max_depth, tile_width  the structure, its finest depth, voxels per tile and axis; default binary, 28, 4
/// \param range_min, range_max  ends of tile space, inclusive. Default of `range_min` 0x1fffffff; `range_max` is written on
///        success only
TILEGRID_API void get_volume_tile_info(Ostara::Object const& volume, Corvid::Ptr<Corvid::Array<int>>& tile_depths,
                                       Corvid::Ptr<Corvid::Array<Ostara::Math::int3>>& tile_positions,
                                       Corvid::Ptr<Corvid::Array<int>>& tile_voxel_widths, Corvid::Ptr<Corvid::Array<bool>>& leaf_voxels,
                                       SubdivisionStructure& structure, int& max_depth, int& tile_width, Ostara::Math::int3& range_min,
                                       Ostara::Math::int3& range_max, Corvid::RuntimeServices const& services);

}  // namespace Geometry::Volume
