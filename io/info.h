#pragma once
#include "TilegridOps/host/object.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tilegrid::io {

struct PropertyInfo {
    std::string name, type;
    /// Text of the values as JSON (numbers, or arrays of numbers).
    std::string defaultValue, min, max;
};

struct LevelSetInfo {
    Ostara::Math::float3 boundsMin, boundsMax;
    double volume = 0, area = 0;
    /// Sizes of the smallest and largest leaf voxels that the surface crosses, in world units; 0 if there is no surface.
    double finestVoxel = 0, coarsestVoxel = 0;
};

struct VolumeInfo {
    std::string structure;
    double voxelSize = 0;
    std::vector<std::int64_t> tilesByDepth, leafVoxelsByDepth;
    /// Bytes of content. Tables that only speed up access come and go with use, so they do not count.
    std::uint64_t bytes = 0;
    std::vector<PropertyInfo> properties;
    std::optional<LevelSetInfo> levelSet;
    /// How far the level set may be off where voxels are coarse, in world units, if the volume says so.
    std::optional<double> refinementError;
};

/// The entry (a float) of an adaptive volume that holds `VolumeInfo::refinementError`.
inline constexpr char kRefinementError[] = "refinement_error";

/// Measures a volume. Enclosed volume and area come from marching the leaf cells' corner values, in double, in index
/// order.
/// \throws InputError for an object without a tile tree
VolumeInfo describeVolume(Ostara::Object const& volume);
/// Structure, voxel size, tiles and leaf voxels alone, without a look at any value. \throws as above
VolumeInfo describeTiles(Ostara::Object const& volume);

/// `VolumeInfo::bytes` alone; 0 for an object without a native part.
std::uint64_t contentBytes(Ostara::Object const& volume);

/// Keys: structure, voxel_size, tiles_by_depth, leaf_voxels_by_depth, bytes, properties[{name,type,default,min,max}],
/// level_set{bounds_min,bounds_max,volume,area,voxel_min,voxel_max} (only for level sets; the last two only with a surface), refinement_error (only if the volume has it). One object, indented.
std::string toJson(VolumeInfo const& info);
/// For people: the same in lines, with bytes per leaf voxel. Depths in a row that have as many tiles and leaf voxels share a line.
std::string toText(VolumeInfo const& info);

}  // namespace tilegrid::io
