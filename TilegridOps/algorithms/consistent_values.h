#pragma once
#include "TilegridOps/host/ost_object.h"
#include "TilegridOps/substrate/dofs.h"

namespace tilegrid {

/// Sets `kDofKeep` on the hanging voxels of a tree whose interpolation would reach over more than one depth: those beside a tile
/// two depths coarser or more, and those above one of these. Where grading ends, what lies between coarse samples is no better
/// known than what the voxel holds. In a graded tree there is none.
/// \param dofs  flags for the tree as it is (`computeDofs`)
template <class Tr>
TILEGRID_API void keepFarHanging(OST::TileTree3D::Container<Tr> const& tree, OST::TileTree3D::DofChannel<Tr>& dofs);

/// Makes the plain channels of a volume consistent, depth by depth. Voxels above a child take the child's value (with samples that
/// are no corners the mean of the child's). Then hanging voxels of types with a fraction are interpolated from the depth above,
/// but for those of `keepFarHanging`, and but for signed distances, which hold true distances there. All else keeps its bits.
/// \throws std::runtime_error (OST::exceptionMessage) if the job was cancelled; the channel in hand is lost then
TILEGRID_API void makeConsistent(OST::Object& volume);

}  // namespace tilegrid
