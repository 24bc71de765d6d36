#include "io/level_set_from_mesh.h"

#include "TilegridOps/host/geometry.h"
#include "TilegridOps/substrate/channel.h"
#include "TilegridOps/substrate/container.h"
#include "io/error.h"
#include "io/level_set_build.h"
#include "io/mesh_clean.h"
#include "io/mesh_distance.h"
#include "io/mesh_properties.h"
#include "io/text.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

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

/// Vertices in tile space, in double: float coordinates scaled without loss.
std::vector<double3> verticesInTileSpace(TriangleMesh const& mesh, double voxelSize)
{
    std::vector<double3> vertices;
    vertices.reserve(mesh.vertices.size());
    for (float3 const& v : mesh.vertices) vertices.emplace_back(v.x / voxelSize, v.y / voxelSize, v.z / voxelSize);
    return vertices;
}

template <class Tr> bool anyInside(Ostara::Object const& volume)
{
    using Ostara::Geometry::sVoxelSignedDistance, Ostara::Geometry::sVoxelTileTree;
    const auto tree = volume.native()->template component<Container<Tr>>(sVoxelTileTree);
    const auto values = volume.native()->template component<Channel<Tr, float, Tr::width, 0>>(sVoxelSignedDistance);
    for (int depth = Tr::maxDepth; depth >= 0; --depth)
        for (OST::int64 n = 0; n < tree->tileCount(depth); ++n) {
            float const* value = values->tileData(n, depth).data();
            if (std::any_of(value, value + Tr::voxelCount, [](float v) { return v < 0.0f; })) return true;
        }
    return false;
}

[[noreturn]] void refuseEmpty(MeshTopology const& edges)
{
    throw InputError("no voxel is inside the mesh" + (edges.closed() ? std::string(": it is closed, but thinner than the voxels, or its parts cancel. Use a smaller voxel size, or g")
                                                                  : ": " + openEdgesText(edges) + ". G")
                     + "ive it a thickness (thickness=2vx and more) to make a shell around its surface");
}

void checkThickness(double thickness, double voxelSize)
{
    if (!(thickness >= 0.0) || !std::isfinite(thickness)) throw InputError("the thickness is " + number(thickness) + ": give a positive number");
    if (thickness > 0.0 && thickness < kMinShellVoxels * voxelSize * (1.0 - 1e-6))  // a length in voxels comes as a product of floats
        throw InputError("the shell is " + number(thickness / voxelSize) + " voxels thick, and would have holes: give it a thickness of "
                         + number(kMinShellVoxels) + " voxels (" + number(kMinShellVoxels * voxelSize) + ") or more, or use smaller voxels");
}

/// What is known of the shell around a surface. Its area is that of both sides, of half a tube along each rim, and of a ball.
SurfaceExtent shellExtent(SurfaceExtent const& surface, double rim, double thickness)
{
    const double half = 0.5 * thickness, ends = std::numbers::pi * (half * rim + 4.0 * half * half);
    SurfaceExtent shell{"shell", surface.low - double3(half), surface.high + double3(half), 2.0 * surface.area + ends, {}};
    shell.areaIn = [&surface, half, ends](FinerBox const& finer) {
        FinerBox wider = finer;
        wider.low = finer.low - double3(half);
        wider.high = finer.high + double3(half);
        return 2.0 * surface.areaIn(wider) + ends;
    };
    return shell;
}

template <class Tr> Corvid::Ptr<Ostara::Object> shellLevelSet(TriangleMesh mesh, LevelSetOptions const& options)
{
    checkThickness(options.thickness, options.voxelSize);
    dropRepeatedTriangles(mesh, TwinRule::kKeepOne);
    const SurfaceExtent extent = extentOf(mesh);
    checkLevelSetOptions<Tr>(shellExtent(extent, meshTopology(mesh).openLength, options.thickness), options);
    const TriangleTree surface(verticesInTileSpace(mesh, finestVoxel<Tr>(options)), mesh.triangles);
    return buildLevelSet<Tr>(ShellDistance(surface, 0.5 * options.thickness / finestVoxel<Tr>(options)), options);
}

template <class Tr>
Corvid::Ptr<Ostara::Object> solidLevelSet(TriangleMesh mesh, LevelSetOptions const& options, Corvid::RuntimeServices const& services)
{
    const SurfaceExtent extent = extentOf(mesh);
    checkLevelSetOptions<Tr>(extent, options);
    // Copies of whole parts leave every edge balanced, and a copy of one triangle does not: either count may be the one that is meant.
    const std::vector<double3> vertices = verticesInTileSpace(mesh, finestVoxel<Tr>(options));
    MeshTopology edges = meshTopology(mesh);
    std::optional<WindingRows> rows;
    if (edges.closed()) rows.emplace(vertices, mesh.triangles);
    if (dropRepeatedTriangles(mesh, TwinRule::kCancel) > 0 && !edges.closed()) edges = meshTopology(mesh);
    if (mesh.triangles.empty()) refuseEmpty(edges);
    if (edges.closed() && !rows) rows.emplace(vertices, mesh.triangles);
    const TriangleTree surface(vertices, mesh.triangles);
    const auto volume = buildLevelSet<Tr>(MeshDistance(surface, rows ? &*rows : nullptr), options);
    if (!anyInside<Tr>(*volume)) refuseEmpty(edges);
    if (!edges.closed())
        services.message(Severity::kWarning,
                         "the mesh is not closed: " + openEdgesText(edges)
                             + ". Assumed: what it winds around by more than one half is inside, so holes count as covered; "
                               "thickness=3vx would make a shell of the surface instead");
    return volume;
}

template <class Tr>
Corvid::Ptr<Ostara::Object> levelSet(TriangleMesh const& mesh, LevelSetOptions const& options, Corvid::RuntimeServices const& services)
{
    checkMesh(mesh);
    return options.thickness == 0.0 ? solidLevelSet<Tr>(mesh, options, services) : shellLevelSet<Tr>(mesh, options);
}

}  // namespace

Corvid::Ptr<Ostara::Object> levelSetFromMesh(TriangleMesh const& mesh, LevelSetOptions const& options,
                                             Corvid::RuntimeServices const& services)
{
    auto volume = options.structure == Structure::kBinary ? levelSet<BinaryTraits>(mesh, options, services)
                                                          : levelSet<QuinaryTraits>(mesh, options, services);
    if (mesh.attributes.empty()) return volume;
    checkAttributes(mesh);
    TriangleMesh once = mesh;
    dropRepeatedTriangles(once, TwinRule::kKeepOne);
    return withMeshProperties(std::move(volume), once, options.maxBytes, services);
}

}  // namespace tilegrid::io
