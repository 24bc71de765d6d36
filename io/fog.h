#pragma once
#include "TilegridOps/host/object.h"
#include "TilegridOps/host/runtime.h"

namespace tilegrid::io {

/// Adds `voxel_fog_density` (float) to a level set: -distance / width, held between 0 and 1. So it is 0 on the surface and
/// outside, rises evenly inwards, and is 1 from `width` below the surface on. Every voxel of the depths that the distance
/// has gets its value from its own distance; a NaN stays one. The default value is 0. A property of that name is replaced.
///
/// Distances that end at the default value of their property, as in files of other programs, let the density end there as
/// well, if `width` is larger; a message says so.
/// \param volume   changed in place if nobody else holds it
/// \param width    world units
/// \param keep     whether the level set stays. Without it the result is a volume, but no level set
/// \throws InputError for a volume without `voxel_signed_distance` of floats, and a width that is not positive and finite
Corvid::Ptr<Ostara::Object> fogFromLevelSet(Corvid::Ptr<Ostara::Object> volume, float width, bool keep,
                                            Corvid::RuntimeServices const& services);

}  // namespace tilegrid::io
