#pragma once
#include "TilegridOps/algorithms/affine_map.h"
#include "io/vdb.h"

namespace tilegrid::io {

/// A volume whose lattice lies askew in the world, on voxels along the axes: every value is read where the map leads, linearly, and a
/// level set becomes true distances. Integers, which have no values between, are left out with a warning.
/// \param name     of the grid, for messages
/// \param toWorld  from the space of the volume to the world
/// \throws InputError if the result would take more than the limit of `options`, or the map has no inverse
Corvid::Ptr<Ostara::Object> resampledToWorld(Corvid::Ptr<Ostara::Object> const& volume, std::string const& name, AffineMap const& toWorld,
                                             float voxelSize, VdbOptions const& options, Corvid::RuntimeServices const& services);

}  // namespace tilegrid::io
