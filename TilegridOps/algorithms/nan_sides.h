#pragma once
#include "TilegridOps/substrate/channel.h"
#include "TilegridOps/substrate/container.h"
#include "TilegridOps/substrate/parallel.h"

namespace tilegrid {

/// Gives the voxels of a level set that hold NaN the side that most of their finite face neighbours have, the outer one on a tie, so
/// that no pinhole is left in a solid. Those without such a neighbour follow once theirs have a side; where nothing is finite they
/// stay. The value is what lies between opposite neighbours, if that has the side, else the mean of the neighbours of the side. A neighbour beside a jump of depth is the coarser voxel there.
///
/// \param minDepth, maxDepth  of the voxels that are written; inside the channel's
/// \param isFixed  voxels (tile, depth, voxel) that stay as they are
/// \throws std::runtime_error (OST::exceptionMessage) if the job was cancelled
template <class Tr>
TILEGRID_API void giveNansSides(OST::TileTree3D::Container<Tr> const& tree, OST::TileTree3D::Channel<Tr, float, Tr::width, 0>& levelSet,
                                int minDepth, int maxDepth, parallel::FunctionRef<bool(OST::int64, int, int)> isFixed);

/// The same for all voxels.
template <class Tr>
void giveNansSides(OST::TileTree3D::Container<Tr> const& tree, OST::TileTree3D::Channel<Tr, float, Tr::width, 0>& levelSet)
{
    giveNansSides<Tr>(tree, levelSet, levelSet.minDepth(), levelSet.depth(), [](OST::int64, int, int) { return false; });
}

}  // namespace tilegrid
