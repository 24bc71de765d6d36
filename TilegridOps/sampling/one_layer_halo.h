#pragma once
#include "TilegridOps/substrate/channel.h"
#include "TilegridOps/substrate/neighbor_walk.h"

namespace OST::TileTree3D {

/// Gathers a tile with one layer of voxels on every side, for samples that are cell-centred on some axis.
///
/// Where a tile of the same depth lies, its voxels are copied. Elsewhere, with a parent, the value is the trilinear mix of the
/// parent's own array, which keeps linear functions as they are. Without a parent, positions take the default on an axis with
/// samples at low corners; on a cell-centred axis they take 2 * default - inner, inner being the element mirrored across the
/// tile's face, so that the field reaches the default at the face. Axis by axis: at edges and corners the mirrored element may
/// itself be one of these.
///
/// \param tile        a tile which the channel has
/// \param cell        of the tile in its parent; of no account without one
/// \param around      the tiles on all sides of it
/// \param parentHalo  the parent's array, made by this function; null without a usable parent
/// \param offset      where samples lie, per axis
/// \param out         (W+2)^3 elements, i fastest; position -1 first
/// \par Source  trilinear interpolation, as for hanging voxels; second order, all weights positive
template <class Tr, class T>
TILEGRID_API void fillOneLayerHalo(TreeIndex const& tile, int3 const& cell, Surroundings const& around, T const* parentHalo,
                                   Channel<Tr, T, Tr::width, 0> const& channel, VoxelOffsetType offset, T* out);

}  // namespace OST::TileTree3D
