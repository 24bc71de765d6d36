#pragma once
#include "TilegridOps/host/ost_object.h"

namespace tilegrid {

/// How far a level set's own voxels may be from what they stand for, in world units: the root mean square of the error of
/// trilinear interpolation at the surface. 0 without a level set, or if no leaf tile meets the surface.
///
/// Estimated from second differences: between samples h apart, a function misses its linear interpolant by at most
/// h^2/8 max|f''| along an axis, and the errors of the axes add up; h^2 f'' is the second difference of three samples. Taken
/// at voxels within one voxel of the surface whose neighbours lie in the same leaf tile, each weighed by the area that its
/// cell covers, so that depths count by the surface that they hold.
/// \par Source  remainder of linear interpolation; de Boor, A Practical Guide to Splines, chapter II
/// \throws std::runtime_error (OST::exceptionMessage) on cancellation
TILEGRID_API double interpolationError(OST::Object const& volume);

}  // namespace tilegrid
