#pragma once
#include "TilegridOps/host/ost_object.h"
#include "TilegridOps/host/string.h"

namespace VolumeGL::TileTree3D {

/// Removes tiles whose values of a property (any type, plain layout) the next coarser depth can give, from the finest depth up.
///
/// A tile without children goes if each of its voxels lies within max(absoluteError, 0) + max(relativeError, 0) * (its largest absolute value)
/// of the trilinear value one depth above, by the largest component; properties without a fraction must equal what is injected. Tiles stay that touch
/// a finer one (so that a graded tree stays graded), have no parent, hold points or a NaN, or are worth protecting. The cells of a tile are
/// independent: some of its children may go and others stay.
///
/// Before, voxels with children take the children's values in all properties of real types, so that every property keeps what its
/// coarser voxels can show; afterwards hanging voxels are interpolated, and degrees of freedom that are there are computed
/// again. Halo layers of other layouts are left as they are.
///
/// \param protectSurface  for float and double: tiles also stay that meet a change of sign, within them or towards the voxels next
///                        to them on the high sides, or have a value not above max(surfaceBand, 0) voxels of their depth
/// \param stagePrefix     the timer is called this and "coarsen"
/// \return false, and nothing changed, if there is no such property, tree or topology
/// \throws std::runtime_error (OST::exceptionMessage) on cancellation; the volume is whole then, with some tiles removed
/// \par Source  definition. Errors of 0 and 0 remove only what is exact
TILEGRID_API bool channelCoarsen(Corvid::String const& property, float absoluteError, float relativeError, bool protectSurface, float surfaceBand,
                                 OST::Object& object, Corvid::String const& stagePrefix);

}  // namespace VolumeGL::TileTree3D
