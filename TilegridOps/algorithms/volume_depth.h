#pragma once
#include "TilegridOps/host/ost_object.h"
#include "TilegridOps/substrate/channel.h"
#include "TilegridOps/substrate/container.h"
#include "TilegridOps/substrate/topology.h"

namespace VolumeGL::TileTree3D::LevelSet {

/// Writes how far each voxel lies below the zero surface of a level set, in world units, to the float property "voxel_depth" of the
/// object, which is created (default 0, filled linearly in new tiles) or replaced.
///
/// \param minDepthWorld, maxDepthWorld  bounds of what is written: above the surface the lower one, or 0 if that is below 0. No upper
///                         bound if it is not above the lower one, or 0
/// \param smoothingPasses  passes of the 1-2-1 filter over voxels deeper than the lower bound; at most 100, negative as 0
/// \param channel          need not hold true distances: only its crossing is used, so depths are right beyond any band. Without a
///                         crossing its magnitudes are taken for depths
/// \throws std::runtime_error (OST::exceptionMessage) if the job was cancelled
template <class Tr>
void computeVolumeDepth(float minDepthWorld, float maxDepthWorld, int smoothingPasses, OST::TileTree3D::Container<Tr> const& container,
                        OST::TileTree3D::VoxelTopology<Tr> const& topology, OST::TileTree3D::Channel<Tr, float, Tr::width, 0> const& channel,
                        OST::Object& object);

extern template TILEGRID_API void computeVolumeDepth(float, float, int, OST::TileTree3D::Container<OST::TileTree3D::BinaryTraits> const&,
                                                     OST::TileTree3D::VoxelTopology<OST::TileTree3D::BinaryTraits> const&,
                                                     OST::TileTree3D::Channel<OST::TileTree3D::BinaryTraits, float, 4, 0> const&, OST::Object&);

}  // namespace VolumeGL::TileTree3D::LevelSet
