#pragma once
#include "TilegridOps/host/object.h"
#include "TilegridOps/host/runtime.h"
#include "io/mesh.h"

#include <optional>

namespace tilegrid::io {

enum class Structure { kBinary, kQuinary };

/// A box of world space in which a level set is finer.
struct FinerBox {
    Ostara::Math::double3 low, high;
    /// By how many depths.
    int levels = 1;
};

struct LevelSetOptions {
    /// World size of a voxel of the band: outside of `finer`, if that is given.
    float voxelSize = 0.0f;
    /// Half width of the band, in voxels: in those of `voxelSize`, and of tiles that lie in `finer` in their own.
    float bandVoxels = 3.0f;
    std::optional<FinerBox> finer;
    /// Of meshes: total thickness, in world units, of a shell around the surface, which then need not be closed. 0: the mesh is
    /// the surface of a solid.
    double thickness = 0.0;
    /// Whether to grade the tree. With `finer` it is graded anyway.
    bool graded = false;
    Structure structure = Structure::kBinary;
    /// Refuse results whose estimate is larger.
    std::uint64_t maxBytes = 0;
};

/// A shell is thinner than its thickness nowhere; below this many voxels it would have holes between samples: a place is up to
/// sqrt(3)/2 voxels from the nearest one, and a part of it for slack.
inline constexpr double kMinShellVoxels = 2.0;

/// A level set of a closed mesh: the finest tiles with a voxel in the band, and their ancestors. Every voxel of every
/// depth, the root too, holds the signed distance to the triangles, negative inside, in world units, computed in double
/// and rounded to float. The default value is the band's half width in world units. Samples lie at voxel corners.
///
/// With `finer` the finest tiles are those that meet its box; the band of `voxelSize` lies that many depths above them, in
/// the box too. The tree is then graded, and the voxel size of the volume is that of its finest voxels. The tiles that
/// grading adds hold true distances like all others.
///
/// Inside is where the surface winds around a place, in either direction: parts may overlap, and cavities whose
/// triangles look into them stay outside. Holes count as covered where the winding number passes one half; one warning with
/// the open edges says so. Copies of a triangle count once, and two that face opposite ways not at all (see
/// `dropRepeatedTriangles`).
///
/// With `thickness` it is the level set of the places at most half of it from the surface: the distance to the triangles less that half,
/// negative inside, whether the mesh is closed or open.
/// The attributes of the mesh become properties (io/mesh_properties.h).
/// \throws InputError for a mesh that no reader makes; for a voxel size that is not positive and finite, is larger than
///         the mesh, or is too small for tile space or `maxBytes`, with the estimate; for a finer box that is empty, not
///         finite or beside the mesh, or more levels than there are; for a shell of less than `kMinShellVoxels` voxels; and if no
///         voxel would be inside
Corvid::Ptr<Ostara::Object> levelSetFromMesh(TriangleMesh const& mesh, LevelSetOptions const& options,
                                             Corvid::RuntimeServices const& services);

}  // namespace tilegrid::io
