#pragma once
#include "TilegridOps/substrate/channel.h"
#include "TilegridOps/substrate/container.h"
#include "TilegridOps/substrate/dofs.h"
#include "TilegridOps/substrate/topology.h"

namespace VolumeGL::TileTree3D::LevelSet {

enum class ExtrapolationType : int {
    /// Linear, for signed distances: known values that are flat (a plateau) go on with slope 1 outward from the inside class.
    kSignedDistance = 0,
    kLinear = 1,
    kConstant = 2
};

/// Continues a field from the voxels where it is known into the others, layer by layer.
///
/// \param type       any value without a name acts as `kSignedDistance`
/// \param marker     0: unknown, to be filled; 2: known, of the outside class; any other: known, of the inside class. A filled voxel
///                   becomes 1 if its value is below 0, else 2; one that nothing reaches stays 0. Where the channel has no tile
///                   its default counts
/// \param data       known values are never written, except through `dof`s; those that are not finite count as unknown, but are
///                   not filled
/// \param orderField  null, or a field: a voxel is filled only from voxels of which its magnitude is smaller
/// \param dof        null, or flags: filled voxels that hang, or lie above children, then follow from others
/// \param minDepth, maxDepth  clamped to the depths of `data`
/// \param clampToKnown  filled values stay within those they come from
/// Without a known voxel nothing changes.
/// \throws std::runtime_error (OST::exceptionMessage) if the job was cancelled; the voxels may then be filled in part
/// \par Source  linear extrapolation along characteristics, in the marching form of T. Aslam, Journal of Computational Physics
///      193, 2004; across jumps by a V-cycle, as the wave. Exact for linear fields; one layer costs order 2
template <class Tr, class T>
void extrapolateChannel(ExtrapolationType type, OST::TileTree3D::Container<Tr> const& container,
                        OST::TileTree3D::VoxelTopology<Tr> const& topology, OST::TileTree3D::Channel<Tr, unsigned char, Tr::width, 0>& marker,
                        OST::TileTree3D::Channel<Tr, T, Tr::width, 0>& data, OST::TileTree3D::Channel<Tr, T, Tr::width, 0> const* orderField,
                        OST::TileTree3D::DofChannel<Tr> const* dof, int minDepth, int maxDepth, bool clampToKnown);

extern template TILEGRID_API void extrapolateChannel(
    ExtrapolationType, OST::TileTree3D::Container<OST::TileTree3D::BinaryTraits> const&,
    OST::TileTree3D::VoxelTopology<OST::TileTree3D::BinaryTraits> const&, OST::TileTree3D::Channel<OST::TileTree3D::BinaryTraits, unsigned char, 4, 0>&,
    OST::TileTree3D::Channel<OST::TileTree3D::BinaryTraits, float, 4, 0>&, OST::TileTree3D::Channel<OST::TileTree3D::BinaryTraits, float, 4, 0> const*,
    OST::TileTree3D::DofChannel<OST::TileTree3D::BinaryTraits> const*, int, int, bool);

}  // namespace VolumeGL::TileTree3D::LevelSet
