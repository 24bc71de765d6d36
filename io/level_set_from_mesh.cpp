#include "io/level_set_from_mesh.h"

#include "TilegridOps/host/geometry.h"
#include "TilegridOps/substrate/parallel.h"
#include "io/distance_tiles.h"
#include "io/error.h"
#include "io/level_set_tiles.h"
#include "io/text.h"
#include "io/volume_builder.h"

#include <algorithm>
#include <cmath>

namespace tilegrid::io {

using namespace OST::TileTree3D;

namespace {

struct Box {
    double3 low{std::numeric_limits<double>::infinity()}, high{-std::numeric_limits<double>::infinity()};
    double longest() const { return std::max({high.x - low.x, high.y - low.y, high.z - low.z}); }
    double farthest() const
    {
        return std::max(
            {std::abs(low.x), std::abs(low.y), std::abs(low.z), std::abs(high.x), std::abs(high.y), std::abs(high.z)});
    }
};

/// The box of the mesh. \throws InputError for a mesh that the reader of files would not have made
Box checkedBox(TriangleMesh const& mesh)
{
    if (mesh.triangles.empty()) throw InputError("the mesh has no triangle");
    Box box;
    for (float3 const& v : mesh.vertices)
        for (int axis = 0; axis < 3; ++axis) {
            if (!std::isfinite(v[axis])) throw InputError("the mesh has a coordinate that is not finite");
            box.low[axis] = std::min(box.low[axis], double(v[axis]));
            box.high[axis] = std::max(box.high[axis], double(v[axis]));
        }
    const auto count = static_cast<OST::int64>(mesh.vertices.size());
    for (int3 const& t : mesh.triangles)
        for (int corner = 0; corner < 3; ++corner)
            if (t[corner] < 0 || t[corner] >= count)
                throw InputError("the mesh has a triangle with a vertex that is not there");
    return box;
}

template <class Tr> void checkOptions(TriangleMesh const& mesh, Box const& box, LevelSetOptions const& options)
{
    const double h = options.voxelSize, band = options.bandVoxels;
    const std::string size = number(options.voxelSize);
    if (!(h > 0.0) || !std::isfinite(h)) throw InputError("the voxel size is " + size + ": give a positive number");
    if (!(band >= 1.0) || !(band <= 1e6))
        throw InputError("the band is " + number(band) + " voxels wide on each side: give 1 to 1e6");
    if (h > box.longest())
        throw InputError("the voxel size " + size + " is larger than the mesh, whose longest side is "
                         + number(box.longest()) + ": nothing of it would be left");
    // One finest tile beyond the band stays inside tile space, on the side where that is the narrower.
    const double limit = double(Tr::rangeMax) - band - Tr::width;
    if (box.farthest() / h > limit)
        throw InputError("the mesh reaches " + number(box.farthest()) + " from the origin, "
                         + number(box.farthest() / h) + " voxels of size " + size + "; the tree reaches "
                         + number(limit) + ": use a larger voxel size, or move the mesh to the origin");
    const double bytes = estimatedLevelSetBytes<Tr>(surfaceArea(mesh) / (h * h), box.longest() / h, band);
    if (options.maxBytes > 0 && bytes > double(options.maxBytes))
        throw InputError("the level set would take about " + byteText(bytes) + " at voxel size " + size
                         + ", and the limit is " + byteText(double(options.maxBytes))
                         + ": use a larger voxel size or raise the limit");
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
    checkOptions<Tr>(mesh, checkedBox(mesh), options);
    const MeshTopology edges = meshTopology(mesh);
    if (!edges.closed())
        services.message(Severity::kWarning,
                         "the mesh is not closed (" + std::to_string(edges.openEdges) + " open and "
                             + std::to_string(edges.nonManifoldEdges)
                             + " non-manifold edges): inside is taken to be where the surface winds around a "
                               "place by more than one half");
    const double h = options.voxelSize;
    const TriangleTree surface = treeInTileSpace(mesh, h);
    std::vector<VoxelCoord> tiles;
    for (int3 const& corner : tilesNearSurface<Tr>(surface, options.bandVoxels))
        tiles.emplace_back(corner, Tr::maxDepth);

    auto native = makeVolume<Tr>(tiles, options.voxelSize, kCorner);
    const DistanceTiles distances(surface, edges.closed() && edges.flippedEdges == 0);
    const float band = static_cast<float>(options.bandVoxels * h);
    addChannel<Tr>(*native, Ostara::Geometry::sVoxelSignedDistance, band,
                   [&](Container<Tr> const& tree, auto& channel) {
                       for (int depth = 0; depth <= Tr::maxDepth; ++depth)
                           parallel::loop(0, tree.tileCount(depth), 8, [&](OST::int64 begin, OST::int64 end) {
                               for (OST::int64 n = begin; n < end; ++n)
                                   distances.fill(double3(tree.tile(n, depth).tijk()), Tr::voxelDataWidth(depth),
                                                  Tr::width, h, channel.tileData(n, depth).data());
                           });
                   });
    return Ostara::Geometry::move_ost_volume_to_object(*native);
}

}  // namespace

Corvid::Ptr<Ostara::Object> levelSetFromMesh(TriangleMesh const& mesh, LevelSetOptions const& options,
                                             Corvid::RuntimeServices const& services)
{
    return options.structure == Structure::kBinary ? levelSet<BinaryTraits>(mesh, options, services)
                                                   : levelSet<QuinaryTraits>(mesh, options, services);
}

}  // namespace tilegrid::io
