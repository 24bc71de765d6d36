#pragma once
// The level layout of a .vdb file: one grid for each property and depth, whose active voxels are the voxels of the tiles.
// What a grid cannot say by itself stands in its metadata, in every grid, so that each one tells what it belongs to.
#include "io/vdb_grids.h"

namespace tilegrid::io::levels {

/// Int32. Files of another version are refused; a grid without it belongs to no level file.
inline constexpr char kVersionKey[] = "tilegrid_levels_version";
inline constexpr int kVersion = 1;
/// String: "binary" or "quinary".
inline constexpr char kStructureKey[] = "tilegrid_structure";
/// Float: world size of a voxel of the finest depth of the structure.
inline constexpr char kVoxelSizeKey[] = "tilegrid_voxel_size";
/// Int32: `VoxelOffsetType`.
inline constexpr char kOffsetKey[] = "tilegrid_offset";
/// Float: `Container::maxRelativeRefinementError`.
inline constexpr char kErrorKey[] = "tilegrid_max_relative_refinement_error";
/// Int32: the depth of the grid's tiles.
inline constexpr char kDepthKey[] = "tilegrid_depth";
/// Int64: how many tiles the grid has.
inline constexpr char kTilesKey[] = "tilegrid_tiles";
/// String. A grid without a property only holds tiles, of a depth where no property has values.
inline constexpr char kPropertyKey[] = "tilegrid_property";
/// Of the grid's value type: the property's default value.
inline constexpr char kDefaultKey[] = "tilegrid_default";
/// Int32: `DataElementInitializerType`.
inline constexpr char kInitializerKey[] = "tilegrid_initializer";
/// Int32: the depths that the property has values for, inclusive.
inline constexpr char kMinDepthKey[] = "tilegrid_min_depth", kMaxDepthKey[] = "tilegrid_max_depth";

}  // namespace tilegrid::io::levels

namespace tilegrid::io {

/// Whether a grid of a file is one level of a volume.
bool isLevelGrid(openvdb::GridBase const& grid);

/// The grids of the level layout: properties in the order of their names, depths ascending.
std::vector<openvdb::GridBase::Ptr> levelGridsFromVolume(Ostara::Object const& volume,
                                                         Corvid::RuntimeServices const& services);

/// The volume that such grids hold. Its tiles lie in Morton order.
/// \throws InputError for anything that the writer does not write: what is missing, contradicts another grid or the
///         structure, is no whole tile, has no parent; and for more than `maxBytes`
NamedVolume volumeFromLevelGrids(std::vector<openvdb::GridBase::ConstPtr> const& grids, VdbOptions const& options);

}  // namespace tilegrid::io
