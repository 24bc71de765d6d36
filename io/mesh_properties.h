#pragma once
#include "TilegridOps/host/object.h"
#include "TilegridOps/host/runtime.h"
#include "io/mesh.h"

namespace tilegrid::io {

/// Makes a property of each attribute of the mesh: float, or float3 for three components. Every voxel of every depth, the root too,
/// holds the value at the point of the surface that is closest to its sample, linear over the triangle there. So values go on
/// straight away from the surface, and coarse voxels hold no mean but the value of their own closest point. As in every consistent
/// volume, voxels above children take the value that these have at the same place, and hanging voxels, at the rim of the band, what
/// lies between the coarser ones beside them. Where two values meet in a vertex, that of the triangle found counts. Outside
/// every tile it is 0.
///
/// Attributes that have the name of something that the volume has already are left out, with a warning.
/// \param volume    made of the same mesh, samples at voxel corners; changed in place if nobody else holds it
/// \param maxBytes  0: no limit
/// \throws InputError for attributes of wrong size, and for more memory than the limit, with the estimate
Corvid::Ptr<Ostara::Object> withMeshProperties(Corvid::Ptr<Ostara::Object> volume, TriangleMesh const& mesh, std::uint64_t maxBytes,
                                               Corvid::RuntimeServices const& services);

/// Samples all properties of floats and float3, but the signed distance, at the vertices of a mesh in the volume (trilinear; see
/// `SampleMode::kLinear`), and adds them as attributes in the order of their names.
void addPropertiesAtVertices(TriangleMesh& mesh, Ostara::Object const& volume);

/// \throws InputError if an attribute has not a value for each vertex or a triangle names none
void checkAttributes(TriangleMesh const& mesh);

}  // namespace tilegrid::io
