#pragma once
#include "TilegridOps/host/object.h"
#include "TilegridOps/host/runtime.h"

#include <openvdb/openvdb.h>

namespace tilegrid::io {

bool isPointGrid(openvdb::GridBase const& grid);
/// The points of a grid, in the order of its voxels: positions, float and vector attributes ("pscale" and "radius" become the radius).
/// Attributes of other types are left out, with a message.
Corvid::Ptr<Ostara::Object> pointsFromGrid(openvdb::GridBase const& grid, Corvid::RuntimeServices const& services);
/// A grid with some points per voxel. \throws InputError without the name of a file
openvdb::GridBase::Ptr gridFromPoints(Ostara::Object const& points, Corvid::RuntimeServices const& services);

}  // namespace tilegrid::io
