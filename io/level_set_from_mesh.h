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

/// A level set of a closed mesh: the finest tiles with a voxel in the band, and their ancestors. Every voxel of every
/// depth, the root too, holds the signed distance to the triangles, negative inside, in world units, computed in double
/// and rounded to float. The default value is the band's half width in world units. Samples lie at voxel corners.
///
/// Inside is where the surface winds around a place, in either direction: parts may overlap, and cavities whose
/// triangles look into them stay outside. Holes count as covered where the winding number passes one half; a message
/// says so.
/// \throws InputError for a mesh that no reader makes; for a voxel size that is not positive and finite, is larger than
///         the mesh, or is too small for tile space or `maxBytes`, with the estimate
Corvid::Ptr<Ostara::Object> levelSetFromMesh(TriangleMesh const& mesh, LevelSetOptions const& options,
                                             Corvid::RuntimeServices const& services);

}  // namespace tilegrid::io
