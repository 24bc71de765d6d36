#pragma once
#include "TilegridOps/substrate/coarse_read.h"

/// Keeping coarse voxels in step with the finer ones that lie over them.
namespace OST::TileTree3D {

namespace detail {

/// The two bodies of `setNonLeafValueToChildValue`, for an array of `width` elements per axis with `halo` layers.
template <class Tr>
TILEGRID_API void copyFromChildren(VoxelChannelCore& channel, int width, int halo, Container<Tr> const& container,
                                   int minDepth, int maxDepth);
template <class Tr, class T>
TILEGRID_API void averageChildren(VoxelChannelCore& channel, int width, int halo, Container<Tr> const& container,
                                  VoxelOffsetType offset, int minDepth, int maxDepth);

}  // namespace detail

/// Every voxel that has a child tile takes the value of that child's voxels, finest depth first. On an axis whose samples lie
/// at corners it is the coincident voxel; on the others the mean of the B voxels that the coarse one covers. Types without a
/// fraction take the coincident voxel on all axes. Halo layers are left as they are.
///
/// \param minDepth, maxDepth  depths that are written, clamped to those whose children the channel has
/// \throws std::runtime_error(exceptionMessage) on cancellation
/// \par Source  means are summed in double and rounded once
template <class Tr, class T, int N, int H>
void setNonLeafValueToChildValue(Channel<Tr, T, N, H>& channel, Container<Tr> const& container, VoxelOffsetType offset,
                                 int minDepth, int maxDepth)
{
    constexpr int width = detail::arrayWidth<N, H>;
    if constexpr (tilegrid::canInterpolate<T>) {
        if (offset != kCorner)
            return detail::averageChildren<Tr, T>(channel, width, H, container, offset, minDepth, maxDepth);
    }
    detail::copyFromChildren<Tr>(channel, width, H, container, minDepth, maxDepth);
}

}  // namespace OST::TileTree3D
