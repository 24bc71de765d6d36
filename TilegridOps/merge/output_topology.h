#pragma once
#include "TilegridOps/host/array.h"
#include "TilegridOps/host/ost_object.h"
#include "TilegridOps/host/runtime.h"
#include "TilegridOps/merge/modes.h"
#include "TilegridOps/substrate/container.h"
#include "TilegridOps/substrate/topology.h"

/// Which tiles the result of a merge gets.
namespace tilegrid {

using NativeVolumes = Corvid::Array<Corvid::Ptr<OST::Object>>;

/// Adds the tiles of all volumes, carried over to the tree's voxel size and structure. Trees that agree in both are joined
/// tile by tile.
/// \throws std::runtime_error (OST::exceptionMessage) on cancellation
template <class Tr>
void refineTopologyUniformly(NativeVolumes const& volumes, OST::TileTree3D::Container<Tr>& tree, Corvid::RuntimeServices const& services);

/// Adds to `out`, for every tile of `source`, the tiles that cover the same part of world space at the finest depth whose
/// voxels are not finer than the source tile's, with all ancestors. What lies outside the tile space of `out` is left away.
template <class Source, class Out>
void refineFromContainer(OST::TileTree3D::Container<Source> const& source, OST::TileTree3D::Container<Out>& out);

/// Grows the tree from its root wherever the trilinear function of a tile's voxels misses the volumes' combined level set by
/// more than `maxError` (world units) at a voxel of the next depth, near the surface; see `LevelSetRefinePredicate`. Volumes
/// without a level set take no part.
/// \return false, and nothing done, if none has one
/// \throws as above
template <class Tr>
bool refineTopologyAdaptively(NativeVolumes const& volumes, Geometry::Volume::LevelSetMode mode, float maxError,
                              OST::TileTree3D::VoxelTopology<Tr> const& topology, OST::TileTree3D::Container<Tr>& tree,
                              Corvid::RuntimeServices const& services);

}  // namespace tilegrid
