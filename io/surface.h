#pragma once
#include "TilegridOps/host/object.h"
#include "io/mesh.h"

namespace tilegrid::io {

/// The zero surface of `voxel_signed_distance` in the leaf cells of every depth (`tilegrid::surface::extractSurface`): closed, with
/// normals outward. No triangle if the distance has one sign.
/// \throws InputError for an object without one
TriangleMesh extractSurface(Ostara::Object const& volume);

}  // namespace tilegrid::io
