#pragma once
#include "TilegridOps/host/object.h"
#include "TilegridOps/host/runtime.h"
#include "io/mesh.h"

namespace tilegrid::io {

enum class Structure { kBinary, kQuinary };

struct LevelSetOptions {
    /// World size of a finest voxel.
    float voxelSize = 0.0f;
    /// Half width of the band of finest tiles, in finest voxels.
    float bandVoxels = 3.0f;
    Structure structure = Structure::kBinary;
    /// Refuse results whose estimate is larger.
    std::uint64_t maxBytes = 0;
};

/// A level set of a closed mesh: finest tiles within the band, and their ancestors. Every voxel of every depth holds
/// the signed distance to the surface, negative inside, in world units, to within half a voxel of its own depth; finest
/// voxels to within the accuracy of the mesh conversion. The default value is the band's half width in world units.
/// Samples lie at voxel corners.
/// \throws InputError for a voxel size that is not positive and finite, larger than the mesh, or too small for tile
///        space or
///         `maxBytes`, with the estimate
Corvid::Ptr<Ostara::Object> levelSetFromMesh(TriangleMesh const& mesh, LevelSetOptions const& options,
                                             Corvid::RuntimeServices const& services);

}  // namespace tilegrid::io
