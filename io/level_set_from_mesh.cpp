#include "io/level_set_from_mesh.h"

#include "io/error.h"
#include "io/level_set_build.h"
#include "io/mesh_distance.h"
#include "io/mesh_properties.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace tilegrid::io {

using namespace OST::TileTree3D;

namespace {

/// \throws InputError for a mesh that the reader of files would not have made
void checkMesh(TriangleMesh const& mesh)
{
    if (mesh.triangles.empty()) throw InputError("the mesh has no triangle");
    for (float3 const& v : mesh.vertices)
        for (int axis = 0; axis < 3; ++axis)
            if (!std::isfinite(v[axis])) throw InputError("the mesh has a coordinate that is not finite");
    const auto count = static_cast<OST::int64>(mesh.vertices.size());
    for (int3 const& t : mesh.triangles)
        for (int corner = 0; corner < 3; ++corner)
            if (t[corner] < 0 || t[corner] >= count)
                throw InputError("the mesh has a triangle with a vertex that is not there");
}

/// Area of the triangles that may have a part in the box.
double areaIn(FinerBox const& finer, TriangleMesh const& mesh)
{
    TriangleMesh part{mesh.vertices, {}};
    for (int3 const& t : mesh.triangles) {
        bool meets = true;
        for (int axis = 0; axis < 3; ++axis) {
            const auto [low, high] = std::minmax(
                {mesh.vertices[t[0]][axis], mesh.vertices[t[1]][axis], mesh.vertices[t[2]][axis]});
            meets = meets && low <= finer.high[axis] && high >= finer.low[axis];
        }
        if (meets) part.triangles.push_back(t);
    }
    return surfaceArea(part);
}

SurfaceExtent extentOf(TriangleMesh const& mesh)
{
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    SurfaceExtent extent{"mesh", double3(kInfinity), double3(-kInfinity), surfaceArea(mesh),
                         [&mesh](FinerBox const& finer) { return areaIn(finer, mesh); }};
    for (float3 const& v : mesh.vertices)
        for (int axis = 0; axis < 3; ++axis) {
            extent.low[axis] = std::min(extent.low[axis], double(v[axis]));
            extent.high[axis] = std::max(extent.high[axis], double(v[axis]));
        }
    return extent;
}

/// The surface in tile space, in double: float coordinates scaled without loss.
TriangleTree treeInTileSpace(TriangleMesh const& mesh, double voxelSize)
{
    std::vector<double3> vertices;
    vertices.reserve(mesh.vertices.size());
    for (float3 const& v : mesh.vertices) vertices.emplace_back(v.x / voxelSize, v.y / voxelSize, v.z / voxelSize);
    return TriangleTree(vertices, mesh.triangles);
}

template <class Tr>
Corvid::Ptr<Ostara::Object> levelSet(TriangleMesh const& mesh, LevelSetOptions const& options,
                                     Corvid::RuntimeServices const& services)
{
    checkMesh(mesh);
    const SurfaceExtent extent = extentOf(mesh);
    checkLevelSetOptions<Tr>(extent, options);
    const MeshTopology edges = meshTopology(mesh);
    if (!edges.closed())
        services.message(Severity::kWarning,
                         "the mesh is not closed: " + openEdgesText(edges)
                             + ". Assumed: what it winds around by more than one half is inside, so holes count as covered");
    const TriangleTree surface = treeInTileSpace(mesh, finestVoxel<Tr>(options));
    return buildLevelSet<Tr>(MeshDistance(surface, edges.closed()), options);
}

}  // namespace

Corvid::Ptr<Ostara::Object> levelSetFromMesh(TriangleMesh const& mesh, LevelSetOptions const& options,
                                             Corvid::RuntimeServices const& services)
{
    auto volume = options.structure == Structure::kBinary ? levelSet<BinaryTraits>(mesh, options, services)
                                                          : levelSet<QuinaryTraits>(mesh, options, services);
    return withMeshProperties(std::move(volume), mesh, options.maxBytes, services);
}

}  // namespace tilegrid::io
