#pragma once
#include "TilegridOps/nodes/types.h"

namespace Geometry::Volume {

/// A new volume without tiles, its samples at voxel corners.
/// \param detail_size  world size of a voxel of the finest depth; not above 1.1920929e-7 gives an error and an empty object
/// \param structure  automatic means quinary; a value outside the enumeration leaves `volume` as it is
TILEGRID_API void create_empty_volume(float detail_size, AutoSubdivisionStructure structure, Corvid::Ptr<Ostara::Object>& volume,
                                      Corvid::RuntimeServices const& services);

/// Stores the three values in `field`.
TILEGRID_API void setResolutionField(Ostara::Math::float3 const& first, Ostara::Math::float3 const& second, int resolution,
                                     ResolutionField& field);

}  // namespace Geometry::Volume
